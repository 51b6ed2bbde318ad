#pragma once

#include "SxString.h"

#include <string>
#include <vector>

/// What is mounted, and its end. Without root everything goes through fusermount3, which unmounts what its
/// user has mounted through FUSE.
namespace Mounts {

/// One line of the kernel's table.
struct Mount {
    uint64 id = 0;
    std::string device;  ///< of the file system, "major:minor"
    std::string root;    ///< what is shown of it, a path from its own root
    std::string at;      ///< mount point
    std::string type;    ///< of the file system
    std::string source;  ///< what was named as the device
    std::string options; ///< of the file system, with commas between
};

/// All mounts, in the order in which they were made. This, and what rests on it, raises where the kernel's
/// table can't be read: that something was unmounted is believed of a table alone that was read to its end.
/// Mount points are compared as texts, so whoever asks for a path names it without links.
std::vector<Mount> all();
/// The mount points below `folder`, the folder itself left out, in the order in which they were made; from
/// the kernel's table.
std::vector<std::string> below(const std::string& folder);

/// Whether something is mounted at `path`.
bool isMounted(const std::string& path);

/// Unmounts what is mounted at `path`, latest first; doesn't raise. 0, or an errno value: EBUSY where it is
/// in use, EINVAL where nothing is mounted there.
int unmount(const std::string& path);
/// Takes it out of the tree at once, whatever uses it.
int detach(const std::string& path);
/// Ends the connection of a FUSE mount, so that everything that waits for it fails; it may stay mounted. That
/// is done by a forced unmount, and not through /sys/fs/fuse, which need not be mounted. Without root it
/// can't be done: there the connection ends when the last user of the detached mount has gone.
void abort(const std::string& path);

} // namespace Mounts
