#pragma once

#include "BlockMap.h"
#include "ReadPlan.h"

#include <array>
#include <atomic>

/// Counts the reads of a disk: how many of them waited, how many a lower, pretended cursor would not have
/// served, and where their bytes came from. Safe from any thread.
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
    /// Counts one that was held, the first time it was.
    void addWait() { ++nWaits; }
    uint64 getWaits() const { return nWaits.load(); }
    /// Counts the bytes of one that was answered by that plan.
    void addBytes(const ReadPlan& plan) {
        std::array<uint64, ReadPlan::N_KINDS> sums{};
        for (const ReadPlan::Run& run : plan)
            sums[run.kind] += run.size;
        for (size_t kind = 0; kind < sums.size(); ++kind) {
            if (sums[kind] > 0) nBytes[kind].fetch_add(sums[kind], std::memory_order_relaxed);
        }
    }
    uint64 getBytes(ReadPlan::Kind kind) const { return nBytes[kind].load(std::memory_order_relaxed); }
    /// A pretended cursor: reads that touch a block at or above it are counted.
    void setQACursor(uint64 zqfIdx) { qaCursor = zqfIdx; }
    bool hasQACursor() const { return qaCursor.load() != NO_CURSOR; }
    uint64 nBeyondQA() const { return nBeyond.load(); }

private:
    static constexpr uint64 NO_CURSOR = ~uint64{0};
    std::atomic<uint64> qaCursor{NO_CURSOR}, nBeyond{0}, nAll{0}, nWaits{0};
    std::array<std::atomic<uint64>, ReadPlan::N_KINDS> nBytes{};
};
