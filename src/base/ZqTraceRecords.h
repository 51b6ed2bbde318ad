#pragma once

#include "SxFileIO.h"
#include "SxMd5.h"
#include "ZqTraceItem.h"
#include "ZqTraceParams.h"

#include <bit>
#include <cstring>
#include <functional>
#include <limits>

/// The records of `img.trc` (see ZqTrace), for those who walk or write many of them. Not locked.
namespace ZqTraceRecords {

constexpr int64 SIZE = 16;
/// No disk has so many blocks: its size in bytes is a signed 64-bit number.
constexpr uint64 MAX_BLOCKS = uint64{1} << 51;
/// Records that are read or written with one call: a mebibyte.
constexpr int64 CHUNK = 65536;
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

/// Writes records in pieces. What isn't flushed is lost.
class Writer {
public:
    /// `digest`, unless it is null, takes what is written.
    explicit Writer(SxFileIO* file_, SxMd5* digest_ = nullptr) : file(file_), digest(digest_) {}

    void put(uint64 block, uint64 timeMs) {
        encode(block, timeMs, buffer.data() + used);
        if (n++ == 0) first = timeMs;
        last = timeMs;
        used += SIZE;
        if (used == buffer.getSize()) flush();
    }
    /// Nothing for an item that isn't valid.
    void put(const ZqTraceItem& item) {
        if (item.valid) put(blockField(item), item.time);
    }
    void flush();
    /// Records so far.
    int64 getN() const { return n; }
    /// Milliseconds from the first to the last.
    int64 getDuration() const { return static_cast<int64>(last - first); }

private:
    SxFileIO* file;
    SxMd5* digest;
    SxArray<char> buffer = SxArray<char>(CHUNK * SIZE);
    int64 used = 0, n = 0;
    uint64 first = 0, last = 0;
};

/// What was written.
struct Summary {
    int64 size = 0;     ///< bytes
    int64 duration = 0; ///< milliseconds from the first to the last record
    SxString digest;    ///< MD5 text
};

/// Replaces `img.trc` in the folder `path`, as a whole, by what `fill` writes. Raises where a drive records
/// into the file that stands there.
Summary replace(const SxString& path, const std::function<void(Writer* out)>& fill);

/// Why `img.trc` in the folder `path` isn't the one that `record` was written for, by the size and the digest
/// that it states, and what to do, a clause; empty where it is. A command replaces the two files one after
/// the other, so one that is cut off between them leaves such a pair. Where no digest is stated, since the
/// recorder was cut off, records of zeros are looked for. Reads the whole file.
SxString findMismatch(const SxString& path, const ZqTraceParams& record);
/// Raises where there is one.
void requireMatch(const SxString& path);

/// Whether a mounted drive records into the trace in the folder `path` now.
bool isRecording(const SxString& path);
/// Raises if it does.
void refuseRecording(const SxString& path);

/// What tells that a file is the one that it was. A command that changes a trace puts new files in the place
/// of the old ones; only a drive that records writes into a file, at its end.
struct FileState {
    uint64 device = 0, inode = 0;
    int64 size = -1, modifiedMs = 0; ///< of none where there is no file

    /// Both raise where that can't be told.
    static FileState of(const SxString& path);
    static FileState of(const SxFileIO& file);
    bool operator==(const FileState&) const = default;
};

/// The files of a trace as they are at the construction, for those who look at them several times and must
/// not mix two versions.
class Unchanged {
public:
    explicit Unchanged(const SxString& path);
    /// Raises where another command has replaced one of them since, or a recording has ended.
    void require() const;

private:
    SxString items, record;
    FileState itemsState, recordState;
};

/// Reads the records of the trace in a folder from front to back, in pieces. It keeps no file open between
/// them, so that there may be thousands of it.
class Reader {
public:
    /// Raises where there is no `img.trc` in `path`. `chunk`: records that are read with one call.
    explicit Reader(const SxString& path, int64 chunk = CHUNK);

    int64 getN() const { return n; }
    /// Gives whether there was one more. Raises where another file has come in the place of the one that was
    /// there at the construction, or it was changed; what a drive that records adds is passed over.
    bool next(ZqTraceItem* item) {
        if (at == end && !fill()) return false;
        *item = decode(at);
        at += SIZE;
        return true;
    }

private:
    bool fill();

    SxString file;
    FileState state;
    int64 n = 0, nRead = 0, chunkSize;
    SxArray<char> buffer;
    const char *at = nullptr, *end = nullptr;
};

} // namespace ZqTraceRecords
