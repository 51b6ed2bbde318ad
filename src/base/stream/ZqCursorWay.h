#pragma once

#include "SxTypes.h"

#include <cstddef>
#include <vector>

/// When the cursor of a growing image came to which block, each move of it: about three bytes for a move, so
/// that a download of days can be kept whole, where a series of samples is thinned. Not locked.
class ZqCursorWay {
public:
    /// At `timeMs`, of whatever clock, all blocks before `zqfIdx` (ZqF index) were there. What isn't beyond
    /// the last move says nothing new.
    void add(int64 timeMs, uint64 zqfIdx);
    /// The furthest place.
    uint64 getEnd() const { return endIdx; }

    /// Goes along the moves, in their order. The way must outlive it, and not change.
    class Walk {
    public:
        explicit Walk(const ZqCursorWay& way_) : way(way_) {}
        /// Gives whether there was one more.
        bool next();
        int64 getTimeMs() const { return timeMs; }
        uint64 getIdx() const { return zqfIdx; }

    private:
        uint64 take();

        const ZqCursorWay& way;
        size_t at = 0;
        int64 timeMs = 0;
        uint64 zqfIdx = 0;
    };

private:
    void put(uint64 number);

    /// For each move the difference of its time to that of the one before, with the sign in the lowest bit,
    /// and that of its place; seven bits a byte, low ones first, and the top bit says that more follow.
    std::vector<unsigned char> bytes;
    int64 lastMs = 0;
    uint64 endIdx = 0;
};
