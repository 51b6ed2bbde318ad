#pragma once

/// Compression of the patch streams of a patch.
class ZqPatchCompression {
public:
    enum Type {
        LZMA = 0,
        ZLIB = 1,
        BZIP2 = 2,
        LZ4HC = 3,
        ZSTD = 4,
        RAW = 5,    ///< a difference that isn't compressed
        REPLACE = 6 ///< no difference: the stream is the new data itself
    };
};
