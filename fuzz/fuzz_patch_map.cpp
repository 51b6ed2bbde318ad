#include "SxException.h"
#include "ZqImage.h"
#include "ZqPatchMap.h"

#include <cstdlib>
#include <cstring>
#include <set>

// The old map, map.idx and the lists of a patch, whatever they say: they are refused by an SxException, or
// give a new map with no slot twice, which keeps what map.idx says. The first input byte is the number of new
// items, the others are entries: a small number, or none.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    if (size < 4) return 0;
    const uint64 nNew = data[0];
    const auto nOld = static_cast<int64>(data[1]);
    const auto entryAt = [&](size_t at) {
        if (at >= size || data[at] == 255) return ZqImage::NO_ENTRY;
        return data[at] == 254 ? uint64{1} << 60 : uint64{data[at]};
    };
    size_t at = 2;
    SxArray<uint64> oldIdx(nOld), map(nOld);
    for (int64 item = 0; item < nOld; ++item) {
        oldIdx(item) = entryAt(at++);
        map(item) = entryAt(at++);
    }
    ZqPatchInfo part;
    while (at < size) {
        part.newMap.append(entryAt(at++));
        if (at < size) part.oldMap.append(entryAt(at++));
    }
    SxArray<uint64> idx;
    try {
        idx = ZqPatchMap::generate(oldIdx, 200, map, nNew, std::span(&part, 1), [] { return false; });
    } catch (const SxException&) {
        return 0;
    }
    std::set<uint64> slots;
    for (const uint64 slot : idx)
        if (slot != ZqImage::NO_ENTRY && !slots.insert(slot).second) std::abort();
    for (int64 item = 0; item < nOld; ++item) {
        if (map(item) == ZqImage::NO_ENTRY) continue;
        if (idx(static_cast<int64>(map(item))) != oldIdx(item)) std::abort();
    }
    for (const uint64 item : part.newMap)
        if (idx(static_cast<int64>(item)) == ZqImage::NO_ENTRY) std::abort();
    return 0;
}
