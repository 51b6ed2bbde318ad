#pragma once

#include "SxString.h"

#include <variant>
#include <vector>

/// A TOML file as the keys of its top level, which is all that files of settings have.
class ZqTomlFile {
public:
    struct Entry {
        SxString key;
        int64 line = 0; ///< of the file, from 1
        /// None where it is of another type: a number with a fraction, a time, a list, a table.
        std::variant<std::monostate, bool, int64, SxString> value;
    };
    /// Gives the keys of `file` by their lines. Raises naming the file, and the line where there is one,
    /// where it can't be read, holds more than `maxBytes`, or isn't TOML. Safe from any thread.
    static std::vector<Entry> read(const SxString& file, int64 maxBytes);
    /// The same of a text; failures name it `file`.
    static std::vector<Entry> parse(const SxString& text, const SxString& file);
    /// A failure at a line of a file, in the form of those of read().
    [[noreturn]] static void refuse(const SxString& file, int64 line, const SxString& why);
};
