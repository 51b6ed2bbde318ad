#pragma once

#include "ZqImageCounts.h"
#include "ZqImageForms.h"
#include "ZqImageRanges.h"
#include "ZqStreamEdge.h"
#include "ZqStretchCache.h"

/// `img.zqf` of one image folder on a server, as decoded bytes: the whole as one ordered stream, and ranges
/// of it on demand. All operations are safe from any thread, stream() from one at a time.
///
/// Ranges and the stream share a link. Ranges go first. A stretch that the stream is about to reach is left
/// to it (ZqStreamEdge). One that was fetched as a range is kept until `img.zqf` has it, and not fetched
/// again (ZqStretchCache). What follows it is fetched beside, while nothing on the link is more urgent
/// (ZqReadAhead). This class puts together what does that: ZqImageRanges and ZqImageStream.
///
/// The packed form. Where the server has `img.zqf.zst` (seekable Zstandard format, one frame for each
/// stretch), that is taken for the stream and for ranges alike. The stream takes it from its first frame on
/// at once; its seek table is fetched beside that, and until it is there ranges come from `img.zqf`, the
/// plain form. A file that was packed of another image is told by its first bytes, and left aside. Whatever
/// else is wrong with the packed form (a bad table, a refusal, a frame that stays damaged) leaves it aside,
/// too, and all goes on with the plain form. Its table is then fetched again after a while (ZqTableLoader),
/// which brings it back. Which form is taken otherwise is the business of ZqFormChoice.
///
/// Checksums. Nothing is handed on that the table says is wrong (ZqImageForms). What came before the table,
/// and is kept, is compared before it is used. What was handed on before isn't read back: most of it is
/// right, and the digest of the complete file finds the rest, which is mended (ZqImageRepair).
class ZqRemoteImage {
public:
    /// Bytes of one stretch: a frame of the packed form, and a request on demand.
    static constexpr uint64 STRETCH = ZqBlocks::STRETCH;
    /// Bytes of kept stretches that memory holds, where the store takes none (a full disk, or one that can't
    /// make holes).
    static constexpr uint64 MAX_KEPT = 256 << 20;
    /// Bytes that the stream may have brought and that `img.zqf` hasn't got yet. ZqOrderedDownload lets 32
    /// MiB wait for the disk before it holds the stream, and has some more in its hands.
    static constexpr uint64 MAX_HELD = 36 << 20;
    using Figures = ZqImageFigures;

    /// `folderUrl` is the image folder's address, see ZqRemoteFile::urlIn(). `sizeZqf` is the
    /// decoded size as `app.json` states it; a server that has another is an error. `maxKept` bounds the
    /// memory for kept stretches, in bytes. `digest` is the MD5 text of `img.zqf`, where that is known: a
    /// packed form of another image is left aside.
    ZqRemoteImage(const SxPtr<ZqNetLink>& link, const SxString& folderUrl, uint64 sizeZqf,
                  const SxArray<SxString>& headers = {}, uint64 maxKept = MAX_KEPT,
                  const SxString& digest = {});
    ZqRemoteImage(const ZqRemoteImage&) = delete;
    ZqRemoteImage& operator=(const ZqRemoteImage&) = delete;

    /// The address of `img.zqf`.
    const SxString& getUrl() const noexcept { return forms.getPlain().getUrl(); }
    const SxPtr<ZqNetLink>& getLink() const noexcept { return forms.getLink(); }
    uint64 getSize() const noexcept { return forms.getLayout().getSizeZqf(); }
    Figures getFigures() const;
    void setHeaders(const SxArray<SxString>& headers) { forms.setHeaders(headers); }
    /// Tells whether the image on the server is the one that was begun with, where a form of it comes with
    /// another version: with this a failure has the tag CHANGED only where the test has said so, and mirrors
    /// of the image go on for each other. The test is made by whoever needs the bytes.
    void setSameTest(const ZqFileFacts::SameTest& test) { forms.setSameTest(test); }

    /// What ranges bring is kept in `store` beyond this object's life, and what it holds serves ranges and
    /// the stream. To be called before all other operations, if at all.
    void setStore(std::unique_ptr<ZqStretchStore> store) { cache.setStore(std::move(store)); }
    /// `img.zqf` holds `size` bytes now: what the store has of these may go. What the stream has brought
    /// beyond that is given to ranges out of memory from the first call on, up to MAX_HELD, and to a stream
    /// that begins again.
    void setWritten(uint64 size) { cache.setWritten(size); }

    /// Starts to fetch the stretches of these ranges (bytes of `img.zqf`), all at once, and returns; read()
    /// then takes them. Up to ZqRangeSource::GROUP; what was announced before and not taken is dropped. Does
    /// nothing for stretches that are there or that the stream is about to reach. `likely`: see
    /// ZqRangeSource::announce().
    SxArray<uint64> announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes,
                             const SxArray<uint64>& likely = {});
    /// Blocks until `size` bytes from `offset` on are in `buffer`. Raises SxException with the tags of
    /// ZqNetLink.
    void read(uint64 offset, uint64 size, char* buffer, const ZqStopTest& stop = nullptr);

    /// Nothing is taken from the server until the test of setSameTest() has told that it is the same.
    void doubtServer() { forms.doubtServer(); }
    /// Raises with the tag WRONG where the server turns out to give whole files for ranges, from which nobody
    /// can be served on demand. Asks for one byte as long as only the whole file has come, else for nothing;
    /// tells nothing of a server that is away.
    void requireRanges(const ZqStopTest& stop = nullptr) { forms.requireRanges(stop); }
    /// Asks anew what the server has: its files may be there again, or in another place. A packed form that
    /// it hadn't got is asked for again with all else: the 404 may have been that of a server that was being
    /// set up.
    void forgetServer() { forms.forgetServer(); }

    /// The bytes before `end` are what most readers need, in the order in which they need it: until the
    /// stream has come there it shares the link with ranges.
    void setCore(uint64 end) { edge.setCore(end); }

    /// The stretches of this range were found to be wrong: what is kept of them goes, so that they are
    /// fetched again. Else each try would bring them again, and the stream would put them into `img.zqf`.
    void forget(uint64 offset, uint64 size);

    /// The table of the packed form; null where that isn't offered, or its server can't be reached. One that
    /// was absent is asked for again, for the same reason: who asks has an image to mend.
    SxPtr<ZqSeekTable> awaitTable(const ZqStopTest& stop = nullptr);
    /// Whether awaitTable() gave null though one may still come; gives what its last request has met.
    bool isTableDelayed(SxException* why) const { return forms.getChoice().isDelayed(why); }
    /// A stretch alone, over a connection of its own, whatever is kept of it. Else as read().
    SxPtr<SxArray<char>> fetchAnew(uint64 stretchIdx, const ZqStopTest& stop = nullptr);

    /// Bytes of the wire that bring `img.zqf` from byte `from` to byte `to`: by the table of the packed form
    /// where that is known, before that in the proportion of what has come. What is kept costs nothing.
    uint64 wireSize(uint64 from, uint64 to) const;

    using Sink = ZqRemoteFile::Sink;
    /// Streams the bytes from `offset` to the image's end to `sink`, on the calling thread and at its pace.
    /// False where `sink` ended it. Goes on by itself after failures that may pass.
    bool stream(uint64 offset, const Sink& sink, const ZqStopTest& stop = nullptr);

private:
    /// Begins to look for the table, and whatever else runs beside the first use.
    void open();
    void checkRange(uint64 offset, uint64 size) const;
    double packedShare() const;

    ZqImageCounts counts;
    ZqStretchCache cache;
    ZqImageForms forms;
    ZqStreamEdge edge;
    ZqImageRanges ranges;
};
