#pragma once

#include "SxString.h"

/// Keeps a machine root its owner's where root works in it, as an administrator does who mounts for a player:
/// what this process makes there from now on gets the owner of the folder that it lies in. Else the player's
/// own programs could no longer change it.
class ZqRootOwner {
public:
    /// `root`: the host path of the machine root; of several calls the last one counts. Without effect for
    /// any other user, who can't give files away. Safe from any thread.
    static void keep(const SxString& root);
};
