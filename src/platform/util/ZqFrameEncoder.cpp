#include "ZqFrameEncoder.h"

#include "SxException.h"

#include <zstd.h>

namespace {
constexpr const char* UNIT = "src/platform/util/ZqFrameEncoder";
constexpr int64 CHECKSUM_SIZE = 4;

size_t check(size_t result) {
    if (ZSTD_isError(result)) throw SxException(ZSTD_getErrorName(result), UNIT, __LINE__);
    return result;
}
} // namespace

struct ZqFrameEncoder::Context {
    Context() : zstd(ZSTD_createCCtx()) {
        if (!zstd) throw SxException("Out of memory", UNIT, __LINE__);
    }
    ~Context() { ZSTD_freeCCtx(zstd); }
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

    ZSTD_CCtx* zstd;
};

ZqFrameEncoder::ZqFrameEncoder(int64 level) {
    if (level < 1 || level > getMaxLevel()) {
        throw SxException(SxString("There is no zstd level ") + level + "; there are 1 to " + getMaxLevel(),
                          UNIT, __LINE__);
    }
    context = std::make_unique<Context>();
    check(ZSTD_CCtx_setParameter(context->zstd, ZSTD_c_compressionLevel, static_cast<int>(level)));
    check(ZSTD_CCtx_setParameter(context->zstd, ZSTD_c_checksumFlag, 1));
    check(ZSTD_CCtx_setParameter(context->zstd, ZSTD_c_contentSizeFlag, 1));
}

ZqFrameEncoder::~ZqFrameEncoder() = default;

void ZqFrameEncoder::encode(const char* bytes, int64 n) {
    const auto most = static_cast<int64>(ZSTD_compressBound(static_cast<size_t>(n)));
    if (frame.getSize() < most) frame.resize(most);
    frameSize = static_cast<int64>(check(ZSTD_compress2(
        context->zstd, frame.data(), static_cast<size_t>(frame.getSize()), bytes, static_cast<size_t>(n))));
}

uint32 ZqFrameEncoder::getChecksum() const {
    // It is what a frame ends with.
    uint32 checksum = 0;
    for (int64 i = frameSize - 1; i >= frameSize - CHECKSUM_SIZE; --i)
        checksum = checksum << 8 | static_cast<unsigned char>(frame(i));
    return checksum;
}

int64 ZqFrameEncoder::getMaxLevel() {
    return ZSTD_maxCLevel();
}
