#include "ZqOrderTail.h"

#include <algorithm>
#include <array>
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
        if (use.getN(a) != use.getN(b)) return use.getN(a) > use.getN(b);
        return use.isEarlier(a, b);
    });
}
