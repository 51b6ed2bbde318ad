#pragma once

#include "SxString.h"

#include <string_view>

/// The moments in UTC that begin the names of files in `runs/`, such as "2026-11-27T12-35-01Z": the order of
/// the names is that of the runs. Safe from any thread.
class ZqRunStamp {
public:
    /// That of `timeMs`, milliseconds since 1970 UTC; or, where the newest such name so far, which may be
    /// empty, doesn't come before it, the second after that one. So the newest stays so where the machine's
    /// clock was set back.
    static SxString next(int64 timeMs, const SxString& newest);
    /// Whether a name looks like `pattern`: where that has 'd' it has a digit, for 'x' a hexadecimal one, and
    /// else the same character.
    static bool matches(const SxString& name, std::string_view pattern);
};
