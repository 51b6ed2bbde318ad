#include "ZqImageSource.h"

#include "ZqBlocks.h"

#include <algorithm>
#include <exception>

SxArray<uint64> ZqImageSource::announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes,
                                        const SxArray<uint64>& likely) {
    if (cancelled) return {};
    try {
        return image->announce(offsets, sizes, likely);
    } catch (const std::exception&) {
        // Whoever reads them meets it, too.
        return {};
    }
}

void ZqImageSource::read(uint64 offset, uint64 size, char* buffer, bool isApart) {
    const ZqStopTest stop = [this] { return cancelled.load(); };
    if (!isApart) {
        image->read(offset, size, buffer, stop);
        return;
    }
    for (const uint64 end = offset + size; offset < end;) {
        const SxPtr<SxArray<char>> bytes = image->fetchAnew(offset / ZqBlocks::STRETCH, stop);
        const uint64 inside = offset % ZqBlocks::STRETCH;
        const uint64 n = std::min(end - offset, ZqBlocks::STRETCH - inside);
        buffer = std::copy_n(bytes->data() + inside, n, buffer);
        offset += n;
    }
}

void ZqImageSource::forget(uint64 offset, uint64 size) {
    image->forget(offset, size);
}
