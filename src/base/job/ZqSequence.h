#pragma once

#include "SxTypes.h"

/// A run of neighbouring blocks of a trace, all touched one after the other with the same mark; a plain
/// value.
class ZqSequence {
public:
    ZqSequence() = default;
    /// Every field is `value`.
    explicit ZqSequence(int value)
        : block(static_cast<uint64>(static_cast<int64>(value))),
          time(value),
          index(value),
          nFollowing(value),
          jump(value),
          jumpTime(value),
          flag(value),
          reserved(value) {}

    uint64 block = 0;     ///< RAW index of the first block
    int64 time = 0;       ///< of the first item, relative to the trace's `time0`, milliseconds
    int64 index = 0;      ///< place of the first item among the trace's unique items
    int64 nFollowing = 0; ///< blocks after the first
    /// Where the block after the run's last one turns up: its place minus that of the item that ended the
    /// run; 0 where it doesn't.
    int64 jump = 0;
    int64 jumpTime = 0; ///< relative time of that block's item; 0 where there is none
    int32 flag = 0;     ///< 0 or 1: the mark of the run's items
    int32 reserved = 0;

    bool operator==(const ZqSequence&) const = default;
};
