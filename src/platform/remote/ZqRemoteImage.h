#pragma once

#include "SxSystemThread.h"
#include "ZqBlocks.h"
#include "ZqImageFigures.h"
#include "ZqRangeReader.h"
#include "ZqRangeSource.h"
#include "ZqRemoteFile.h"
#include "ZqSeekTable.h"
#include "ZqStretchStore.h"
#include "ZqTransfer.h"

#include <condition_variable>
#include <deque>
#include <list>
#include <map>
#include <set>
#include <vector>

/// `img.zqf` of one image folder on a server, as decoded bytes: the whole as one ordered stream, and ranges
/// of it on demand. All operations are safe from any thread, stream() from one at a time.
///
/// Ranges and the stream share a link. Ranges go first. A stretch that the stream is about to reach is left
/// to it. One that was fetched as a range is kept until `img.zqf` has it, and not fetched again. What follows
/// it is fetched beside, while nothing on the link is more urgent.
///
/// The packed form. Where the server has `img.zqf.zst` (seekable Zstandard format, one frame for each
/// stretch), that is taken for the stream and for ranges alike. The stream takes it from its first frame on
/// at once; its seek table is fetched beside that, and until it is there ranges come from `img.zqf`, the
/// plain form. A file that was packed of another image is told by its first bytes, and left aside. Whatever
/// else is wrong with the packed form (a bad table, a refusal, a frame that stays damaged) leaves it aside,
/// too, and all goes on with the plain form. Its table is then fetched again after a while (TableLoader),
/// which brings it back.
///
/// No form is waited for while the other may be there. A packed form whose server doesn't answer (5xx,
/// silence) is left after TURN_TRIES tries in a row, or after a request that was silent to its end where
/// somebody waits, and the plain one taken. Where that doesn't come either both have turns, with one back-off
/// (ZqNetRetry::beginTurn). A plain form that isn't there is no answer as long as the packed one may come.
///
/// Checksums. Nothing is handed on that the table says is wrong. Its checksums are of decoded bytes, so they
/// hold for frames and for stretches of the plain form alike, and both are handed on as wholes once the table
/// is there. A stretch that is wrong is fetched again once, over a connection of its own and past caches, and
/// then named in an error (WRONG). What came before the table, and is kept, is compared before it is used.
/// What was handed on before isn't read back: most of it is right, and the digest of the complete file finds
/// the rest, which is mended (ZqImageRepair).
///
/// What a table tells of the image is never dropped: its checksums hold as well when the packed form is
/// refused or gone, and for the same image packed anew. A table with other ones is of something else and is
/// refused, also where no digest of `img.zqf` is known. So where a server has got other files under the old
/// records nothing of them is taken. A table whose file doesn't say of which image it is gives way to one
/// whose file does; as it has vouched for nothing, all that is kept is compared again.
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
    /// Ranges that are worth fetching at once.
    static constexpr int64 GROUP = ZqRangeSource::GROUP;

    using Figures = ZqImageFigures;

    /// `folderUrl` is the image folder's address, see ZqRemoteFile::urlIn(). `sizeZqf` is the
    /// decoded size as `app.json` states it; a server that has another is an error. `maxKept` bounds the
    /// memory for kept stretches, in bytes. `digest_` is the MD5 text of `img.zqf`, where that is known: a
    /// packed form of another image is left aside.
    ZqRemoteImage(const SxPtr<ZqNetLink>& link_, const SxString& folderUrl, uint64 sizeZqf_,
                  const SxArray<SxString>& headers = {}, uint64 maxKept_ = MAX_KEPT,
                  const SxString& digest_ = {});
    ~ZqRemoteImage();
    ZqRemoteImage(const ZqRemoteImage&) = delete;
    ZqRemoteImage& operator=(const ZqRemoteImage&) = delete;

    /// The address of `img.zqf`.
    const SxString& getUrl() const noexcept { return plain->getUrl(); }
    const SxPtr<ZqNetLink>& getLink() const noexcept { return plain->getLink(); }
    uint64 getSize() const noexcept { return sizeZqf; }
    Figures getFigures() const;
    void setHeaders(const SxArray<SxString>& headers);
    /// Tells whether the image on the server is the one that was begun with, where a form of it comes with
    /// another version: with this a failure has the tag CHANGED only where the test has said so, and mirrors
    /// of the image go on for each other. The test is made by whoever needs the bytes.
    void setSameTest(const ZqFileFacts::SameTest& test);

    /// What ranges bring is kept in `store_` beyond this object's life, and what it holds serves ranges and
    /// the stream. To be called before all other operations, if at all.
    void setStore(std::unique_ptr<ZqStretchStore> store_);
    /// `img.zqf` holds `size` bytes now: what the store has of these may go. What the stream has brought
    /// beyond that is given to ranges out of memory from the first call on, up to MAX_HELD, and to a stream
    /// that begins again.
    void setWritten(uint64 size);

    /// Starts to fetch the stretches of these ranges (bytes of `img.zqf`), all at once, and returns; read()
    /// then takes them. Up to GROUP; what was announced before and not taken is dropped. Does nothing for
    /// stretches that are there or that the stream is about to reach.
    void announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes);
    /// Blocks until `size` bytes from `offset` on are in `buffer`. Raises SxException with the tags of
    /// ZqNetLink.
    void read(uint64 offset, uint64 size, char* buffer, const ZqStopTest& stop = nullptr);

    /// Nothing is taken from the server until the test of setSameTest() has told that it is the same.
    void doubtServer();
    /// Raises with the tag WRONG where the server turns out to give whole files for ranges, from which nobody
    /// can be served on demand. Asks for one byte as long as only the whole file has come, else for nothing;
    /// tells nothing of a server that is away.
    void requireRanges(const ZqStopTest& stop = nullptr);
    /// Asks anew what the server has: its files may be there again, or in another place. A packed form that
    /// it hadn't got is asked for again with all else: the 404 may have been that of a server that was being
    /// set up.
    void forgetServer();

    /// The stretches of this range were found to be wrong: what is kept of them goes, so that they are
    /// fetched again. Else each try would bring them again, and the stream would put them into `img.zqf`.
    void forget(uint64 offset, uint64 size);

    /// The table of the packed form; null where that isn't offered, or its server can't be reached. One that
    /// was absent is asked for again, for the same reason: who asks has an image to mend.
    SxPtr<ZqSeekTable> awaitTable(const ZqStopTest& stop = nullptr);
    /// Whether awaitTable() gave null though one may still come; gives what its last request has met.
    bool isTableDelayed(SxException* why) const;
    /// A stretch alone, over a connection of its own, whatever is kept of it. Else as read().
    SxPtr<SxArray<char>> fetchAnew(uint64 stretchIdx, const ZqStopTest& stop = nullptr);

    using Sink = ZqRemoteFile::Sink;
    /// Streams the bytes from `offset` to the image's end to `sink`, on the calling thread and at its pace.
    /// False where `sink` ended it. Goes on by itself after failures that may pass.
    bool stream(uint64 offset, const Sink& sink, const ZqStopTest& stop = nullptr);

private:
    using Bytes = SxPtr<SxArray<char>>;
    struct Fetch;
    class AheadLoader;
    class Demand;
    class TableLoader;
    class Storer;
    class StreamRun;
    /// `Aside`: not now, since what came of it was of no use; its table is fetched again after a while.
    enum class Packed { Unknown, Offered, Aside, Absent };
    /// Requests of several stretches in a row that may bring nothing of use, see countTogether().
    static constexpr int64 FIRST_TOGETHER = 4;
    /// Requests in a row that a form may fail in while the other one may be there. A failure that passes with
    /// the next try or two changes no form.
    static constexpr int64 TURN_TRIES = 3;

    uint64 stretchSize(uint64 stretchIdx) const;
    void checkRange(uint64 offset, uint64 size) const;

    void openTable();
    /// A table has come, whose packed form is used from now on; of which image it may be was looked at, and
    /// `isStated` where its file says so itself. False where it has other checksums than the one that is
    /// known, and is of something else: nothing changes.
    bool takeTable(const SxPtr<ZqSeekTable>& table_, bool isStated);
    /// What was right by a table that another one has taken the place of is compared again before it is used;
    /// what the stream has brought is no longer given.
    void doubtKept() SX_REQUIRES(mutex);
    /// What is known of the image stays, whatever becomes of its packed form.
    void setState(Packed state_);
    /// The packed form is of no use, for now: all goes on with the plain one.
    void leavePacked(const SxException& why);
    /// The server says that there is no packed form. False where that may pass, so that it is left aside.
    bool notePackedAbsent(const SxException& why);
    /// The table has to wait for its server.
    void noteTableWaits(const SxException& why);
    /// Leaves it where the failure says that the plain form may do better; false where it may not.
    bool leavePackedFor(const SxException& e);
    /// The plain form was of no use: where the packed one was left since its server doesn't answer, and the
    /// plain one has brought nothing since, that is offered again, so that both have turns. False where it
    /// isn't. Where the plain form isn't there, `*why` becomes what the packed one waits for.
    bool returnToPacked(SxException* why);
    /// Bytes of the plain form have come.
    void notePlainCame();
    /// Waits until the packed form is no longer offered, or `stop` says so, and gives its state.
    Packed awaitUseless(const ZqStopTest& stop);
    /// A packed form that the server hadn't got may be there by now: its table is asked for again.
    void forgetAbsence();
    /// Waits until forgetAbsence(), at most `ms`. False where `stop` says so.
    bool awaitTableWanted(int64 ms, const ZqStopTest& stop);
    /// A look at the table begins, as is wanted.
    void beginTableLook();
    /// Whether the packed form that begins with these bytes is that of this image; one that doesn't say so
    /// counts as it.
    bool isOfThisImage(const char* bytes, int64 n) const;
    /// Whether it says so itself.
    bool isStatedOf(const char* bytes, int64 n) const;
    /// Leaves the packed form aside.
    void refusePacked();
    /// The table of the packed form that is in use; null where none is, or not yet.
    SxPtr<ZqSeekTable> getTable() const;
    /// The table whose checksums the image's bytes have, in whichever form they come; null where none is
    /// known.
    SxPtr<ZqSeekTable> getKnownTable() const;
    Packed getState() const;
    /// Decodes a frame of the packed file and checks it; raises with the tag WRONG.
    Bytes decode(uint64 stretchIdx, const char* frame, uint64 n) const;
    /// Whether the form and, where there is one, the table are known.
    bool isTableSettled() const SX_REQUIRES(mutex);
    /// Compares a stretch of the plain form with the table's checksum, and raises with the tag WRONG. Waits
    /// for a table that is on its way, but not for one that doesn't come. False where nothing was compared.
    bool checkPlain(uint64 stretchIdx, const SxArray<char>& bytes, const ZqStopTest& stop);
    SxString nameOf(uint64 stretchIdx, bool isFrame) const;

    Bytes getStretch(uint64 stretchIdx, const ZqStopTest& stop);
    Bytes findStretch(uint64 stretchIdx) const SX_REQUIRES(mutex);
    bool isReachedSoon(uint64 stretchIdx) const SX_REQUIRES(mutex);
    Bytes awaitStream(uint64 stretchIdx, const ZqStopTest& stop);
    /// Requests a stretch that somebody waits for, and with it those that follow, where that pays.
    SxPtr<Fetch> beginDemand(uint64 stretchIdx, bool isAlone);
    void begin(Fetch* fetch, ZqTransfer::Kind kind);
    /// Whether what is fetched by this table, or without one of the plain form, is sure to be compared with
    /// checksums.
    bool canCheck(const SxPtr<ZqSeekTable>& ofFrames) const;
    /// Leaves to a loader what is still to come.
    void passOn(const SxPtr<Fetch>& fetch);
    /// The stretch that comes next.
    Bytes takeNext(Fetch* fetch, const ZqStopTest& stop);
    Bytes takeAgain(Fetch* fetch, const ZqStopTest& stop);
    /// `nWire` bytes of the wire have brought it.
    void keep(uint64 stretchIdx, const Bytes& bytes, uint64 nWire, bool isChecked, uint64 Figures::*figure);
    /// Lets go of what the stream has brought and that is in `img.zqf`, but for the last.
    void shedRecent() SX_REQUIRES(mutex);
    /// A stretch that is kept, compared with the table where it hasn't been; null where there is none, or no
    /// right one.
    Bytes getKept(uint64 stretchIdx);
    /// Whether getKept() or findStretch() will have it.
    bool isKept(uint64 stretchIdx) const SX_REQUIRES(mutex);
    Bytes loadKept(uint64 stretchIdx);
    /// The store has this one, too.
    void noteStored(uint64 stretchIdx) SX_REQUIRES(mutex);
    /// Frees memory of what the store has, down to `nMost` stretches.
    void shedStored(uint64 nMost) SX_REQUIRES(mutex);
    /// Hands the store one stretch that it hasn't got; false where there is none, or no room.
    bool storeNext();
    /// Waits a moment for another one, or for room.
    void awaitStorable(const std::atomic<bool>& stopping);
    void dropKept(uint64 first, uint64 end) SX_REQUIRES(mutex);
    /// Whether somebody goes through the image and has come to a stretch.
    bool isGoneThrough(uint64 stretchIdx) const;
    bool isThere(uint64 stretchIdx) const SX_REQUIRES(mutex);
    /// Stretches of one request that leave the link no round trip idle; 1 where they would hold up others.
    ///
    /// What follows a stretch on demand comes with it, in the same request, since whoever reads mostly reads
    /// on. Only the first is on demand. After it the request yields to others on demand, and the ordered
    /// streams are held for it. Who goes through the image gets more before he needs it (follow()).
    ///
    /// To the first frame of a game it took 4.1 s without this and 2.8 s with it, from a packed image at
    /// 20 Mbit/s; at 100 Mbit/s it took 1.7 and 1.0 s. On a link whose round trip carries little of a stretch
    /// it takes more from the next request on demand than it saves, since it can't be held to the byte.
    ///
    /// It ends when FIRST_TOGETHER such requests have brought nothing that somebody has asked for: reads here
    /// and there would find the link full. It ends, too, when 32 MiB of what came so are unused: an image
    /// that is read all over would never be complete.
    uint64 countTogether() const;
    /// Whether what came with others has been of use of late.
    bool isFollowerOfUse() const;
    /// One more request of several stretches is made for somebody who may read on or not.
    void noteTry();
    /// Somebody has asked for a stretch that came with others: two more such requests may be made.
    void noteUse(uint64 stretchIdx);
    /// Requests what follows `stretchIdx`, where somebody goes through the image and little of it is there.
    void follow(uint64 stretchIdx);
    /// Takes the stretches from `first` on for one request, up to `n`, as far as none is there, on its way or
    /// of no use.
    void claimFollowing(Fetch* fetch, uint64 first, uint64 n);
    void forgetAhead(uint64 stretchIdx) noexcept;
    /// What a loader has to do next; null where there is nothing for a while.
    SxPtr<Fetch> takeFollowing();
    /// Gives a loader the one of these requests that a stretch comes with.
    void handOver(std::map<uint64, SxPtr<Fetch>>* fetches, uint64 stretchIdx) SX_REQUIRES(mutex);
    /// The request that brings a stretch, if it still waits for a loader. It is taken away from them then.
    /// Else null.
    SxPtr<Fetch> takeFollowing(uint64 stretchIdx) SX_REQUIRES(mutex);
    /// Takes and keeps stretches up to `endIdx`, all of them claimed.
    void takeUpTo(Fetch* fetch, uint64 endIdx, const ZqStopTest& stop);
    /// The stretch, if a loader is about to have it; null otherwise.
    Bytes awaitAhead(uint64 stretchIdx, const ZqStopTest& stop);
    /// Time without progress after which the stream counts as stalled.
    int64 patienceNs() const;
    /// Wire bytes that pass in `nTrips` round trips.
    double tripBytes(double nTrips) const;

    const SxPtr<ZqRemoteFile> plain, packed;
    const uint64 sizeZqf, maxKept;
    const SxString digest;
    std::unique_ptr<TableLoader> tableLoader;
    std::vector<std::unique_ptr<AheadLoader>> aheadLoaders;
    std::unique_ptr<ZqStretchStore> store; ///< null where nothing is kept for later
    std::unique_ptr<Storer> storer;
    std::atomic<uint64> written{0};
    std::atomic<bool> isWrittenTold{false};

    mutable SxMutex mutex;
    std::condition_variable_any changed;
    bool tableBegun SX_GUARDED_BY(mutex) = false;
    int64 tableBegunNs SX_GUARDED_BY(mutex) = 0;
    bool isTableWanted SX_GUARDED_BY(mutex) = false; ///< though its server hadn't got it
    bool tableWaits SX_GUARDED_BY(mutex) = false;    ///< a request for it has failed
    SxException tableFailure SX_GUARDED_BY(mutex);   ///< the last one of it, or of the packed form
    Packed state SX_GUARDED_BY(mutex) = Packed::Unknown;
    bool isPackedAway SX_GUARDED_BY(mutex) = false; ///< `Aside` since its server doesn't answer
    bool plainCame SX_GUARDED_BY(mutex) = false; ///< bytes of the plain form, since the packed one was left
    bool isTableStated SX_GUARDED_BY(mutex) = false;   ///< its file says that it is of this image
    SxPtr<ZqSeekTable> table SX_GUARDED_BY(mutex);     ///< also of a packed form that isn't used, or gone
    std::map<uint64, Bytes> kept SX_GUARDED_BY(mutex); ///< by stretch; null where the store alone has it
    uint64 nInMemory SX_GUARDED_BY(mutex) = 0;         ///< kept stretches that aren't null
    std::deque<uint64> unstored SX_GUARDED_BY(mutex);  ///< kept stretches that the store is to get
    std::list<uint64> inBoth SX_GUARDED_BY(mutex);     ///< those of them that it has, too, oldest first
    std::set<uint64> unchecked SX_GUARDED_BY(mutex);   ///< kept stretches no table has told of
    std::set<uint64> distrusted SX_GUARDED_BY(mutex);  ///< stretches that came wrong
    std::list<std::pair<uint64, Bytes>> recent SX_GUARDED_BY(mutex); ///< what the stream brought, last first
    std::map<uint64, SxPtr<Fetch>> announced SX_GUARDED_BY(mutex);   ///< by stretch
    std::multiset<uint64> demanded SX_GUARDED_BY(mutex);             ///< stretches that ranges fetch
    /// Stretches that a loader is to have, with what brings them; null until that is begun.
    std::map<uint64, SxPtr<ZqRangeReader>> ahead SX_GUARDED_BY(mutex);
    std::deque<SxPtr<Fetch>> following SX_GUARDED_BY(mutex); ///< for the loaders
    std::set<uint64> unused SX_GUARDED_BY(mutex);            ///< kept stretches that came with others
    /// Requests of several stretches that may still be made until one of the further ones is of use.
    int64 nTogetherLeft SX_GUARDED_BY(mutex) = FIRST_TOGETHER;
    bool streaming SX_GUARDED_BY(mutex) = false;
    uint64 streamPos SX_GUARDED_BY(mutex) = 0; ///< decoded bytes received in order
    int64 streamMovedNs SX_GUARDED_BY(mutex) = 0;
    double wireShare SX_GUARDED_BY(mutex) = 1.; ///< bytes of the wire for one decoded byte
    Figures figures SX_GUARDED_BY(mutex);
};
