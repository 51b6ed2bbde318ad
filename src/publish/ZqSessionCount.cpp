#include "ZqSessionCount.h"

#include <algorithm>

namespace {

constexpr size_t PERCENT_ALIKE = 90;

/// A number's place in an order that is another one for each `salt` (the finalizer of MurmurHash3).
uint32 mix(uint64 number, uint64 salt) {
    number += (salt + 1) * 0x9E3779B97F4A7C15;
    number = (number ^ number >> 33) * 0xFF51AFD7ED558CCD;
    number = (number ^ number >> 33) * 0xC4CEB9FE1A85EC53;
    return static_cast<uint32>(number >> 32);
}

} // namespace

void ZqSessionCount::add(const std::vector<uint32>& stretches) {
    Signature own;
    own.fill(~uint32{0});
    for (size_t i = 0; i < own.size(); ++i) {
        for (const uint32 stretch : stretches)
            own[i] = std::min(own[i], mix(stretch, i));
    }
    const auto isAlike = [&](const Signature& other) {
        size_t n = 0;
        for (size_t i = 0; i < own.size(); ++i)
            n += own[i] == other[i] ? 1 : 0;
        return 100 * n >= PERCENT_ALIKE * own.size();
    };
    if (std::none_of(sessions.begin(), sessions.end(), isAlike)) sessions.push_back(own);
}
