#pragma once

#include "Builders.h"
#include "ZqMovePlan.h"

#include <algorithm>
#include <numeric>
#include <string>
#include <vector>

/// An order that blocks come from and go to: by position, where the block is now that belongs there.
struct MoveOrder {
    std::string name;
    std::vector<ZqMovePlan::Position> source;
};

inline void PrintTo(const MoveOrder& order, std::ostream* out) {
    *out << order.name << " of " << order.source.size();
}

/// Runs of up to `longest` blocks that follow each other, in random order.
inline MoveOrder orderOfRuns(TestRandom& random, uint32 n, uint32 longest) {
    std::vector<std::pair<uint64, uint32>> runs; // key of the order, first block
    std::vector<uint32> lengths(n, 0);
    for (uint32 first = 0; first < n;) {
        const auto length = static_cast<uint32>(std::min<uint64>(random.between(1, longest), n - first));
        lengths[first] = length;
        runs.emplace_back(random.below(~uint64{0}), first);
        first += length;
    }
    std::sort(runs.begin(), runs.end());
    MoveOrder order{"runs", {}};
    for (const auto& [key, first] : runs) {
        for (uint32 i = 0; i < lengths[first]; ++i)
            order.source.push_back(first + i);
    }
    return order;
}

/// The first `nFront` of `n` blocks in the reverse order, the rest in its place.
inline MoveOrder reversalOfTheFront(uint32 n, uint32 nFront) {
    MoveOrder order{"reversal of the front", std::vector<ZqMovePlan::Position>(n)};
    std::iota(order.source.begin(), order.source.end(), 0);
    std::reverse(order.source.begin(), order.source.begin() + nFront);
    return order;
}

/// All kinds of orders of `n` positions; in the last ones some hold nothing before, after, or both.
inline std::vector<MoveOrder> allMoveOrders(TestRandom& random, uint32 n) {
    std::vector<ZqMovePlan::Position> same(n);
    std::iota(same.begin(), same.end(), 0);
    std::vector<MoveOrder> orders = {{"identity", same}};

    auto source = same;
    for (uint32 i = 0; i + 1 < n; i += 2)
        std::swap(source[i], source[i + 1]);
    orders.push_back({"exchange", source});
    std::reverse_copy(same.begin(), same.end(), source.begin());
    orders.push_back({"reversal", source});
    std::rotate_copy(same.begin(), same.begin() + n / 3, same.end(), source.begin());
    orders.push_back({"rotation", source});
    const SxArray<uint64> walk = random.permutation(n);
    for (uint32 i = 0; i < n; ++i)
        source[walk(i)] = static_cast<uint32>(walk((i + 1) % n));
    orders.push_back({"one cycle", source});
    for (uint32 i = 0; i < n; ++i)
        source[i] = static_cast<uint32>(walk(i));
    orders.push_back({"random", source});
    orders.push_back(orderOfRuns(random, n, 20));
    // The places that hold nothing are others before than after.
    const SxArray<uint64> to = random.permutation(n), from = random.permutation(n);
    source.assign(n, ZqMovePlan::NONE);
    for (uint32 i = n / 3; i < n; ++i)
        source[to(i)] = static_cast<uint32>(from(i));
    orders.push_back({"a third empty", source});
    source.assign(n, ZqMovePlan::NONE);
    for (uint32 i = n / 3; i < n; ++i)
        source[i] = i - n / 3;
    orders.push_back({"all moved up", source});
    return orders;
}
