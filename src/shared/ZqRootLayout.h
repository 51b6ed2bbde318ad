#pragma once

#include "SxString.h"

/// The drives that every machine root has. Wine gives a prefix its drives only where it makes the folder of
/// the letters itself, so whoever comes before Wine makes them, too.
class ZqRootLayout {
public:
    /// Makes `drive_c`, the folder `dosdevices` and the letters C: (`drive_c`) and Z: (the whole of the file
    /// system) of the root, a host path, as far as they are missing; without Z: where Wine has been, since
    /// the user may have removed that. Raises where it can't. Safe from any process.
    static void make(const SxString& root);
};
