#include "SxException.h"
#include "ZqSeekTable.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

// The seek table of img.zqf.zst: in a table that is taken the frames lie one after the other within the file.
// The input begins with the sizes of both forms.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    uint64 sizes[2] = {0, 0};
    if (size < sizeof sizes) return 0;
    std::memcpy(sizes, data, sizeof sizes);
    const auto [sizePacked, sizeZqf] = sizes;
    try {
        const ZqSeekTable table(reinterpret_cast<const char*>(data) + sizeof sizes, size - sizeof sizes,
                                sizePacked, sizeZqf);
        if (table.getNFrames() != ZqSeekTable::countFrames(sizeZqf)) std::abort();
        uint64 offset = 0;
        for (uint64 frameIdx = 0; frameIdx < table.getNFrames(); ++frameIdx) {
            const ZqSeekTable::Frame& frame = table.getFrame(frameIdx);
            if (frame.offset != offset || frame.size == 0 || frame.size > ZqSeekTable::MAX_PACKED)
                std::abort();
            offset += frame.size;
        }
        if (offset >= sizePacked) std::abort();
    } catch (const SxException&) {
    }
    return 0;
}
