#pragma once

#include "DirectNote.h"

#include <map>

/// What a service that was killed has left below the service's folder, for the next one before that serves:
/// every mount, loop device, letter and folder, found by its place. Volumes that the kernel serves go on, and
/// are taken over; all else goes.
namespace Leftovers {

/// By device id.
using Disks = std::map<uint64, DirectNote>;

/// Where nothing else is said, `folder` is the service's own, with a trailing slash, and `root` the machine
/// root.

/// Lists the disks that can be taken over.
Disks findServed(const SxString& folder);
/// Lists those of other mount namespaces, which nobody here can take over.
Disks findOthers(const SxString& folder);
/// Removes all but `kept`, and notes whose images that were. Raises where a mount can't be taken away.
void sweep(const SxString& root, const SxString& folder, const Disks& kept);
/// Removes one disk. Raises likewise.
void remove(const SxString& root, const SxString& folder, uint64 deviceId);

} // namespace Leftovers
