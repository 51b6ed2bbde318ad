#pragma once

#include "SxString.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// The files in which the system tells of the machine, below a root folder: "/", or one that was recorded.
/// Names have no leading slash ("proc/cpuinfo"). Safe from any thread.
class ZqFactFiles {
public:
    /// Largest file that is read, in bytes.
    static constexpr int64 MAX_BYTES = 16 << 20;

    explicit ZqFactFiles(const SxString& root_);

    /// The whole file, whose size the system need not tell. Raises where it can't be read, naming it.
    std::string text(const std::string& name) const;
    /// The first line, without blanks at its end; empty where the file isn't there or can't be read.
    std::string line(const std::string& name) const;
    /// That line as a whole number; nothing where it is none.
    std::optional<int64> number(const std::string& name) const;
    /// What a folder holds, shorter names first and then by their bytes ("cpu2" in front of "cpu10"); empty
    /// where it isn't there or can't be read.
    std::vector<std::string> names(const std::string& folder) const;
    /// The last part of what a link leads to; empty where there is no link.
    std::string target(const std::string& link) const;
    bool exists(const std::string& name) const;
    /// The path of a name, or of an absolute path below the root.
    std::string path(std::string_view name) const;

    /// The lines of a text.
    static std::vector<std::string_view> lines(std::string_view text);
    /// Without blanks at both ends.
    static std::string_view trim(std::string_view text);
    /// A text that is a whole number of at least 0, as decimal digits alone.
    static std::optional<int64> toNumber(std::string_view text);

private:
    std::string root; ///< with a trailing slash
};
