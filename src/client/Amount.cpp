#include "Amount.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <limits>
#include <string_view>

namespace {
constexpr uint64 BITS_OF_BYTE = 8, BITS_OF_MBIT = 1'000'000;
constexpr uint64 MOST = std::numeric_limits<int64>::max();

struct Unit {
    std::string_view name;
    uint64 factor; ///< bits, or bytes
    bool isBits;
};

constexpr std::array<Unit, 14> UNITS = {{{"bit", 1, true},
                                         {"kbit", 1'000, true},
                                         {"Mbit", 1'000'000, true},
                                         {"Gbit", 1'000'000'000, true},
                                         {"B", 1, false},
                                         {"kB", 1'000, false},
                                         {"KB", 1'000, false},
                                         {"MB", 1'000'000, false},
                                         {"GB", 1'000'000'000, false},
                                         {"TB", 1'000'000'000'000, false},
                                         {"KiB", 1ull << 10, false},
                                         {"MiB", 1ull << 20, false},
                                         {"GiB", 1ull << 30, false},
                                         {"TiB", 1ull << 40, false}}};

/// A number in front of a unit. The whole part is kept apart from the rest: a plain count of bytes has more
/// digits than a floating-point number.
struct Number {
    uint64 whole = 0;
    double fraction = 0;
    bool hasFraction = false;
    std::string_view unit;
};

std::optional<Number> parse(std::string_view text) {
    Number number;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number.whole);
    if (error != std::errc()) return std::nullopt;
    const char* at = stop;
    if (at != end && *at == '.') {
        const char* last = std::find_if(at + 1, end, [](char c) { return c < '0' || c > '9'; });
        if (last == at + 1) return std::nullopt;
        number.hasFraction = true;
        // No exponent can stand in there.
        std::from_chars(at, last, number.fraction);
        at = last;
    }
    if (at != end && *at == ' ' && at + 1 != end) ++at;
    number.unit = {at, static_cast<size_t>(end - at)};
    return number;
}

const Unit* findUnit(std::string_view name) {
    const auto* found =
        std::find_if(UNITS.begin(), UNITS.end(), [&](const Unit& u) { return u.name == name; });
    return found == UNITS.end() ? nullptr : &*found;
}

/// Whole `divisor`ths of `number` times `factor`, within the limits.
std::optional<uint64> scaled(const Number& number, uint64 factor, uint64 divisor) {
    if (number.whole > 0 && factor > std::numeric_limits<uint64>::max() / number.whole) return std::nullopt;
    uint64 total = number.whole * factor;
    const auto rest = static_cast<uint64>(std::llround(number.fraction * static_cast<double>(factor)));
    if (rest > std::numeric_limits<uint64>::max() - total) return std::nullopt;
    total = (total + rest) / divisor;
    if (total < 1 || total > MOST) return std::nullopt;
    return total;
}
} // namespace

std::optional<uint64> Amount::rate(const std::string& text) {
    const std::optional<Number> number = parse(text);
    if (!number) return std::nullopt;
    if (number->unit.empty()) return number->hasFraction ? std::nullopt : scaled(*number, 1, 1);
    const Unit* unit = findUnit(number->unit);
    if (!unit) return std::nullopt;
    return scaled(*number, unit->factor, unit->isBits ? BITS_OF_BYTE : 1);
}

std::optional<uint64> Amount::size(const std::string& text) {
    const std::optional<Number> number = parse(text);
    const Unit* unit = number ? findUnit(number->unit) : nullptr;
    return unit && unit->isBits ? std::nullopt : rate(text);
}

std::optional<double> Amount::speed(const std::string& text) {
    const std::optional<Number> number = parse(text);
    if (!number) return std::nullopt;
    const Unit* unit = number->unit.empty() ? findUnit("Mbit") : findUnit(number->unit);
    if (!unit) return std::nullopt;
    const double bits = (static_cast<double>(number->whole) + number->fraction) *
                        static_cast<double>(unit->factor * (unit->isBits ? 1 : BITS_OF_BYTE));
    // As many as a rate may have.
    if (!(bits > 0) || bits > static_cast<double>(MOST) * BITS_OF_BYTE) return std::nullopt;
    return bits / static_cast<double>(BITS_OF_MBIT);
}
