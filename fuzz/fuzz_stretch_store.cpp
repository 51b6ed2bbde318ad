#include "RecordFile.h"
#include "SxXxh64.h"
#include "ZqStretchStore.h"

#include <cstring>

// img.ahead.idx of an earlier run: what is taken of it is only what has its checksum, and the next one who
// opens the store finds the same. The first input byte says how much img.zqf has, the second how large it
// will be.
namespace {

constexpr uint64 STRETCH = 4096;
constexpr const char* KEY = "key";

ZqStretchStore open(const SxString& folder, uint64 sizeZqf, uint64 nPassed) {
    return {folder, KEY, sizeZqf, STRETCH, nPassed, ZqDiskReserve()};
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    if (size < 2) return 0;
    const uint64 nPassed = data[0] * (STRETCH / 4), sizeZqf = 1 + data[1] * (STRETCH / 3);
    const RecordFile index("img.ahead.idx", data + 2, size - 2);
    {
        SxFileIO ahead(index.prefix() + "img.ahead", "wb");
        ahead.truncate(static_cast<int64>(sizeZqf));
    }
    std::vector<uint64> there;
    {
        ZqStretchStore store = open(index.prefix(), sizeZqf, nPassed);
        for (const uint64 stretchIdx : store.list()) {
            if (stretchIdx * STRETCH >= sizeZqf || (stretchIdx + 1) * STRETCH <= nPassed) std::abort();
            const SxPtr<SxArray<char>> bytes = store.read(stretchIdx);
            if (!bytes) continue;
            uint64 entry = 0;
            std::memcpy(&entry, data + 2 + 64 + stretchIdx * sizeof entry, sizeof entry);
            if (SxXxh64::of(bytes->data(), bytes->getSize(), stretchIdx) != entry) std::abort();
            there.push_back(stretchIdx);
        }
        if (store.list() != there) std::abort();
    }
    if (open(index.prefix(), sizeZqf, nPassed).list() != there) std::abort();
    return 0;
}
