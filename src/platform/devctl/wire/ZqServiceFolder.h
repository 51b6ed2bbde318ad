#pragma once

#include "SxString.h"

#include <string>
#include <string_view>

/// The folder of the drive service of one machine root: what its clients and the service itself find there.
/// Below `/run/tavrin` for root, else below `/run/user/UID/tavrin`, `$XDG_RUNTIME_DIR/tavrin` or
/// `/tmp/tavrin-UID`; only its user can look into it.
class ZqServiceFolder {
public:
    static constexpr const char* SOCKET = "socket";
    /// Held by whoever starts the service, and by the service while it ends.
    static constexpr const char* START_LOCK = "start.lock";
    /// Held by the service for its whole life.
    static constexpr const char* LIFE_LOCK = "service.lock";
    /// Why the service could not start.
    static constexpr const char* START_FAILURE = "start.failure";
    static constexpr const char* DISK_TABLE = "disks";
    /// Images whose drives a killed service left, a line each.
    static constexpr const char* LEFT = "left";
    /// Holds one folder for each disk, named after its device id.
    static constexpr const char* MOUNTS = "mnt";
    static constexpr const char* VOLUME = "volume";     ///< where a disk's volume is mounted
    static constexpr const char* FRONT = "front";       ///< where a disk is served as a file
    static constexpr const char* DISK_FILE = "disk";    ///< that file
    static constexpr const char* IMAGE = "image";       ///< path of the disk's image folder
    static constexpr const char* IDENTITY = "identity"; ///< vendor, product, target id, a line each
    /// There until a volume that may be written to is unmounted: what programs wrote may not be on the disk
    /// yet.
    static constexpr const char* WRITTEN = "written";
    /// Locked while a helper mounts something that doesn't end with the service: a call that is under way in
    /// the kernel comes to its end also where its process is killed.
    static constexpr const char* MOUNTING = "mounting";
    /// Begins the name of a note on a volume that the kernel serves without the service: what the next
    /// service takes it over by.
    static constexpr const char* DIRECT = "direct.";
    /// What the kernel calls the file system of such a volume, for as long as it has that; names that came at
    /// the same moment stand there, too, with blanks between.
    static constexpr const char* KERNEL = "kernel";

    static constexpr const char* VENDOR = "VOLM";
    static constexpr const char* PRODUCT = "ZqDD";

    /// The folder's host path with a trailing slash and no link in it, for the machine root with that host
    /// path. Neither need exist; a root that is made later keeps its folder.
    static std::string of(const std::string& machineRoot);
    /// A mount namespace; zeros where the system tells none.
    struct Namespace {
        uint64 device = 0, inode = 0;
        bool operator==(const Namespace&) const = default;
    };
    /// That of this process.
    static Namespace mountNamespace();
    /// The whole name of that note. It has the mount namespace of this process, outside of which the volume
    /// can't be seen.
    static std::string directName();
    /// Whether that is the whole name of such a note, in whatever namespace.
    static bool isDirectName(std::string_view name);
    /// Whether a service that has ended left drives in such a folder, and in this mount namespace, that the
    /// kernel still serves.
    static bool hasServedDrives(const std::string& folder);
    /// Whether a path lies in such a folder, of whatever user and machine root, by its look alone: below a
    /// folder "tavrin" or "tavrin-UID" and one that is named by 16 hexadecimal digits.
    static bool isBelow(std::string_view path);
    /// Makes the folder where it is missing, and raises unless it belongs to the user alone.
    static void make(const std::string& folder);
};
