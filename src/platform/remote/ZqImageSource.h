#pragma once

#include "ZqRangeSource.h"
#include "ZqRemoteImage.h"

/// Ranges of a remote image that others use, too: they share its link, its priorities and what it keeps. Only
/// these ranges end with cancel().
class ZqImageSource : public ZqRangeSource {
public:
    explicit ZqImageSource(const SxPtr<ZqRemoteImage>& image_) : image(image_) {}

    SxArray<uint64> announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes,
                             const SxArray<uint64>& likely) override;
    void read(uint64 offset, uint64 size, char* buffer, bool isApart) override;
    void forget(uint64 offset, uint64 size) override;
    void cancel(bool on) override { cancelled = on; }

private:
    const SxPtr<ZqRemoteImage> image;
    std::atomic<bool> cancelled{false};
};
