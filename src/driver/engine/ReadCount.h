#pragma once

#include "BlockMap.h"

#include <atomic>

/// Counts the reads of a disk, and how many of them a lower, pretended cursor would not have served. Safe
/// from any thread.
class ReadCount {
public:
    /// Counts a read of `n` blocks of the disk.
    void add(const BlockMap& map, RawIdx first, uint64 n) {
        nAll.fetch_add(1, std::memory_order_relaxed);
        const ZqfIdx qa{qaCursor.load(std::memory_order_relaxed)};
        if (qa.value >= map.nIncluded()) return;
        for (uint64 i = 0; i < n; ++i) {
            const BlockMap::Place place = map.get(first + i);
            if (!place.isStored() || place.zqfIdx() < qa) continue;
            ++nBeyond;
            return;
        }
    }
    uint64 get() const { return nAll.load(); }
    /// A pretended cursor: reads that touch a block at or above it are counted.
    void setQACursor(uint64 zqfIdx) { qaCursor = zqfIdx; }
    uint64 nBeyondQA() const { return nBeyond.load(); }

private:
    std::atomic<uint64> qaCursor{~uint64{0}}, nBeyond{0}, nAll{0};
};
