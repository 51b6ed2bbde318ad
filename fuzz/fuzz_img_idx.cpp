#include "RecordFile.h"
#include "ZqImage.h"

// img.idx: every map that is read can be turned round, and the inverse points back.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const RecordFile file("img.idx", data, size);
    try {
        const ZqImage image(file.prefix());
        const SxArray<uint64> map = image.getMap(), reverse = image.getReverseMap();
        if (map.getSize() * 8 != static_cast<int64>(size) || reverse.getSize() != map.getSize()) std::abort();
        for (int64 zqfIdx = 0; zqfIdx < reverse.getSize(); ++zqfIdx) {
            const uint64 rawIdx = reverse(zqfIdx);
            if (rawIdx == ZqImage::NO_ENTRY) continue;
            if (map(static_cast<int64>(rawIdx)) != static_cast<uint64>(zqfIdx)) std::abort();
        }
        SxFileIO walk(file.prefix() + "img.idx", "rb");
        int64 nItems = 0;
        while (image.readItem(&walk).valid)
            ++nItems;
        if (nItems != map.getSize()) std::abort();
    } catch (const SxException&) {
        if (size > 0 && size % 8 == 0) std::abort();
    }
    return 0;
}
