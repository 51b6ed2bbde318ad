#include "ZqDriveMeans.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxProcessInfo.h"
#include "ZqProgram.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/utsname.h>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/shared/ZqDriveMeans";
/// The number of the right to mount, and of the device of FUSE.
constexpr unsigned CAP_SYS_ADMIN = 21;
constexpr unsigned MISC_MAJOR = 10, FUSE_MINOR = 229;

/// Where the system doesn't tell, the right counts as given: the mount itself tells.
bool mayMount() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("CapEff:"))
            return (std::strtoull(line.c_str() + std::strlen("CapEff:"), nullptr, 16) >> CAP_SYS_ADMIN) & 1;
    }
    return true;
}

/// Something else may stand under that name, such as /dev/null in a container.
ZqDriveMeans::Machine::Fuse lookAtFuse() {
    struct stat info = {};
    if (::stat("/dev/fuse", &info) != 0 || !S_ISCHR(info.st_mode) ||
        info.st_rdev != makedev(MISC_MAJOR, FUSE_MINOR))
        return ZqDriveMeans::Machine::Absent;
    const int fd = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
    if (fd < 0)
        return errno == ENODEV || errno == ENXIO ? ZqDriveMeans::Machine::Absent
                                                 : ZqDriveMeans::Machine::Closed;
    ::close(fd);
    return ZqDriveMeans::Machine::Open;
}

bool hasWord(const std::string& file, const std::string& word, bool isWhole) {
    std::ifstream lines(file);
    for (std::string line; std::getline(lines, line);) {
        if (isWhole ? line == "\t" + word || line == "nodev\t" + word : line.find(word) != std::string::npos)
            return true;
    }
    return false;
}

/// A module is loaded by the mount. In a container the list of modules may be missing, and they are loaded
/// all the same.
bool knowsFileSystem(const char* type) {
    if (hasWord("/proc/filesystems", type, true)) return true;
    if (!SxFSAction::exists("/proc/modules")) return false;
    struct utsname system = {};
    if (::uname(&system) != 0) return true;
    const std::string list = std::string("/lib/modules/") + system.release + "/modules.dep";
    return !SxFSAction::exists(list) || hasWord(list, std::string("/") + type + ".ko", false);
}

} // namespace

ZqDriveMeans::Machine ZqDriveMeans::look() {
    Machine machine;
    machine.isRoot = SxProcessInfo::ownUser() == 0;
    machine.mayMount = machine.isRoot && ::mayMount();
    machine.fuse = lookAtFuse();
    machine.hasLoop = SxFSAction::exists("/dev/loop-control");
    machine.knows = knowsFileSystem;
    machine.isProgram = [](const char* name) { return ZqProgram::isThere(name); };
    return machine;
}

SxString ZqDriveMeans::typeOf(std::string_view begin) {
    const auto has = [&](size_t at, std::string_view magic) {
        return begin.size() >= at + magic.size() && begin.substr(at, magic.size()) == magic;
    };
    constexpr size_t SUPERBLOCK = 1024, EXT4_MAGIC = SUPERBLOCK + 56;
    if (has(SUPERBLOCK, "\xe2\xe1\xf5\xe0")) return "erofs";
    if (has(EXT4_MAGIC, "\x53\xef")) return "ext4";
    if (has(0, "hsqs")) return "squashfs";
    return {};
}

SxString ZqDriveMeans::driverOf(const SxString& type) {
    return type == "ext4" ? "fuse2fs" : "squashfuse";
}

ZqMeans ZqDriveMeans::getRights() const {
    if (!machine.isRoot) {
        return {"rights", false, false,
                "This user isn't root: images with EROFS, and titles whose saved files are kept apart, can't "
                "be mounted",
                "run as root where you need these"};
    }
    if (machine.mayMount) return {"rights", true, true, "Root may mount drives", {}};
    return {"rights", false, true, "Root lacks the right to mount here (CAP_SYS_ADMIN), as in a container",
            "run outside of the container, or give it that right"};
}

ZqMeans ZqDriveMeans::getFuse() const {
    if (machine.fuse == Machine::Open)
        return {"fuse", true, true, "/dev/fuse is there and may be opened", {}};
    const SxString exception =
        machine.isRoot ? ", unless the kernel serves it by itself, as it does complete images with EROFS"
                       : "";
    if (machine.fuse == Machine::Absent) {
        return {
            "fuse", false, true, "There is no device /dev/fuse, which a drive needs" + exception,
            "load the kernel's module with 'modprobe fuse' as root; a container has to be given the device"};
    }
    if (machine.isRoot) {
        return {"fuse", false, true, "/dev/fuse may not be opened here, which a drive needs" + exception,
                "give the container the device"};
    }
    return {"fuse", false, true, "Mounting without root needs a /dev/fuse that users may open",
            "run as root, or let root do 'chmod 666 /dev/fuse'"};
}

ZqMeans ZqDriveMeans::getVolume(const SxString& type) const {
    const SxString shown = type == "erofs" ? SxString("EROFS") : type;
    if (machine.isRoot) {
        if (machine.knows(type.ascii())) return {type, true, true, "The kernel mounts " + shown, {}};
        return {type, false, true, "The kernel has no file system " + shown,
                "use a kernel that has it, or ask the publisher for an image with another file system"};
    }
    if (type == "erofs") {
        return {type, false, true, "An EROFS volume can't be mounted without root",
                "run as root, or ask the publisher for an image that is built with --fs ext4"};
    }
    const SxString program = driverOf(type);
    if (machine.isProgram(program.ascii())) return {type, true, true, program + " mounts " + shown, {}};
    return {type, false, true, "Mounting a volume of type " + type + " without root needs " + program,
            "run as root, or install the package of that name"};
}

ZqMeans ZqDriveMeans::getLoop() const {
    if (machine.hasLoop) return {"loop", true, true, "There are loop devices", {}};
    return {"loop", false, true,
            "There is no device /dev/loop-control, which an ext4 or squashfs drive needs",
            "load the kernel's module with 'modprobe loop' as root; a container has to be given the device"};
}

ZqMeans ZqDriveMeans::getFusermount() const {
    if (machine.isProgram("fusermount3")) return {"fusermount3", true, true, "fusermount3 is there", {}};
    return {"fusermount3", false, true, "Mounting without root needs fusermount3",
            "run as root, or install the package fuse3"};
}

ZqMeans ZqDriveMeans::getRedirection() const {
    if (machine.isRoot)
        return {"redirection", true, true, "Root may redirect folders and files of a drive", {}};
    return {"redirection", false, true, "Folders and files of a drive can be redirected by root alone",
            "run as root"};
}

SxList<ZqMeans> ZqDriveMeans::forVolume(const SxString& type, bool isDirect) const {
    SxList<ZqMeans> all;
    if (machine.isRoot) {
        all << getRights();
        if (!isDirect) all << getFuse();
        if (!type.isEmpty()) all << getVolume(type);
        if (type == "ext4" || type == "squashfs") all << getLoop();
        return all;
    }
    // Neither what is missing otherwise nor its remedy would help.
    if (type == "erofs") return {getVolume(type)};
    all << getFuse() << getFusermount();
    if (!type.isEmpty()) all << getVolume(type);
    return all;
}

void ZqDriveMeans::require(const SxList<ZqMeans>& all) {
    for (const ZqMeans& each : all) {
        if (each.isThere || !each.isNeeded) continue;
        throw SxException(each.text + ": " + each.remedy, UNIT, __LINE__);
    }
}
