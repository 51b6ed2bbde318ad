#pragma once

#include "SxString.h"

/// How the patch streams of a patch are compressed, and the texts that stand for it in patch.json.
class ZqPatchCompression {
public:
    /// Files hold the texts, never these numbers.
    enum Type : int {
        LZMA = 0,   ///< "LZMA"
        ZLIB = 1,   ///< "ZLIB"
        BZIP2 = 2,  ///< "BZIP2"
        LZ4HC = 3,  ///< "LZ4HC"
        ZSTD = 4,   ///< "ZSTD"
        RAW = 5,    ///< "RAW": a difference that isn't compressed
        REPLACE = 6 ///< "REPLACE": no difference, the stream is the new data itself
    };

    /// Upper and lower case count. Raises "Invalid patch compression type ..." on any other text.
    static Type toEnum(const SxString& text);
    /// The text of `type`. Raises "Invalid compression mode ..." on any other value.
    static SxString toString(Type type);
};
