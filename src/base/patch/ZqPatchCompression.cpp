#include "ZqPatchCompression.h"

#include "SxException.h"

#include <array>

namespace {

constexpr const char* UNIT = "src/base/ZqPatchCompression";

/// By the values of ZqPatchCompression::Type.
constexpr std::array<const char*, 7> TEXTS = {"LZMA", "ZLIB", "BZIP2", "LZ4HC", "ZSTD", "RAW", "REPLACE"};

} // namespace

ZqPatchCompression::Type ZqPatchCompression::toEnum(const SxString& text) {
    for (size_t i = 0; i < TEXTS.size(); ++i) {
        if (text == TEXTS[i]) return static_cast<Type>(i);
    }
    throw SxException("Invalid patch compression type " + text, UNIT, __LINE__);
}

SxString ZqPatchCompression::toString(Type type) {
    const auto i = static_cast<size_t>(type);
    if (i >= TEXTS.size()) {
        throw SxException(SxString("Invalid compression mode ") + static_cast<int>(type), UNIT, __LINE__);
    }
    return TEXTS[i];
}
