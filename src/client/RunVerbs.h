#pragma once

#include "Output.h"

#include <functional>

/// A mount whose drive is fed from a server.
struct FedMount {
    SxString image, url;
    SxList<SxString> headers;
    SxString mode, trace; ///< may be empty
};

/// Mounts, and feeds the drive until somebody unmounts it, or a signal asks for the end, which unmounts it.
/// `tell` is called once when the drive is up. Gives the exit code.
int mountFed(const FedMount& mount, Output& out, const std::function<void()>& tell);

/// A sentence on what may have been lost with an earlier drive of the image.
SxString lostWritesText(const SxString& image);
