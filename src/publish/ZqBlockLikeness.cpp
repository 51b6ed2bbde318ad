#include "ZqBlockLikeness.h"

#include "SxXxh64.h"

#include <algorithm>
#include <limits>

namespace {

constexpr uint32 WINDOW = 32; ///< bytes that a rolling hash of 32 bits knows

/// A number for each byte, from a seed, for the rolling hash.
constexpr std::array<uint32, 256> makeTable() {
    std::array<uint32, 256> table{};
    uint64 state = 0x9E3779B97F4A7C15;
    for (uint32& entry : table) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        entry = static_cast<uint32>(state >> 32);
    }
    return table;
}

constexpr std::array<uint32, 256> TABLE = makeTable();

} // namespace

ZqBlockLikeness::Marks ZqBlockLikeness::of(const char* block) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(block);
    uint32 hash = 0;
    for (uint32 i = 0; i < WINDOW - 1; ++i)
        hash = (hash << 1) + TABLE[bytes[i]];
    // A hash and its place in one number, so that the least needs no branch.
    uint64 least = std::numeric_limits<uint64>::max(), greatest = 0;
    for (uint32 i = WINDOW - 1; i < ZqPatchSide::BLOCK; ++i) {
        hash = (hash << 1) + TABLE[bytes[i]];
        const uint64 key = uint64{hash} << 32 | i;
        least = std::min(least, key);
        greatest = std::max(greatest, key);
    }
    // The least and greatest hashes lie close to each other in all blocks, so another one tells them apart.
    const auto mark = [&](uint64 key) {
        const auto end = static_cast<uint32>(key) + 1;
        return static_cast<uint32>(SxXxh64::of(bytes + end - WINDOW, WINDOW));
    };
    return {mark(least), mark(greatest)};
}

void ZqBlockLikeness::finish(const ZqPatchSide& older) {
    slots = older.getSlots();
    entries.reserve(size_t{older.getNIncluded()} * 2);
    for (uint32 item = 0; item < older.getNItems(); ++item) {
        if (!older.has(item)) continue;
        entries.push_back(item * 2);
        entries.push_back(item * 2 + 1);
    }
    std::sort(entries.begin(), entries.end(), [&](uint32 a, uint32 b) {
        const uint32 markA = markAt(a), markB = markAt(b);
        return markA != markB ? markA < markB : a < b;
    });
}

void ZqBlockLikeness::find(const Marks& wanted, uint32 near, std::vector<uint32>* items) const {
    for (const uint32 mark : wanted) {
        const auto begin = std::partition_point(entries.begin(), entries.end(),
                                                [&](uint32 entry) { return markAt(entry) < mark; });
        const auto end =
            std::partition_point(begin, entries.end(), [&](uint32 entry) { return markAt(entry) == mark; });
        const auto n = static_cast<size_t>(end - begin);
        if (n > N_COMMON) continue;
        // They lie in the order of the image, so the nearest stand together.
        auto first = std::lower_bound(begin, end, near * 2), last = first;
        while (static_cast<size_t>(last - first) < std::min(N_MOST, n)) {
            const bool hasBefore = first != begin, hasAfter = last != end;
            if (hasAfter && (!hasBefore || *last / 2 - near <= near - *(first - 1) / 2)) {
                ++last;
            } else {
                --first;
            }
        }
        for (auto entry = first; entry != last; ++entry)
            items->push_back(*entry / 2);
    }
}
