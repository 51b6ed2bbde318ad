#pragma once

#include "SxString.h"

/// The machine's drives.
class ZqDriveFacts {
public:
    /// The name, among the drives, of the file system that holds `path`.
    static SxString nameOf(const SxString& path);
};
