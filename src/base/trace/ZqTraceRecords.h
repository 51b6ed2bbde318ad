#pragma once

#include "SxFileIO.h"
#include "SxMd5.h"
#include "ZqTraceFormat.h"
#include "ZqTraceParams.h"

#include <functional>

/// The records of `img.trc` (see ZqTraceFormat), for those who walk or write many of them. Not locked.
namespace ZqTraceRecords {

/// Records that are read or written with one call: a mebibyte.
constexpr int64 CHUNK = 65536;

/// Writes records in pieces. What isn't flushed is lost.
class Writer {
public:
    /// `digest`, unless it is null, takes what is written.
    explicit Writer(SxFileIO* file_, SxMd5* digest_ = nullptr) : file(file_), digest(digest_) {}

    /// `block`: RAW index, with the mark in bit 63; `timeMs`: milliseconds since 1970 UTC. Raises on a time
    /// that a record can't hold, and where what is gathered can't be written.
    void put(uint64 block, uint64 timeMs) {
        ZqTraceFormat::encode(block, timeMs, buffer.data() + used);
        if (n++ == 0) first = timeMs;
        last = timeMs;
        used += ZqTraceFormat::SIZE;
        if (used == buffer.getSize()) flush();
    }
    /// The same; nothing for an item that isn't valid.
    void put(const ZqTraceItem& item) {
        if (item.valid) put(ZqTraceFormat::blockField(item), item.time);
    }
    void flush();
    /// Records so far.
    int64 getN() const { return n; }
    /// Milliseconds from the first to the last.
    int64 getDuration() const { return static_cast<int64>(last - first); }

private:
    SxFileIO* file;
    SxMd5* digest;
    SxArray<char> buffer = SxArray<char>(CHUNK * ZqTraceFormat::SIZE);
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
/// the other, so one that is cut off between them leaves such a pair. The drive service states both when a
/// recording ends; where it was cut off they are missing, and nothing but records of zeros can be told, as a
/// power cut leaves them. Reads the whole file.
SxString findMismatch(const SxString& path, const ZqTraceParams& record);
/// What a Reader has found in a trace on its way from front to back.
struct Found {
    int64 size = 0;        ///< bytes of whole records
    SxString digest;       ///< MD5 text of these
    bool hasHoles = false; ///< there are records of zeros
};
/// The same for who has read the file anyhow.
SxString findMismatch(const SxString& path, const ZqTraceParams& record, const Found& found);
/// Raises where there is one.
void requireMatch(const SxString& path);

/// Whether a mounted drive records into the trace in the folder `path` now: it then holds a lock on the first
/// byte of `img.trc`. The file itself is asked, since a drive may record into the trace of another image, and
/// so that the spelling of a folder doesn't matter. Whatever would replace the file, or shift the trace's
/// record, refuses.
bool isRecording(const SxString& path);
/// Raises if it does.
void refuseRecording(const SxString& path);

/// What tells that a file is the one that it was. A command that changes a trace puts new files in the place
/// of the old ones. Only a drive that records writes into a file, at its end, and that is no change.
struct FileState {
    uint64 device = 0, inode = 0;
    int64 size = -1, modifiedMs = 0; ///< of none where there is no file

    /// Both raise where that can't be told.
    static FileState of(const SxString& path);
    static FileState of(const SxFileIO& file);
    bool operator==(const FileState&) const = default;
};

/// The files of a trace as they are at the construction, for those who read them without the trace's lock and
/// must not mix two versions. They take no lock because a trace that is only read may lie on a disk that
/// can't be written to, where no lock can be. Device, inode, size and time of change are noted, and compared
/// at the end, before anything is written; Reader compares them with each piece, too.
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
/// them, so that there may be thousands of such objects.
class Reader {
public:
    /// Raises where there is no `img.trc` in `path`. `chunk`: records that are read with one call. `digest`,
    /// unless it is null, takes what is read; it outlives this object.
    explicit Reader(const SxString& path, int64 chunk = CHUNK, SxMd5* digest = nullptr);

    int64 getN() const { return n; }
    /// Gives whether there was one more. Raises where another file has come in the place of the one that was
    /// there at the construction, or it was changed; what a drive that records adds is passed over.
    bool next(ZqTraceItem* item) {
        if (at == end && !fill()) return false;
        *item = ZqTraceFormat::decode(at);
        at += ZqTraceFormat::SIZE;
        return true;
    }

private:
    bool fill();

    SxString file;
    FileState state;
    int64 n = 0, nRead = 0, chunkSize;
    SxMd5* digest;
    SxArray<char> buffer;
    const char *at = nullptr, *end = nullptr;
};

} // namespace ZqTraceRecords
