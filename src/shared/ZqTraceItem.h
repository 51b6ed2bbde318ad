#pragma once

#include "SxTypes.h"

/// One access to a block, a plain value.
class ZqTraceItem {
public:
    ZqTraceItem() = default;
    ZqTraceItem(uint64 block_, uint64 time_, bool flag_)
        : block(block_),
          time(time_),
          flag(flag_),
          valid(true) {}

    uint64 block = 0;   ///< RAW index
    uint64 time = 0;    ///< milliseconds since 1970 UTC
    bool flag = false;  ///< the mark of the item
    bool valid = false; ///< whether the item holds data

    bool operator==(const ZqTraceItem&) const = default;
};
