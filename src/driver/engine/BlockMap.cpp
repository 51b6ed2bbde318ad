#include "BlockMap.h"

#include "SxException.h"
#include "ZqImageFiles.h"

#include <algorithm>
#include <bit>
#include <vector>

namespace {

constexpr const char* UNIT = "src/driver/BlockMap";

} // namespace

BlockMap::BlockMap(const std::string& folder, uint64 sizeRaw, bool unique) {
    file.open(folder + ZqImageFiles::IDX, SxOs::Read);
    const uint64 size = file.getSize(), nBlocks = blocksFor(sizeRaw);
    if (size == 0 || size % 8 != 0) {
        throw SxException("Invalid size of '" + SxString(file.getPath()) + "' file.", UNIT, __LINE__);
    }
    if (size / 8 != nBlocks) {
        throw SxException("The map '" + SxString(file.getPath()) + "' has " + size / 8 +
                              " entries; a disk of " + sizeRaw + " bytes needs " + nBlocks,
                          UNIT, __LINE__);
    }
    try {
        entries.resize(static_cast<int64>(nBlocks));
    } catch (const std::exception&) {
        throw SxException("There is no memory for the map '" + SxString(file.getPath()) + "' of " + size +
                              " bytes",
                          UNIT, __LINE__);
    }
    read(0, nBlocks, entries.data());
    check(unique);
}

void BlockMap::read(uint64 first, uint64 n, uint64* to) const {
    const int64 got = file.readAt(to, n * 8, first * 8);
    if (got < 0) file.raise("Cannot read", got, UNIT, __LINE__);
    if (static_cast<uint64>(got) != n * 8) {
        throw SxException("'" + SxString(file.getPath()) + "' has become shorter", UNIT, __LINE__);
    }
    if constexpr (std::endian::native == std::endian::big) {
        std::transform(to, to + n, to, [](uint64 value) { return __builtin_bswap64(value); });
    }
}

void BlockMap::check(bool unique) {
    const uint64 n = nRaw();
    std::vector<bool> seen(unique ? n : 0);
    for (uint64 rawIdx = 0; rawIdx < n; ++rawIdx) {
        const uint64 zqfIdx = entries(static_cast<int64>(rawIdx));
        if (zqfIdx == NOTHING) continue;
        if (zqfIdx >= n) {
            throw SxException("The map '" + SxString(file.getPath()) + "' has the ZqF index " + zqfIdx +
                                  " for RAW block " + rawIdx + ", but only " + n + " blocks",
                              UNIT, __LINE__);
        }
        if (unique) {
            if (seen[zqfIdx]) {
                throw SxException("The map '" + SxString(file.getPath()) + "' has ZqF index " + zqfIdx +
                                      " twice, so its blocks can't be written",
                                  UNIT, __LINE__);
            }
            seen[zqfIdx] = true;
        }
        included = std::max(included, zqfIdx + 1);
    }
}

void BlockMap::readStored(RawIdx first, uint64 n, SxArray<uint64>* stored) const {
    stored->resize(static_cast<int64>(n));
    read(first.value, n, stored->data());
    // The file was checked when it was opened; what it says now might have changed.
    for (const uint64 zqfIdx : *stored) {
        if (zqfIdx != NOTHING && zqfIdx >= included) {
            throw SxException("'" + SxString(file.getPath()) + "' has changed", UNIT, __LINE__);
        }
    }
}
