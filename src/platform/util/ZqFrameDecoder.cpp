#include "ZqFrameDecoder.h"

#include "SxException.h"

#include <zstd.h>
#include <zstd_errors.h>

namespace {

constexpr const char* UNIT = "src/platform/util/ZqFrameDecoder";

size_t check(size_t result) {
    if (ZSTD_isError(result)) throw SxException(ZSTD_getErrorName(result), UNIT, __LINE__);
    return result;
}

uint32 readUint32(const char* bytes) {
    uint32 value = 0;
    for (int i = 3; i >= 0; --i)
        value = value << 8 | static_cast<unsigned char>(bytes[i]);
    return value;
}

} // namespace

int64 ZqFrameDecoder::findSize(const char* bytes, int64 n) {
    if (n < 4) return 0;
    if (readUint32(bytes) != ZSTD_MAGICNUMBER) throw SxException("No zstd frame begins here", UNIT, __LINE__);
    const size_t size = ZSTD_findFrameCompressedSize(bytes, static_cast<size_t>(n));
    if (ZSTD_isError(size) && ZSTD_getErrorCode(size) == ZSTD_error_srcSize_wrong) return 0;
    return static_cast<int64>(check(size));
}

uint32 ZqFrameDecoder::decode(const char* frame, int64 n, char* to, int64 nTo) {
    if (findSize(frame, n) != n) throw SxException("It is cut short", UNIT, __LINE__);
    const auto nFrame = static_cast<size_t>(n), nContent = static_cast<size_t>(nTo);
    if (ZSTD_getFrameContentSize(frame, nFrame) != nContent) {
        throw SxException(SxString("It doesn't declare ") + nTo + " bytes", UNIT, __LINE__);
    }
    constexpr int CHECKSUM_FLAG = 4;
    if ((frame[4] & CHECKSUM_FLAG) == 0) throw SxException("It has no checksum", UNIT, __LINE__);
    if (check(ZSTD_decompress(to, nContent, frame, nFrame)) != nContent) {
        throw SxException(SxString("It doesn't hold ") + nTo + " bytes", UNIT, __LINE__);
    }
    return readUint32(frame + n - 4);
}
