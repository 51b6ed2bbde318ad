#pragma once

#include "SxString.h"

/// The program that starts Windows programs in Wine's place, such as Proton or `umu-run`. Such a one may put
/// them into a container that sees few folders of the host, so it is told of the drive.
struct ZqAppRunner {
    SxString program;        ///< a path, or a name in the folders of $PATH; empty for Wine itself
    SxString mountPath;      ///< host path of the drive
    bool isWritable = false; ///< whether programs may write to it
};
