#pragma once

#include "BlockMap.h"
#include "DriveFailure.h"
#include "LookAhead.h"
#include "ReadCount.h"
#include "ReadPlan.h"
#include "StoredFile.h"
#include "UnderflowStore.h"
#include "WriteLayer.h"

/// Reads the RAW order of a disk from where its blocks are: in `img.zqf` below the cursor, delivered, or in
/// the write layer. Blocks that are next to each other there are read together. Safe from any thread; has
/// no lock and waits for no missing block.
class DiskReader {
public:
    enum class Outcome { Done, Missing, Short, Failed };
    /// Why a read failed.
    struct Fault {
        static constexpr int SHORT = -1; ///< the file ends too early
        int error = 0;                   ///< errno value
        const char* file = "";
        uint64 at = 0;          ///< byte offset in the file
        bool isCold = false;    ///< without a fault: not all was in the cache
        bool isGrowing = false; ///< the file is one that may still grow

        SxString text() const;
    };
    /// Where blocks may be; all must outlive the reader.
    struct Sources {
        const BlockMap& map;
        const std::atomic<uint64>& cursor; ///< blocks below are in `zqf`
        const StoredFile& zqf;
        UnderflowStore& store;
        const WriteLayer& layer;
    };

    /// `sizeRaw_`: bytes of the disk. Failures of files go to `failure_`, bytes of reads that were done to
    /// `count_`.
    DiskReader(const Sources& sources_, uint64 sizeRaw_, DriveFailure* failure_, ReadCount* count_);

    /// Reads `size` bytes at RAW byte `offset`, at most MAX_REQUEST and inside the disk, as if at one moment:
    /// where blocks went elsewhere meanwhile it plans and reads once more. Missing: a block isn't there.
    /// Short: `img.zqf` comes short, and `*shortage` says where. Failed: `failure_` says why.
    Outcome read(uint64 offset, uint32 size, char* to, Fault* shortage);
    /// Whether a block of `img.zqf` is there neither in that nor delivered.
    bool isMissing(ZqfIdx zqfIdx) const {
        return zqfIdx.value >= sources.cursor.load() && !sources.store.has(zqfIdx);
    }

private:
    uint64 nChanges() const { return sources.store.nDrops() + sources.layer.nMoves(); }
    bool planRead(uint64 offset, uint32 size, char* to, uint64 present, ReadPlan* plan) const;
    Fault carryOut(const ReadPlan& plan);
    int64 readRun(int fd, const ReadPlan::Run& run, const ReadPlan::Run* end, bool* isAnnounced) const;
    void announce(const ReadPlan::Run* run, const ReadPlan::Run* end) const;
    void announceAhead(LookAhead::Range range, uint64 present) const;

    const Sources sources;
    const uint64 sizeRaw;
    DriveFailure* const failure;
    ReadCount* const count;
    LookAhead lookAhead;
};
