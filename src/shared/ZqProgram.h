#pragma once

#include "SxString.h"

/// Programs of the machine. Safe from any thread as long as none changes the environment.
class ZqProgram {
public:
    /// Whether there is a program that can be started by that name: a path, or a name in the folders of
    /// $PATH (`/usr/bin` and `/bin` where that isn't set).
    static bool isThere(const SxString& name);
};
