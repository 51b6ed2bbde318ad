#pragma once

#include "ZqFormChoice.h"
#include "ZqRemoteFile.h"
#include "ZqStretchLayout.h"

#include <set>

class ZqTableLoader;

/// Both forms of an image on its server, `img.zqf` and `img.zqf.zst`: their files, which of them is taken
/// (ZqFormChoice), and whether what comes of them is right. Keeps nothing of the image. All operations are
/// safe from any thread; setHeaders() and the like as in ZqRemoteFile.
///
/// Checksums. Nothing is handed on that the table says is wrong. Its checksums are of decoded bytes, so they
/// hold for frames and for stretches of the plain form alike, and both are handed on as wholes once the table
/// is there. A stretch that is wrong is fetched again once, over a connection of its own and past caches, and
/// then named in an error (WRONG).
class ZqImageForms {
public:
    using Bytes = SxPtr<SxArray<char>>;
    using Table = ZqFormChoice::Table;
    /// Requests in a row that a form may fail in while the other one may be there. A failure that passes with
    /// the next try or two changes no form.
    static constexpr int64 TURN_TRIES = 3;

    /// As those of ZqRemoteImage; `onOtherTable` as that of ZqFormChoice.
    ZqImageForms(const SxPtr<ZqNetLink>& link, const SxString& folderUrl, uint64 sizeZqf,
                 const SxArray<SxString>& headers, const SxString& digest_,
                 const std::function<void()>& onOtherTable);
    /// Ends the look for the table.
    ~ZqImageForms();
    ZqImageForms(const ZqImageForms&) = delete;
    ZqImageForms& operator=(const ZqImageForms&) = delete;

    /// Begins to look for the table. False where that was begun before; raises where there is no thread to be
    /// had.
    bool open();

    const SxPtr<ZqNetLink>& getLink() const noexcept { return plain->getLink(); }
    const ZqStretchLayout& getLayout() const noexcept { return layout; }
    const ZqRemoteFile& getPlain() const noexcept { return *plain; }
    const ZqRemoteFile& getPacked() const noexcept { return *packed; }
    ZqFormChoice& getChoice() noexcept { return choice; }
    const ZqFormChoice& getChoice() const noexcept { return choice; }

    void setHeaders(const SxArray<SxString>& headers);
    /// See ZqRemoteImage.
    void setSameTest(const ZqFileFacts::SameTest& test);
    void doubtServer();
    void requireRanges(const ZqStopTest& stop);
    void forgetServer();

    /// Whether the packed form that begins with these bytes is that of this image; one that doesn't say so
    /// counts as it.
    bool isOfThisImage(const SxArray<char>& front) const;
    /// Decodes a frame of the packed file and checks it by `known`, where that isn't null; raises with the
    /// tag WRONG.
    Bytes decode(uint64 stretchIdx, const char* frame, uint64 n, const Table& known) const;
    /// Compares a stretch of the plain form with the table's checksum, and raises with the tag WRONG. Waits
    /// for a table that is on its way, but not for one that doesn't come. Gives the table; null where nothing
    /// was compared.
    Table checkPlain(uint64 stretchIdx, const SxArray<char>& bytes, const ZqStopTest& stop);
    /// What an error about a wrong stretch says.
    SxString nameOf(uint64 stretchIdx, bool isFrame) const;

    // Stretches that came wrong: requests for them go past what caches hold.
    void distrust(uint64 stretchIdx);
    bool isDistrusted(uint64 stretchIdx) const;
    /// It has come right.
    void trust(uint64 stretchIdx);
    /// All before `endIdx` are there.
    void trustBefore(uint64 endIdx);

private:
    const ZqStretchLayout layout;
    const SxPtr<ZqRemoteFile> plain, packed;
    const SxString digest;
    ZqFormChoice choice;
    const std::unique_ptr<ZqTableLoader> loader;

    mutable SxMutex mutex;
    std::set<uint64> distrusted SX_GUARDED_BY(mutex);
};
