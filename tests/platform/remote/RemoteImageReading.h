#pragma once

#include "Builders.h"
#include "ZqBlocks.h"
#include "ZqRemoteImage.h"

#include <string>

constexpr uint64 STRETCH = ZqBlocks::STRETCH;

/// Bytes that packing shrinks to about a half.
inline std::string halfRandom(TestRandom* random, size_t n) {
    std::string bytes = random->bytes(n);
    for (size_t i = 0; i < n; i += 2)
        bytes[i] = 'x';
    return bytes;
}

inline std::string streamOf(ZqRemoteImage& image, uint64 offset = 0) {
    std::string all;
    image.stream(offset, [&](const char* bytes, int64 n) {
        all.append(bytes, static_cast<size_t>(n));
        return true;
    });
    return all;
}

inline std::string readOf(ZqRemoteImage& image, uint64 offset, uint64 size) {
    std::string buffer(size, '\0');
    image.read(offset, size, buffer.data());
    return buffer;
}
