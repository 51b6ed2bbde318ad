#include "ZqSessionCount.h"

#include "SxXxh64.h"

#include <algorithm>

namespace {

constexpr size_t PERCENT_ALIKE = 90;

} // namespace

void ZqSessionCount::add(const std::vector<uint32>& stretches) {
    Signature own;
    own.fill(~uint64{0});
    // Each seed of the hash puts the stretches in another order.
    for (size_t i = 0; i < own.size(); ++i) {
        for (const uint32 stretch : stretches)
            own[i] = std::min(own[i], SxXxh64::of(&stretch, sizeof stretch, i));
    }
    const auto isAlike = [&](const Signature& other) {
        size_t n = 0;
        for (size_t i = 0; i < own.size(); ++i)
            n += own[i] == other[i] ? 1 : 0;
        return 100 * n >= PERCENT_ALIKE * own.size();
    };
    if (std::none_of(sessions.begin(), sessions.end(), isAlike)) sessions.push_back(own);
}
