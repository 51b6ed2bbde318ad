#pragma once

#include "NetOptions.h"
#include "Output.h"

#include <tavrin/SxException.h>

#include <functional>

/// A mount whose drive is fed from a server.
struct FedMount {
    SxString image, url;
    NetOptions net;
    SxString mode, trace; ///< may be empty
    bool noLaunchers = false;
};

/// Mounts, and feeds the drive until somebody unmounts it, or a signal asks for the end, which unmounts it.
/// `tell` is called once when the drive is up. Gives the exit code.
int mountFed(const FedMount& mount, Output& out, const std::function<void()>& tell);

/// Raises a failure of a mount or a run again, with what to do in front of it where a launcher isn't
/// installed, or nobody vouches for the server.
[[noreturn]] void raiseHinted(const SxException& failure);
