#pragma once

#include "SxFileIO.h"
#include "SxMutex.h"

#include <string>
#include <string_view>
#include <vector>

/// What is wrong with a record, and where it stands.
struct ZqRecordFault {
    size_t file = 0; ///< its index
    int64 line = 0;  ///< from 1; 0 for the file as a whole
    SxString text;
};

/// A piece of a file, with whole records in it. Threads that read have one each, again and again.
class ZqRecordBatch {
public:
    struct Record {
        std::string_view text; ///< followed by PADDING bytes
        int64 line = 0;        ///< as in ZqRecordFault
    };

    size_t getFile() const { return file; }
    /// What is wrong with the file, or with a line that no piece can hold; an empty text where nothing is.
    const ZqRecordFault& getFault() const { return fault; }
    /// Whether the piece is a whole file, which may be one record or have one in each line.
    bool isWholeFile() const { return isWhole; }
    /// The whole piece as one record.
    Record whole() const;
    /// Whether the whole piece looks as if it had a record in each line.
    bool looksLikeLines() const;
    /// The next line that isn't empty; false at the end.
    bool nextLine(Record* record);

private:
    friend class ZqRecordFiles;

    size_t file = 0;
    ZqRecordFault fault;
    bool isWhole = false;
    std::string buffer; ///< the bytes, and then room for the parser
    size_t begin = 0, end = 0;
    int64 line = 0; ///< number of the one that follows
};

/// Files of records, one after the other and piece by piece, however large they are. Lines end with LF or
/// CR LF; a byte-order mark in front of the first one doesn't count. All is safe from any thread.
class ZqRecordFiles {
public:
    /// Bytes of a piece.
    static constexpr size_t BATCH = 4 << 20;

    explicit ZqRecordFiles(std::vector<SxString> paths_) : paths(std::move(paths_)) {}

    /// Reads the next piece; false where there is none. What is wrong with a file is its fault, and the next
    /// one follows.
    bool next(ZqRecordBatch* batch);
    /// Bytes that were read.
    uint64 getNRead() const;
    const SxString& getPath(size_t index) const { return paths[index]; }

private:
    void openNext(ZqRecordBatch* batch) SX_REQUIRES(mutex);
    void fill(ZqRecordBatch* batch) SX_REQUIRES(mutex);
    void cut(ZqRecordBatch* batch, size_t n) SX_REQUIRES(mutex);

    const std::vector<SxString> paths;
    /// Held while a piece is read: its threads take turns in reading, and share the rest of the work.
    mutable SxMutex mutex;
    SxFileIO file SX_GUARDED_BY(mutex);
    size_t nOpened SX_GUARDED_BY(mutex) = 0;
    int64 line SX_GUARDED_BY(mutex) = 0;
    uint64 nRead SX_GUARDED_BY(mutex) = 0;
    std::string rest SX_GUARDED_BY(mutex);        ///< the begin of a line whose end isn't read
    bool isSkipping SX_GUARDED_BY(mutex) = false; ///< the rest of a line that is too long
};
