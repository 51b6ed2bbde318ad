#pragma once

#include "SxArray.h"

#include <memory>

/// Makes Zstandard frames (RFC 8878) of pieces of memory, each with its content's size and checksum. One
/// thread at a time.
class ZqFrameEncoder {
public:
    /// Raises where zstd has no such level (from 1 on).
    explicit ZqFrameEncoder(int64 level);
    ~ZqFrameEncoder();
    ZqFrameEncoder(const ZqFrameEncoder&) = delete;
    ZqFrameEncoder& operator=(const ZqFrameEncoder&) = delete;

    /// Makes a frame of `n` bytes. It stays until the next call.
    void encode(const char* bytes, int64 n);
    const char* getFrame() const { return frame.data(); }
    int64 getFrameSize() const { return frameSize; }
    /// The low 32 bits of the content's XXH64 with seed 0.
    uint32 getChecksum() const;

    static int64 getMaxLevel();

private:
    struct Context;

    std::unique_ptr<Context> context;
    SxArray<char> frame;
    int64 frameSize = 0;
};
