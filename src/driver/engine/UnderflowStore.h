#pragma once

#include "BlockIdx.h"
#include "DriveFile.h"
#include "SxMutex.h"
#include "ZqDiskReserve.h"

#include <atomic>
#include <deque>
#include <memory>
#include <tsl/robin_map.h>
#include <vector>

/// The blocks that were delivered on demand, until the cursor has passed them: in memory within the cache
/// size, else in a sparse file without a name in the image folder, each at its place of `img.zqf`. That file
/// leaves the room on its disk that a download keeps in reserve. Where it has no room, blocks stay in memory
/// all the same, up to MAX_WITHOUT_FILE a drive. Beyond that the oldest ones make room for new ones and are
/// missing again: who still wants them asks again. So no delivery fails for a full disk, and no game stands
/// still for one. Safe from any thread. Readers take no lock unless blocks lie in memory.
class UnderflowStore {
public:
    /// The most bytes of one delivery.
    static constexpr uint64 LONGEST_DELIVERY = 4 << 20;
    /// Bytes that memory takes at least where the disk is full: many times what the readers of a drive wait
    /// for at once.
    static constexpr uint64 MAX_WITHOUT_FILE = 64 << 20;

    /// `cursor` is that of the disk; the store looks at it when it takes and drops blocks.
    UnderflowStore(const std::string& folder_, uint64 nIncluded, uint64 cacheSize_,
                   const std::atomic<uint64>& cursor_);

    bool has(ZqfIdx zqfIdx) const {
        return (bits[zqfIdx.value / 64].load(std::memory_order_acquire) >> zqfIdx.value % 64 & 1) != 0;
    }
    /// Takes the blocks from `first` on that lie at or above the cursor and aren't there yet. `length` bytes;
    /// the rest of the last block is zeros. Raises where they can't be stored; a full disk is no reason.
    void add(ZqfIdx first, const char* data, uint64 length);
    /// Drops what the cursor has passed.
    void dropPassed();
    /// Reads at most MAX_REQUEST bytes of blocks that has() has said to be there; gives 0 or an errno value.
    /// What was read is only to be trusted where nDrops() hasn't changed since has() was asked.
    int read(uint64 offset, uint64 n, char* to);
    uint64 nDrops() const { return drops.load(); }
    /// Raises where the blocks that are too many for memory can't be written to the file, but for a full
    /// disk.
    void setCacheSize(uint64 bytes);
    /// The file's descriptor, for advice; negative where there is none.
    int getFd() const { return publishedFd.load(); }

private:
    using Block = std::unique_ptr<char[]>;
    /// Bytes of `img.zqf`.
    struct Stretch {
        uint64 begin, end;
    };

    void makeFile() SX_REQUIRES(changing);
    void put(ZqfIdx first, uint64 n, const char* data) SX_REQUIRES(changing);
    /// False where the disk has no room.
    bool putInFile(ZqfIdx first, uint64 n, const char* data) SX_REQUIRES(changing);
    bool hasRoom(uint64 n) SX_REQUIRES(changing);
    /// Takes as many of the blocks as go into `size` bytes of memory; gives how many.
    uint64 keepInMemory(ZqfIdx first, uint64 n, const char* data, uint64 size) SX_REQUIRES(changing);
    /// Drops the oldest blocks in memory until it holds at most so many bytes.
    void shrinkMemory(uint64 bytes) SX_REQUIRES(changing);
    /// The block in memory that came first; false where there is none.
    bool findOldest(ZqfIdx* zqfIdx, char* copy) SX_REQUIRES(changing);
    void eraseFromMemory(ZqfIdx zqfIdx);
    uint64 copyFromMemory(uint64 offset, uint64 n, char* to, Stretch* rest);
    void mark(ZqfIdx zqfIdx, bool present);
    ZqfIdx findMarked(ZqfIdx from, ZqfIdx end) const;

    const std::string folder;
    const std::atomic<uint64>& cursor;
    const uint64 nBlocks;
    std::vector<std::atomic<uint64>> bits; ///< by ZqF index

    /// Held by whatever adds or drops, over its writing too, and taken before `memoryMutex`: a block that
    /// comes back while its hole is punched would lose its bytes. Readers don't take it.
    SxMutex changing;
    DriveFile file SX_GUARDED_BY(changing);
    ZqDiskReserve reserve SX_GUARDED_BY(changing); ///< known once the file is there
    std::deque<uint64> order
        SX_GUARDED_BY(changing); ///< ZqF indices of those in memory as they came, and of some that have gone
    bool isFull SX_GUARDED_BY(changing) = false;          ///< the disk was, when it was last written to
    ZqfIdx lowest SX_GUARDED_BY(changing) = {~uint64{0}}; ///< no block is marked below
    std::atomic<int> publishedFd{-1};
    std::atomic<uint64> drops{0};

    SxMutex memoryMutex;
    tsl::robin_map<uint64, Block> memory SX_GUARDED_BY(memoryMutex); ///< by ZqF index
    std::atomic<uint64> cacheSize, nInMemory{0};
};
