#pragma once

#include "SxString.h"

/// The machine's primary screen.
struct ZqScreenFacts {
    /// How long a display may take to tell of it.
    static constexpr int64 LIMIT_MS = 500;

    /// Its size in pixels, "1920 x 1080": as the desktop tells it, else that of the first connector in
    /// `sys/class/drm` below `root` that shows something, else "Unknown". A display that doesn't answer
    /// within LIMIT_MS counts as none, and isn't asked again until it has. Never raises. Safe from any
    /// thread.
    static SxString read(const SxString& root = "/");
};
