#pragma once

#include <tavrin/SxTypes.h>

#include <optional>
#include <string>

/// Amounts as people write them: a number, or a number and its unit, as in `20Mbit`, `2.5MB` and `1GiB`.
/// Units are those of bits (`bit`, `kbit`, `Mbit`, `Gbit`) and bytes (`B`, `kB`, `MB`, `GB`, `TB` by
/// thousands; `KiB`, `MiB`, `GiB`, `TiB` by 1024). Case counts, since "Mb" may be either. Each operation
/// gives nothing where the text is no such amount, is less than 1 of what it gives, or more than 2^63 - 1
/// bytes.
class Amount {
public:
    /// Bytes a second; a plain number is whole and counts bytes.
    static std::optional<uint64> rate(const std::string& text);
    /// Bytes; a plain number is whole, and units of bits aren't taken.
    static std::optional<uint64> size(const std::string& text);
    /// Megabit a second (10^6 bits), which may be less than 1; a plain number counts these.
    static std::optional<double> speed(const std::string& text);

    // What each of them takes, for texts.
    static constexpr const char* RATE_TEXT =
        "bytes a second, from 1 to 2^63 - 1, as a whole number or with a unit (20Mbit, 2.5MB, 1GiB)";
    static constexpr const char* SIZE_TEXT =
        "bytes, from 1 to 2^63 - 1, as a whole number or with a unit (500MB, 1.5GiB)";
    static constexpr const char* SPEED_TEXT =
        "Mbit/s, more than 0, as a number or with a unit (20Mbit, 2.5MB)";
};
