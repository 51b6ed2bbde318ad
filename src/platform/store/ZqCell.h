#pragma once

#include "SxTypes.h"

#include <string_view>

/// One column of a table.
struct ZqColumn {
    enum Type {
        Text,  ///< UTF-8
        Whole, ///< a signed 64-bit number
        Real,  ///< a double
        Flag   ///< true or false
    };
    const char* name;
    Type type;
};

/// A value on its way into a table, or none. A plain value; whoever fills it keeps the bytes of its text.
struct ZqCell {
    bool isSet = false;
    int64 whole = 0; ///< also a flag, as 0 or 1
    double real = 0;
    std::string_view text;
};
