#pragma once

#include "SxTypes.h"

#include <algorithm>
#include <atomic>

/// Which blocks to announce to the kernel before a reader asks for them, for one reader that goes through a
/// cold disk from front to back. The kernel itself asks for a request or two at a time, and the runs of so
/// few, scattered over the stored file, don't keep a device busy. It begins with a request of several runs
/// that isn't in the page cache. Only blocks that are there may be announced; the caller sees to that. Safe
/// from any thread; requests may come a little out of order.
class LookAhead {
public:
    static constexpr uint64 WINDOW = 4 << 20; ///< bytes beyond the reader that are announced
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
    /// Blocks of a request of several runs, which ended at RAW byte `end`, were not in the cache.
    void follow(uint64 end) {
        if (!isNear(end, announced.load(std::memory_order_relaxed)))
            announced.store(end, std::memory_order_relaxed);
    }

private:
    static bool isNear(uint64 offset, uint64 known) {
        return known != NONE && offset <= known && known - offset <= 2 * WINDOW;
    }

    static constexpr uint64 NONE = ~uint64{0};
    std::atomic<uint64> announced{NONE}; ///< RAW byte up to which blocks are announced
};
