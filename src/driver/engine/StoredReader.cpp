#include "StoredReader.h"

#include "SxException.h"
#include "ZqBlocks.h"

#include <algorithm>
#include <utility>

namespace {
constexpr const char* UNIT = "src/driver/StoredReader";
} // namespace

StoredReader::StoredReader(const BlockMap& map_, const StoredFile& stored_, std::function<void()> look_)
    : ZqBlockReader(SxString(stored_.getPath())),
      map(map_),
      stored(stored_),
      look(std::move(look_)) {
    size = map.nRaw() * ZqBlocks::SIZE;
}

void StoredReader::fetchBlock(uint64 rawIdx, uint64 inBlock, char* bytes, uint64 n) {
    if (look) look();
    const BlockMap::Place at = map.get({rawIdx});
    if (!at.isStored()) {
        std::fill_n(bytes, n, '\0');
        return;
    }
    const int64 got = SxOs::get().readAt(stored.getFd(), bytes, static_cast<int64>(n),
                                         at.zqfIdx().byte() + static_cast<int64>(inBlock));
    if (got == static_cast<int64>(n)) return;
    throw SxException("Cannot read ZqF block " + SxString(at.zqfIdx().value) + " of '" + getName() +
                          "': " + (got < 0 ? SxOs::errorText(got) : "it ends before"),
                      UNIT, __LINE__);
}
