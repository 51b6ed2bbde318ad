#pragma once

#include "SxString.h"

#include <vector>

/// The machine's graphics cards.
struct ZqGraphicsFacts {
    struct Card {
        SxString name = "Unknown";
        /// The driver and its version, that of the kernel where it has none of its own: "nvidia 535.183.01",
        /// "amdgpu 6.18.0". "Unknown" where no driver serves the card.
        SxString driver = "Unknown";
        int64 memory = 0; ///< bytes of its own; 0 where the driver doesn't tell
    };
    std::vector<Card> cards;
    std::vector<SxString> faults;

    /// Reads `sys/bus/pci/devices` and `sys/class/drm` below `root`, and the names of the machine, or below
    /// another root than "/" those of `usr/share/misc/pci.ids` there. No graphics library is loaded. A
    /// machine without cards has none, which is no fault. Never raises. Safe from any thread.
    static ZqGraphicsFacts read(const SxString& root = "/");
};
