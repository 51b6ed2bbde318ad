#include "ZqOrderTail.h"

#include <algorithm>
#include <array>
#include <bit>
#include <numeric>
#include <vector>

namespace {

constexpr size_t N_BITS = 64, N_BYTES = 8, N_VALUES = 256;

/// Moves the bits of sketches: the run with the most blocks has the highest bit.
class BitOrder {
public:
    explicit BitOrder(const std::array<uint64, N_BITS>& nBlocks) {
        std::array<size_t, N_BITS> bits;
        std::iota(bits.begin(), bits.end(), size_t{0});
        std::stable_sort(bits.begin(), bits.end(),
                         [&](size_t a, size_t b) { return nBlocks.at(a) > nBlocks.at(b); });
        for (size_t rank = 0; rank < N_BITS; ++rank) {
            const size_t bit = bits.at(rank);
            for (size_t value = 0; value < N_VALUES; ++value) {
                if (value >> bit % N_BYTES & 1)
                    table.at(bit / N_BYTES).at(value) |= uint64{1} << (N_BITS - 1 - rank);
            }
        }
    }

    uint64 apply(uint64 sketch) const {
        uint64 result = 0;
        for (size_t i = 0; i < N_BYTES; ++i)
            result |= table[i][sketch >> (i * N_BYTES) & (N_VALUES - 1)];
        return result;
    }

private:
    std::array<std::array<uint64, N_VALUES>, N_BYTES> table{};
};

/// Neighbours on the disk that the same runs have read.
struct Extent {
    uint64 first, count; ///< RAW blocks
    uint64 early;        ///< the one that was read first
};

/// Puts the extents of blocks that the same runs have read, which are in RAW order, in the order of their
/// first reads. A run that reads a file here and there, or all of the disk in no order, so tears nothing
/// apart.
void orderExtents(const ZqBlockUse& use, std::span<uint64> blocks) {
    std::vector<Extent> extents;
    for (const uint64 rawIdx : blocks) {
        if (extents.empty() || extents.back().first + extents.back().count != rawIdx) {
            extents.push_back({rawIdx, 0, rawIdx});
        }
        Extent& extent = extents.back();
        ++extent.count;
        if (use.isEarlier(rawIdx, extent.early)) extent.early = rawIdx;
    }
    std::sort(extents.begin(), extents.end(),
              [&](const Extent& a, const Extent& b) { return use.isEarlier(a.early, b.early); });
    auto to = blocks.begin();
    for (const Extent& extent : extents) {
        for (uint64 i = 0; i < extent.count; ++i)
            *to++ = extent.first + i;
    }
}

} // namespace

void zqOrderTail(const ZqBlockUse& use, std::span<uint64> rawIdcs) {
    std::array<uint64, N_BITS> nBlocks{};
    for (const uint64 rawIdx : rawIdcs) {
        for (uint64 rest = use.getSketch(rawIdx); rest != 0; rest &= rest - 1)
            ++nBlocks.at(static_cast<size_t>(std::countr_zero(rest)));
    }
    const BitOrder order(nBlocks);
    std::sort(rawIdcs.begin(), rawIdcs.end(), [&](uint64 a, uint64 b) {
        const uint64 ofA = use.getSketch(a), ofB = use.getSketch(b);
        if (ofA != ofB) return order.apply(ofA) > order.apply(ofB);
        return use.getN(a) != use.getN(b) ? use.getN(a) > use.getN(b) : a < b;
    });
    for (size_t first = 0, end = 0; first < rawIdcs.size(); first = end) {
        for (end = first + 1; end < rawIdcs.size() && use.isTogether(rawIdcs[first], rawIdcs[end]);)
            ++end;
        orderExtents(use, rawIdcs.subspan(first, end - first));
    }
}
