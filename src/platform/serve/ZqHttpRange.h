#pragma once

#include "SxTypes.h"

#include <string>
#include <string_view>

/// Bytes of a file, as the field Range of HTTP asks for them (RFC 9110, 14.2).
struct ZqHttpRange {
    enum Kind { None, Satisfiable, Unsatisfiable };

    int64 first = 0, n = 0;

    /// The one range of a Range field for a file of `size` bytes; a field that isn't understood, or has
    /// several, is passed over, as the RFC allows.
    static Kind parse(std::string_view field, int64 size, ZqHttpRange* range);
    /// The field Content-Range that an answer has.
    std::string toField(int64 size) const;
};
