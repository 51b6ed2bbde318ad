#pragma once

#include "SxException.h"

#include <concepts>
#include <utility>
#include <variant>

/// A value of type bool, signed 64-bit integer, double or text, made implicitly from any of C++'s own number
/// types; it carries values into JSON elements. A value type. Not locked.
class SxVariant {
public:
    using Value = std::variant<bool, int64, double, SxString>;

    template<std::same_as<bool> T>
    SxVariant(T flag) : value(std::in_place_type<bool>, flag) {}
    /// Raises on an unsigned number above 2^63-1.
    template<std::integral T>
    requires(!std::same_as<T, bool> && !std::same_as<T, char>) SxVariant(T number)
        : value(std::in_place_type<int64>, static_cast<int64>(number)) {
        if (!std::in_range<int64>(number)) {
            throw SxException(SxString(number) + " is above the largest signed 64-bit integer",
                              "src/core/SxVariant", __LINE__);
        }
    }
    template<std::floating_point T>
    SxVariant(T number) : value(std::in_place_type<double>, number) {}
    SxVariant(const char* utf8) : value(std::in_place_type<SxString>, utf8) {}
    SxVariant(SxString text) : value(std::in_place_type<SxString>, std::move(text)) {}

    const Value& getValue() const noexcept { return value; }

    bool operator==(const SxVariant&) const = default;

private:
    Value value;
};
