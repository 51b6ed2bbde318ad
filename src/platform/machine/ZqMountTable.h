#pragma once

#include "SxTypes.h"

#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

/// The kernel's table of what is mounted, as `/proc/PID/mountinfo` has it (proc(5)).
class ZqMountTable {
public:
    struct Mount {
        int64 id = 0, parent = 0;
        std::string device; ///< of the file system, "major:minor"
        std::string root;   ///< what is shown of it, a path from its own root
        std::string at;     ///< mount point
        bool isReadOnly = false;
        std::string type;    ///< of the file system
        std::string source;  ///< what was named as the device
        std::string options; ///< of the file system, with commas between
    };

    /// Lines that aren't of that form are left out, and counted.
    explicit ZqMountTable(std::string_view text);

    const std::vector<Mount>& getMounts() const { return mounts; }
    int64 getNBad() const { return nBad; }
    /// The mounts that a look-up of an absolute path without links passes, outermost first: the last one
    /// holds the path. So a mount that another one hides isn't on the way to its own mount point. Empty where
    /// the table leads nowhere. They live as long as the table does.
    std::vector<const Mount*> wayTo(std::string_view path) const;

private:
    bool parse(std::string_view line);

    std::vector<Mount> mounts;
    /// By the id of the mount below and the mount point.
    std::map<std::pair<int64, std::string>, size_t> places;
    int64 nBad = 0;
};
