#include "StoredReader.h"

#include "SxException.h"
#include "ZqBlocks.h"

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/driver/StoredReader";
} // namespace

StoredReader::StoredReader(const BlockMap& map_, const StoredFile& stored_)
    : ZqDriveReader(SxString(stored_.getPath())),
      map(map_),
      stored(stored_) {
    size = map.nRaw() * ZqBlocks::SIZE;
}

void StoredReader::fetch(uint64 offset, char* bytes, uint64 n) {
    while (n > 0) {
        const uint64 inBlock = offset % ZqBlocks::SIZE, count = std::min(n, ZqBlocks::SIZE - inBlock);
        const BlockMap::Place at = map.get({offset / ZqBlocks::SIZE});
        if (at.isStored()) {
            const int64 got = SxOs::get().readAt(stored.getFd(), bytes, static_cast<int64>(count),
                                                 at.zqfIdx().byte() + static_cast<int64>(inBlock));
            if (got != static_cast<int64>(count)) {
                throw SxException(
                    "Cannot read ZqF block " + SxString(at.zqfIdx().value) + " of '" + getName() +
                        "': " + (got < 0 ? SxOs::errorText(static_cast<int>(got)) : "it ends before"),
                    UNIT, __LINE__);
            }
        } else {
            std::fill_n(bytes, count, '\0');
        }
        offset += count;
        bytes += count;
        n -= count;
    }
}
