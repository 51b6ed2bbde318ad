#pragma once

#include <cstdint>

// The integer names of the public interface. Sizes and offsets are 64-bit everywhere.
using int64 = std::int64_t;
using uint64 = std::uint64_t;
using int32 = std::int32_t;
using uint32 = std::uint32_t;
