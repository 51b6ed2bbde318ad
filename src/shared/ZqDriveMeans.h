#pragma once

#include "SxList.h"
#include "ZqMeans.h"

#include <functional>
#include <string_view>

/// What the drive service needs of the machine and of its user to mount the volume of an image. Root mounts
/// by the kernel; other users by programs of their own, which not every file system has. Looks once, when it
/// is made; from then on it is a value.
class ZqDriveMeans {
public:
    /// What is looked at.
    struct Machine {
        bool isRoot = false;
        bool mayMount = false; ///< root has the right to (CAP_SYS_ADMIN), which a container takes from it
        enum Fuse { Absent, Closed, Open } fuse = Absent; ///< whether /dev/fuse may be opened
        bool hasLoop = false;                             ///< whether /dev/loop-control is there
        std::function<bool(const char* type)> knows;      ///< whether the kernel has a file system
        std::function<bool(const char* name)> isProgram;  ///< whether there is a program
    };
    /// This machine, for the user of this process.
    static Machine look();

    explicit ZqDriveMeans(Machine machine_ = look()) : machine(std::move(machine_)) {}

    /// The file system that the first 4096 bytes of a RAW image are of: "erofs", "ext4" or "squashfs"; empty
    /// where it is none that can be mounted.
    static SxString typeOf(std::string_view begin);

    /// The program by which a user who isn't root mounts a volume of that type.
    static SxString driverOf(const SxString& type);

    bool isRoot() const noexcept { return machine.isRoot; }

    /// The rights of the user.
    ZqMeans getRights() const;
    /// The device through which the service shows a disk.
    ZqMeans getFuse() const;
    /// What mounts a volume of that type: the kernel, or a program of the user's.
    ZqMeans getVolume(const SxString& type) const;
    /// What a file becomes a block device by.
    ZqMeans getLoop() const;
    /// What a user needs who isn't root, but for what getVolume() tells.
    ZqMeans getFusermount() const;
    /// Folders and files that outlive the drive.
    ZqMeans getRedirection() const;

    /// What a volume of that type needs, in the order in which it is worth to be told; an empty type stands
    /// for one that isn't known yet. `isDirect`: the kernel may serve it without the service.
    SxList<ZqMeans> forVolume(const SxString& type, bool isDirect) const;
    /// Raises, in one sentence that says what is missing and what to do, where the first of these is.
    static void require(const SxList<ZqMeans>& all);

private:
    Machine machine;
};
