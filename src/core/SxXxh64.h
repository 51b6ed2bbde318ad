#pragma once

#include "SxTypes.h"

/// XXH64 of bytes in memory: a fast checksum that tells damage. No proof against malice.
class SxXxh64 {
public:
    static uint64 of(const void* bytes, int64 n, uint64 seed = 0) noexcept;
};
