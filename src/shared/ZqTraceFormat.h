#pragma once

#include "SxString.h"
#include "ZqTraceItem.h"

#include <bit>
#include <cstring>
#include <limits>

/// The format of `img.trc`: records of 16 bytes without a header, each the RAW index of a block with the mark
/// in bit 63, and its time as a Windows file time (100 ns since 1601 UTC), both unsigned 64-bit
/// little-endian. A rest of less than a record, as a killed writer leaves it, doesn't count.
namespace ZqTraceFormat {

/// Bytes of a record.
constexpr int64 SIZE = 16;
/// No disk has so many blocks: its size in bytes is a signed 64-bit number.
constexpr uint64 MAX_BLOCKS = uint64{1} << 51;
/// The mark of a record, in its first field.
constexpr uint64 FLAG = uint64{1} << 63;

/// A record's time counts 100 ns from 1601; ours milliseconds from 1970.
constexpr uint64 UNITS_PER_MS = 10000;
constexpr uint64 FROM_1601_TO_1970_MS = 11644473600000;

/// The times that records can hold, in milliseconds since 1970. Sums of a few of them fit in 64 bits.
constexpr int64 LEAST_MS = -static_cast<int64>(FROM_1601_TO_1970_MS);
constexpr int64 MOST_MS =
    static_cast<int64>(std::numeric_limits<uint64>::max() / UNITS_PER_MS - FROM_1601_TO_1970_MS);

inline uint64 swapIfBig(uint64 value) {
    return std::endian::native == std::endian::big ? __builtin_bswap64(value) : value;
}

/// The item of the two fields as they stand in the file.
inline ZqTraceItem makeItem(uint64 blockField, uint64 timeField) {
    const uint64 block = swapIfBig(blockField);
    return ZqTraceItem(block & ~FLAG, swapIfBig(timeField) / UNITS_PER_MS - FROM_1601_TO_1970_MS,
                       (block & FLAG) != 0);
}

inline ZqTraceItem decode(const char* record) {
    uint64 fields[2];
    std::memcpy(fields, record, sizeof fields);
    return makeItem(fields[0], fields[1]);
}

/// Whether a record can hold that time, in milliseconds since 1970.
inline bool holds(uint64 timeMs) {
    return LEAST_MS <= static_cast<int64>(timeMs) && static_cast<int64>(timeMs) <= MOST_MS;
}

/// Whether the item's record may be nothing but zeros: a file that a power cut has left with its size, and
/// without some of its content, has them. Nobody records the year 1601.
inline bool isHole(const ZqTraceItem& item) {
    return item.block == 0 && !item.flag && item.time == static_cast<uint64>(LEAST_MS);
}

/// Raises on a time that no record can hold. The block goes to the record as it is.
void encode(uint64 block, uint64 timeMs, char* record);

/// The first field of an item's record.
inline uint64 blockField(const ZqTraceItem& item) {
    return item.block | (item.flag ? FLAG : 0);
}

/// Milliseconds from the first to the last record of the file; 0 where it isn't there. Raises "Cannot
/// evaluate duration for trace ..." with the cause. `path`: the trace's folder.
int64 durationOf(const SxString& path);

} // namespace ZqTraceFormat
