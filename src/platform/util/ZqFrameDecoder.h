#pragma once

#include "SxTypes.h"

/// Decodes Zstandard frames (RFC 8878) in memory. Safe from any thread; raises SxException.
class ZqFrameDecoder {
public:
    /// Bytes of the frame that the `n` bytes begin with; 0 where its end isn't among them. Raises where they
    /// can't be the beginning of one.
    static int64 findSize(const char* bytes, int64 n);
    /// Decodes one frame of `n` bytes into the `nTo` bytes at `to`, with no window beside them. The frame
    /// must declare that size and carry a checksum, which is compared. Gives that: the low 32 bits of the
    /// XXH64 of the decoded bytes.
    static uint32 decode(const char* frame, int64 n, char* to, int64 nTo);
};
