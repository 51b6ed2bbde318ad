#pragma once

#include "SxFileIO.h"
#include "ZqWriteBuffer.h"

/// The record `write.log` of how an image was written: a line for each whole piece, or each second in which
/// less is written. For the writer's thread, but for the constructor. Sizes in bytes, speeds in bytes per
/// second.
class ZqWriteLog {
public:
    /// The file had `cursor0_` bytes; its times count from now.
    explicit ZqWriteLog(uint64 cursor0_);

    /// Begins a new one in the folder `dirPath`. The disk's test has written `testBytes`; 0 for none.
    void open(const SxString& dirPath, uint64 testBytes, uint64 testMs);
    /// What is written from now on comes at `dlSpeed_` and is to be written at `target_`, 0 for no pace.
    void setSpeeds(uint64 dlSpeed_, uint64 target_);
    void add(uint64 nBytes_, int64 ns_);
    /// Whether there is something for a line, and whether that is due.
    bool hasLine() const noexcept { return nBytes > 0; }
    bool isLineDue() const;
    void writeLine(const ZqWriteBuffer::Cursors& at, uint64 maxSpeed);
    void close() { log.close(); }

private:
    const uint64 cursor0;
    const uint64 time0, steady0; ///< milliseconds of the system's clock and the steady one
    SxFileIO log;
    int64 lineNs = 0; ///< when the last line was written
    // What was written since the last line, how long that took, and the speeds of its last piece.
    uint64 nBytes = 0;
    int64 ns = 0;
    uint64 dlSpeed = 0, target = 0;
};
