#pragma once

#include <tavrin/SxList.h>
#include <tavrin/SxString.h>

#include <string>

/// Header lines of requests as options give them.
class HeaderLines {
public:
    /// Adds the line `text` to `lines`, or, where that is `@FILE`, the lines of that file (which may be a
    /// pipe), but for empty ones: what stands there isn't in the list of processes. Raises what goes on after
    /// the option's name, without a line of a file, which may be secret.
    static void take(const std::string& text, SxList<SxString>* lines);
};
