#pragma once

#include "SxString.h"

/// What a process has from whoever started it. A drive outlives the program that mounted it, so the memory,
/// the freezing, the limits and the end that are meant for that program must not be its drive's. In one small
/// memory group with a program that writes to the drive, the service would wait for ever for memory that its
/// own drive's pages hold.
namespace StarterTies {

/// Moves this process out of its starter's control groups (of both kinds, as near to their root as the system
/// lets it), lifts its resource limits as far as they can be, and takes nice value and OOM score back to the
/// usual. Gives what could not be left, in words; empty where all was. To be called before the first
/// thread, which would stay where it is.
SxString leave();

} // namespace StarterTies
