#pragma once

#include "ZqSeekTable.h"

#include <algorithm>

/// How an image is divided into stretches, which are numbered from 0. Places and sizes are bytes of
/// `img.zqf`.
class ZqStretchLayout {
public:
    static constexpr uint64 STRETCH = ZqBlocks::STRETCH;

    explicit ZqStretchLayout(uint64 sizeZqf_) : sizeZqf(sizeZqf_) {}

    uint64 getSizeZqf() const noexcept { return sizeZqf; }
    uint64 count() const noexcept { return ZqSeekTable::countFrames(sizeZqf); }
    uint64 sizeOf(uint64 stretchIdx) const { return std::min(STRETCH, sizeZqf - stretchIdx * STRETCH); }
    uint64 endOf(uint64 stretchIdx) const { return stretchIdx * STRETCH + sizeOf(stretchIdx); }

private:
    const uint64 sizeZqf;
};
