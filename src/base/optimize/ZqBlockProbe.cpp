#include "ZqBlockProbe.h"

#include "SxXxh64.h"
#include "ZqBlockGather.h"
#include "ZqBlocks.h"

#include <algorithm>

namespace {
constexpr uint64 MOST = 16;
} // namespace

uint64 ZqBlockProbe::of(SxFileIO* file, std::span<const ZqMovePlan::Position> positions) {
    const uint64 n = std::min<uint64>(positions.size(), MOST);
    std::vector<ZqMovePlan::Position> some;
    for (uint64 i = 0; i < n; ++i)
        some.push_back(positions[i * positions.size() / n]);
    std::vector<char> bytes(n * ZqBlocks::SIZE);
    ZqBlockGather(file).read(some, bytes.data());
    return n == 0 ? 0 : SxXxh64::of(bytes.data(), static_cast<int64>(bytes.size()));
}
