#pragma once

#include "ZqStopThread.h"
#include "ZqStretchLayout.h"
#include "ZqStretchStore.h"

#include <condition_variable>
#include <deque>
#include <list>
#include <map>
#include <set>

/// Stretches of an image that are there though `img.zqf` hasn't got them: what was fetched out of order is
/// kept until the ordered stream has come to it, in memory and, with a store, in files beyond this object's
/// life; what the stream has brought last is held until it is written. Makes no requests. All operations are
/// safe from any thread, setStore() before all others, beginStream() and takeStreamed() from the stream's.
///
/// What comes is in memory at first, so that no reader waits for the disk; a thread of its own hands it to
/// the store, so that the next run has it.
///
/// Checksums. What came before a table, or was compared with one of other checksums, is compared before it is
/// given.
/// What the stream has brought isn't.
class ZqStretchCache {
public:
    using Bytes = SxPtr<SxArray<char>>;
    using Table = SxPtr<ZqSeekTable>;
    /// Is told of a kept stretch that has turned out to be wrong, before that is dropped, from the thread
    /// that has asked for it.
    using OnWrong = std::function<void(uint64 stretchIdx)>;

    /// Memory holds `maxKept_` bytes of kept stretches where the store takes none (a full disk, or one that
    /// can't make holes), and `maxHeld_` bytes of what waits to be written.
    ZqStretchCache(const ZqStretchLayout& layout_, uint64 maxKept_, uint64 maxHeld_, OnWrong onWrong_);
    /// Hands the store what is left, for a second at most.
    ~ZqStretchCache();
    ZqStretchCache(const ZqStretchCache&) = delete;
    ZqStretchCache& operator=(const ZqStretchCache&) = delete;

    /// What `store_` holds is kept, too.
    void setStore(std::unique_ptr<ZqStretchStore> store_);
    /// `img.zqf` holds `size` bytes now: what the store has of these may go. What the stream has brought
    /// beyond that is held from the first call on.
    void setWritten(uint64 size);

    // For ranges.
    /// A stretch that is kept, compared with `known` where it hasn't been; null where there is none, or no
    /// right one.
    Bytes get(uint64 stretchIdx, const Table& known);
    /// One of those that the stream has brought last; null where it isn't.
    Bytes findStreamed(uint64 stretchIdx) const;
    /// Whether it is kept, or among those.
    bool has(uint64 stretchIdx) const;
    /// Keeps it as long as there is room; `checkedBy` is the table that it was compared with, null for none.
    /// `isUnasked`: it came with another one. False where the stream has brought it, so that it isn't kept.
    bool keep(uint64 stretchIdx, const Bytes& bytes, const Table& checkedBy, bool isUnasked);
    /// Somebody has asked for it. Whether it had come unasked, and this is the first time.
    bool noteUse(uint64 stretchIdx);
    /// Whether `n` more may come unasked.
    bool hasRoomFor(uint64 n) const;
    void forget(uint64 firstIdx, uint64 endIdx);

    /// What the stream has brought is no longer given: it may be of something else.
    void dropStreamed();

    // For the stream.
    /// It begins at byte `offset`, maybe once more.
    void beginStream(uint64 offset);
    /// The stream has brought this one, and all before it; null where only its end. Whether it had been kept.
    bool takeStreamed(uint64 stretchIdx, const Bytes& bytes);
    /// Kept stretches in a row, from this one on.
    uint64 countRun(uint64 stretchIdx) const;
    /// The first one from `firstIdx` on with which at least `n` kept ones in a row begin; `endIdx` where
    /// there is none before that.
    uint64 findRun(uint64 firstIdx, uint64 endIdx, uint64 n) const;

    /// Calls `visit` for each kept stretch from `firstIdx` to `endIdx` - 1, with the lock held.
    void visitKept(uint64 firstIdx, uint64 endIdx, const std::function<void(uint64 stretchIdx)>& visit) const;

    /// Bytes that the store has.
    uint64 getStored() const;

private:
    struct Kept {
        Bytes bytes; ///< null where the store alone has it
        /// Checksums that it was compared with, by their id (ZqSeekTable); 0 where it never was. The table
        /// itself would stay in memory with it.
        uint64 checkedBy = 0;
    };

    uint64 runFrom(uint64 stretchIdx) const SX_REQUIRES(mutex);
    Bytes load(uint64 stretchIdx);
    void drop(uint64 firstIdx, uint64 endIdx) SX_REQUIRES(mutex);
    /// Lets go of what the stream has brought and that is in `img.zqf`, but for the last.
    void shedStreamed() SX_REQUIRES(mutex);
    /// The store has this one, too.
    void noteStored(uint64 stretchIdx) SX_REQUIRES(mutex);
    /// Frees memory of what the store has, down to `nMost` stretches.
    void shedStored(uint64 nMost) SX_REQUIRES(mutex);
    void runStorer(const ZqStopTest& isStopped);
    /// Hands the store one stretch that it hasn't got; false where there is none, or no room.
    bool storeNext();
    /// Waits a moment for another one, or for room.
    void awaitStorable(const ZqStopTest& isStopped);

    const ZqStretchLayout layout;
    const uint64 maxKept, maxHeld;
    const OnWrong onWrong;
    std::unique_ptr<ZqStretchStore> store; ///< null where nothing is kept for later
    std::unique_ptr<ZqStopThread> storer;

    mutable SxMutex mutex;
    std::condition_variable_any changed; ///< for the storer
    uint64 written SX_GUARDED_BY(mutex) = 0;
    bool isWrittenTold SX_GUARDED_BY(mutex) = false;
    std::map<uint64, Kept> kept SX_GUARDED_BY(mutex);                  ///< by stretch
    uint64 nInMemory SX_GUARDED_BY(mutex) = 0;                         ///< kept stretches with bytes
    std::deque<uint64> unstored SX_GUARDED_BY(mutex);                  ///< those that the store is to get
    std::list<uint64> inBoth SX_GUARDED_BY(mutex);                     ///< those that it has, oldest first
    std::set<uint64> unused SX_GUARDED_BY(mutex);                      ///< kept ones that came unasked
    std::list<std::pair<uint64, Bytes>> streamed SX_GUARDED_BY(mutex); ///< last first
    uint64 nPassed SX_GUARDED_BY(mutex) = 0; ///< stretches below it are the stream's
};
