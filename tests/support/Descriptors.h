#pragma once

#include "SxTypes.h"

#include <filesystem>

/// How many files this process has open.
inline int64 countDescriptors() {
    namespace fs = std::filesystem;
    return std::distance(fs::directory_iterator("/proc/self/fd"), fs::directory_iterator());
}
