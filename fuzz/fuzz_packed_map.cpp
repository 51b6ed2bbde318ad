#include "SxException.h"
#include "ZqPackedMap.h"

#include <cstdlib>

// img.idx.zst as it comes from a server, in pieces: never more than the map is given, and what is taken as
// whole is.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    if (size < 3) return 0;
    const uint64 sizeIdx = 8 * (1 + (data[0] | static_cast<uint64>(data[1]) << 8) * 16);
    const int64 piece = 1 + data[2] * 16;
    const char* bytes = reinterpret_cast<const char*>(data + 3);
    const auto n = static_cast<int64>(size - 3);
    uint64 nOut = 0;
    try {
        ZqPackedMap::Decoder decoder(sizeIdx, "", [&](const char*, int64 nPiece) {
            nOut += static_cast<uint64>(nPiece);
            if (nOut > sizeIdx) std::abort();
        });
        for (int64 i = 0; i < n; i += piece)
            decoder.take(bytes + i, std::min(piece, n - i));
        decoder.finish();
        if (nOut != sizeIdx) std::abort();
    } catch (const SxException&) {
    }
    return 0;
}
