#pragma once

#include "ZqAppParams.h"
#include "ZqFeedStatus.h"
#include "ZqImageLock.h"
#include "ZqImageOrigin.h"
#include "ZqImageParams.h"
#include "ZqNewFolder.h"
#include "ZqOrderHints.h"
#include "ZqStreamRecord.h"

/// The folder of an image that is fed: takes it for this process, knows where it comes from and how an
/// earlier run has left it, and completes its records. For the owner's thread, getApp() and the like for any
/// once openApp() has returned.
class ZqFeedFolder {
public:
    explicit ZqFeedFolder(const ZqFeedSettings& settings_) : settings(settings_) {}

    /// Takes the image, so that nobody else downloads into it, and cuts off what can't be of it. Gives
    /// whether all of `img.zqf` is there. Raises naming the holder where the image is in use, and where no
    /// address is known for what is missing.
    bool take(const ZqStopTest& stop);
    /// Keeps a folder that take() has made: from now on it isn't in vain.
    void keep();
    /// Removes it, with what this program has put there, unless keep() was called. Raises nothing.
    void removeNew();
    /// Fetches the first `n` bytes of `img.zqf`, over `link`. Raises with the tags of ZqNetLink.
    void fetchBegin(const SxPtr<ZqNetLink>& link, char* bytes, uint64 n, const ZqStopTest& stop) const;
    /// Reads `app.json`, or fetches it over `link` where that isn't null: where the image isn't complete.
    /// False where the server hasn't said that this is its version still.
    bool openApp(const SxPtr<ZqNetLink>& link, const ZqStopTest& stop);
    /// Notes the address in the folder, and the way there if the server has answered, and no longer how the
    /// image was left; `isDownloaded`: since it is
    /// about to be written.
    void noteUse(bool isDownloaded) const;
    /// Fetches the records that are missing, over `link` where that isn't null. `mapLeft` is told how much of
    /// the map is still to come.
    void openRest(const SxPtr<ZqNetLink>& link, std::atomic<uint64>* mapLeft, const ZqStopTest& stop);

    /// The hints of the image's order, of the folder or over `link`; null where there are none. Raises
    /// nothing. From openApp() on, for any thread, but not beside itself.
    SxPtr<const ZqOrderHints> fetchHints(const SxPtr<ZqNetLink>& link, const ZqStopTest& stop) const;

    /// The way to the server, from take() on.
    const ZqNetAccess& getAccess() const noexcept { return access.get(); }
    const ZqAppParams& getApp() const noexcept { return origin.getApp(); }
    /// From openRest() on.
    const ZqImageParams& getParams() const noexcept { return params; }
    const ZqImageOrigin& getOrigin() const noexcept { return origin; }
    /// How the last download has left a partial `img.zqf`.
    const ZqStreamRecord::Left& getLeft() const noexcept { return record.left; }
    /// Whether it had all it takes for a drive, blocks apart, before anything was fetched.
    bool hadRecords() const noexcept { return hadAll; }
    /// A drive in mode "rw", or a flush of the write layer, may have changed `img.zqf`, which is no fault.
    /// Nothing of it is compared until it is downloaded anew from its first byte. So damage to it isn't seen:
    /// nothing states the digest that it should have.
    bool isWritten() const noexcept { return written; }
    /// Of a complete image: whether nothing has to be compared.
    bool isKnownAsRight() const;

    /// How much of the image was kept where the server has another order of it by now, a line; else empty.
    const SxString& getCarried() const noexcept { return carried; }

private:
    SxString filePath(const char* name) const;
    uint64 fileSize() const;
    void requireFolder() const;
    ZqAccessWish notedWish() const;
    ZqAppParams fetchApp(const SxPtr<ZqNetLink>& link, bool* isConfirmed, const ZqStopTest& stop);
    /// Cuts off what the file has beyond the image, and beyond what the last download has left of it.
    bool isReadByKernel() const;
    void cutSurplus(const ZqStopTest& stop) const;

    const ZqFeedSettings settings;
    ZqStreamRecord record; ///< as the last run has left it
    SxString url, carried;
    ZqImageAccess access;
    ZqImageOrigin origin;
    ZqImageParams params;
    SxPtr<ZqNewFolder> made;
    SxPtr<ZqImageLock> growth, shape;
    bool hadAll = false, written = false;
    bool hasAnswered = false; ///< the server, that this is its version
};
