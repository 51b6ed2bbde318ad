#pragma once

#include "Builders.h"
#include "NetLab.h"
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

/// Whether a range on demand gives a whole stretch as it is in `zqf`.
inline bool readsRight(ZqRemoteImage& image, const std::string& zqf, uint64 stretchIdx) {
    return readOf(image, stretchIdx * STRETCH, STRETCH) == zqf.substr(stretchIdx * STRETCH, STRETCH);
}

/// An answer without a body.
inline std::string statusOnly(const std::string& status) {
    return "HTTP/1.1 " + status + "\r\nContent-Length: 0\r\n\r\n";
}

inline SxPtr<ZqRemoteImage> imageAt(const SxString& url, uint64 size) {
    return SxPtr<ZqRemoteImage>::create(SxPtr<ZqNetLink>::create(quickSettings()), url, size);
}
