#pragma once

#include "SxTypes.h"

#include <algorithm>
#include <atomic>

/// How far to announce ahead of one reader that goes through the disk from front to back and finds its blocks
/// not in the cache. The kernel's own read-ahead asks for little more than one request at a time, which
/// leaves a device idle whose blocks lie scattered. Safe from any thread; requests may come a little out of
/// order.
class LookAhead {
public:
    static constexpr uint64 WINDOW = 4 << 20; ///< bytes
    struct Range {
        uint64 from = 0, to = 0; ///< RAW bytes; empty where both are the same
    };

    /// What to announce now that this request has come.
    Range take(uint64 offset, uint64 size) {
        uint64 known = announced.load(std::memory_order_relaxed);
        const uint64 end = offset + size;
        if (!isNear(offset, known) || end + WINDOW <= known) return {};
        if (!announced.compare_exchange_strong(known, end + WINDOW, std::memory_order_relaxed)) return {};
        return {std::max(known, end), end + WINDOW};
    }
    /// Blocks of a request that ended at `end` were not in the cache.
    void follow(uint64 end) {
        if (!isNear(end, announced.load(std::memory_order_relaxed)))
            announced.store(end, std::memory_order_relaxed);
    }

private:
    static bool isNear(uint64 offset, uint64 known) {
        return known != NONE && offset <= known && known - offset <= 2 * WINDOW;
    }

    static constexpr uint64 NONE = ~uint64{0};
    std::atomic<uint64> announced{NONE}; ///< up to where
};
