#include "SxXxh64.h"

#include <array>
#include <bit>
#include <cstring>

static_assert(std::endian::native == std::endian::little);

namespace {

constexpr uint64 P1 = 0x9E3779B185EBCA87, P2 = 0xC2B2AE3D27D4EB4F, P3 = 0x165667B19E3779F9,
                 P4 = 0x85EBCA77C2B2AE63, P5 = 0x27D4EB2F165667C5;

template<class T>
T load(const unsigned char* at) noexcept {
    T value;
    std::memcpy(&value, at, sizeof value);
    return value;
}

uint64 mix(uint64 lane, uint64 input) noexcept {
    return std::rotl(lane + input * P2, 31) * P1;
}

uint64 join(uint64 hash, uint64 lane) noexcept {
    return (hash ^ mix(0, lane)) * P1 + P4;
}

} // namespace

uint64 SxXxh64::of(const void* bytes, int64 n, uint64 seed) noexcept {
    const auto* at = static_cast<const unsigned char*>(bytes);
    const unsigned char* const end = at + n;
    uint64 hash = seed + P5;
    if (n >= 32) {
        std::array<uint64, 4> lanes = {seed + P1 + P2, seed + P2, seed, seed - P1};
        for (; end - at >= 32; at += 32) {
            for (size_t i = 0; i < 4; ++i)
                lanes[i] = mix(lanes[i], load<uint64>(at + 8 * i));
        }
        hash = std::rotl(lanes[0], 1) + std::rotl(lanes[1], 7) + std::rotl(lanes[2], 12) +
               std::rotl(lanes[3], 18);
        for (const uint64 lane : lanes)
            hash = join(hash, lane);
    }
    hash += static_cast<uint64>(n);
    for (; end - at >= 8; at += 8)
        hash = std::rotl(hash ^ mix(0, load<uint64>(at)), 27) * P1 + P4;
    if (end - at >= 4) {
        hash = std::rotl(hash ^ load<uint32>(at) * P1, 23) * P2 + P3;
        at += 4;
    }
    for (; at != end; ++at)
        hash = std::rotl(hash ^ *at * P5, 11) * P1;
    hash = (hash ^ hash >> 33) * P2;
    hash = (hash ^ hash >> 29) * P3;
    return hash ^ hash >> 32;
}
