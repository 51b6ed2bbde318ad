#include "HelperOps.h"

#include "CacheTrust.h"
#include "Helper.h"
#include "LayerIdentity.h"
#include "Mounts.h"
#include "Redirection.h"
#include "SxException.h"
#include "SxFileInfo.h"
#include "SxOs.h"
#include "ZqBlocks.h"
#include "ZqRootOwner.h"
#include "ZqServiceFolder.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/fs.h>
#include <linux/loop.h>
#include <set>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/driver/HelperOps";
constexpr const char* BDI = "/sys/class/bdi/";

[[noreturn]] void fail(const SxString& what, int error) {
    throw SxException(what + ": " + SxOs::errorText(error), UNIT, __LINE__);
}

/// A descriptor that is closed at the end of its scope.
class Descriptor {
public:
    Descriptor(const std::string& path, int flags) : fd(::open(path.c_str(), flags | O_CLOEXEC)) {
        if (fd < 0) fail("Cannot open '" + SxString(path) + "'", errno);
    }
    ~Descriptor() { ::close(fd); }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd; }

private:
    int fd;
};

/// Nothing where the system shows no such folder. One that can't be read raises: compared with a later look,
/// all that is in it would seem to have come meanwhile.
std::set<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    const int error = SxOs::get().list(folder, &names);
    if (error < 0 && error != -ENOENT) fail("Cannot read '" + SxString(folder) + "'", -error);
    return {names.begin(), names.end()};
}

/// Sets the read-ahead of the devices that have come since `before` was taken. EROFS numbers its settings
/// itself and doesn't tell which one belongs to which mount, so those count that came with this mount. Where
/// two mounts were made at the same moment the settings of both get the value. Gives the names of those
/// devices, with blanks between.
std::string setReadAhead(const std::set<std::string>& before, const std::string& kb) {
    std::string names;
    for (const std::string& name : namesIn(BDI)) {
        if (before.count(name) != 0) continue;
        std::ofstream(BDI + name + "/read_ahead_kb") << kb;
        HelperOps::tell("readahead", BDI + name + "/read_ahead_kb");
        names += (names.empty() ? "" : " ") + name;
    }
    return names;
}

/// Writes a setting of the kernel; raises where it doesn't take it.
void writeSetting(const std::string& path, const std::string& value) {
    const Descriptor file(path, O_WRONLY);
    if (::write(file.get(), value.data(), value.size()) < 0)
        fail("Cannot write '" + SxString(path) + "'", errno);
}

/// Attaches a free loop device to the file; gives its path. `*fd` keeps it alive until it is mounted: it
/// detaches itself when its last user has gone (LO_FLAGS_AUTOCLEAR). It uses direct I/O, since what is read
/// lies in the volume's cache. Its sectors have the size of a block, the smallest unit that is stored.
std::string attachLoop(const std::string& file, bool readOnly, int* fd) {
    const Descriptor control("/dev/loop-control", O_RDWR);
    const Descriptor backing(file, readOnly ? O_RDONLY : O_RDWR);
    for (int tries = 0; tries < 64; ++tries) {
        const int number = ::ioctl(control.get(), LOOP_CTL_GET_FREE);
        if (number < 0) fail("No free loop device", errno);
        std::string path = "/dev/loop" + std::to_string(number);
        *fd = ::open(path.c_str(), (readOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
        if (*fd < 0) fail("Cannot open '" + SxString(path) + "'", errno);
        loop_config config = {};
        config.fd = static_cast<uint32>(backing.get());
        config.block_size = ZqBlocks::SIZE;
        config.info.lo_flags = LO_FLAGS_DIRECT_IO | LO_FLAGS_AUTOCLEAR;
        if (readOnly) config.info.lo_flags |= LO_FLAGS_READ_ONLY;
        file.copy(reinterpret_cast<char*>(config.info.lo_file_name), LO_NAME_SIZE - 1);
        if (::ioctl(*fd, LOOP_CONFIGURE, &config) == 0) return path;
        const int error = errno;
        ::close(*fd);
        // Another process was faster.
        if (error != EBUSY) fail("Cannot attach '" + SxString(path) + "' to the disk", error);
    }
    throw SxException("No free loop device", UNIT, __LINE__);
}

/// The options that a file system is mounted with; ours, not the image's.
std::string optionsFor(const std::string& type, bool readOnly) {
    if (type != "ext4") return {};
    return readOnly ? "errors=remount-ro,noload" : "errors=remount-ro";
}

void mountLoop(const std::string& file, const std::string& folder, const std::string& type, bool readOnly,
               const std::string& kb) {
    int fd = -1;
    const std::string loop = attachLoop(file, readOnly, &fd);
    std::ofstream("/sys/block/" + loop.substr(5) + "/queue/read_ahead_kb") << kb;
    // Without access times, reading writes nothing to a drive that may be written to.
    unsigned long flags = MS_NOSUID | MS_NODEV | MS_NOATIME;
    if (readOnly) flags |= MS_RDONLY;
    const int result =
        ::mount(loop.c_str(), folder.c_str(), type.c_str(), flags, optionsFor(type, readOnly).c_str());
    const int error = errno;
    ::close(fd);
    if (result != 0) fail("Cannot mount the " + SxString(type) + " volume", error);
    HelperOps::tell("loop", loop);
    HelperOps::tell("readahead", "/sys/block/" + loop.substr(5) + "/queue/read_ahead_kb");
}

/// Mounts a file system (EROFS) on the FUSE file itself: a loop device between them would cost half of the
/// throughput. The price is that the drive takes no direct I/O (O_DIRECT), which the kernel gives to EROFS on
/// block devices alone.
void attachFile(const std::string& file, const std::string& folder, const std::string& type,
                const std::string& kb) {
    const std::set<std::string> before = namesIn(BDI);
    if (::mount(file.c_str(), folder.c_str(), type.c_str(), MS_NOSUID | MS_NODEV | MS_RDONLY, nullptr) != 0) {
        // Kernels before 6.12 want a block device.
        if (errno == ENOTBLK) {
            HelperOps::tell("needsLoop", "");
            return;
        }
        fail("Cannot mount the " + SxString(type) + " volume", errno);
    }
    setReadAhead(before, kb);
}

/// Raises where reads of a file can't pass the page cache by. The kernel would read through it then, and say
/// nothing.
void requireDirectReads(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_DIRECT | O_CLOEXEC);
    if (fd < 0) fail("The image's file takes no direct reads", errno);
    ::close(fd);
}

void attachDirect(const SxList<SxString>& words) {
    const std::string &folder = words(1).str(), &kb = words(2).str();
    const std::string metadata = "/proc/self/fd/" + std::to_string(Helper::FIRST_FILE);
    const std::string blocks = "/proc/self/fd/" + std::to_string(Helper::FIRST_FILE + 1);
    const bool isCached = words(3) == "cached" && CacheTrust::isEarned(Helper::FIRST_FILE);
    if (!isCached) requireDirectReads(blocks);
    const std::set<std::string> before = namesIn(BDI);
    // Without the device the kernel would mount all the same, and read the blocks from the metadata.
    const std::string options = "device=" + blocks + (isCached ? "" : ",directio");
    const int error = ::mount(metadata.c_str(), folder.c_str(), "erofs", MS_NOSUID | MS_NODEV | MS_RDONLY,
                              options.c_str()) == 0
                          ? 0
                          : errno;
    if (error == ENOTBLK || error == ENODEV) {
        HelperOps::tell("unable", SxOs::errorText(error).str());
        return;
    }
    if (error != 0) fail("The kernel doesn't take the image", error);
    HelperOps::tell("names", setReadAhead(before, kb));
    HelperOps::tell("cached", isCached ? "yes" : "no");
}

void attach(const SxList<SxString>& words) {
    const std::string &how = words(1).str(), &file = words(2).str(), &folder = words(3).str();
    const std::string &type = words(4).str(), &kb = words(6).str();
    if (how == "file") {
        attachFile(file, folder, type, kb);
    } else {
        mountLoop(file, folder, type, words(5) == "ro", kb);
    }
}

/// Opens a file system's root to sync it. Where that fails, says so, as for a sync that fails.
int openToSync(const std::string& folder) {
    const int fd = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) HelperOps::tell("unsynced", SxOs::errorText(errno).str());
    return fd;
}

/// Has what programs wrote to the file system written to its disk. A failure is told of, and the unmount goes
/// on: a drive must not stay for it.
void syncAndClose(int fd) {
    if (fd < 0) return;
    if (::syncfs(fd) != 0) HelperOps::tell("unsynced", SxOs::errorText(errno).str());
    ::close(fd);
}

/// Unmounts what is mounted at `folder`; where it is in use, detaches it. Gives whether it was in use.
bool unmount(const std::string& folder) {
    int error = Mounts::unmount(folder);
    if (error == 0 || error == EINVAL || error == ENOENT) return false;
    if (error != EBUSY) fail("Cannot unmount '" + SxString(folder) + "'", error);
    error = Mounts::detach(folder);
    if (error != 0 && error != EINVAL) fail("Cannot detach '" + SxString(folder) + "'", error);
    return true;
}

/// The same for the volume, which goes with its disk.
bool unmountVolume(const std::string& folder) {
    if (!Mounts::isMounted(folder)) return false;
    // The end of this mount needn't be that of the file system: a copy of the mount in another mount
    // namespace keeps it alive. The disk goes all the same, and what the file system hasn't written by then
    // is lost.
    syncAndClose(openToSync(folder));
    int error = Mounts::unmount(folder);
    if (error == 0 || error == EINVAL || error == ENOENT) return false;
    if (error != EBUSY) fail("Cannot unmount '" + SxString(folder) + "'", error);
    const int fd = openToSync(folder);
    error = Mounts::detach(folder);
    // What its users have written meanwhile. Nobody finds the way to it now.
    syncAndClose(fd);
    if (error != 0 && error != EINVAL) fail("Cannot detach '" + SxString(folder) + "'", error);
    return true;
}

/// Unmounts all that is mounted below `folder`, the latest first.
bool unmountBelow(const std::string& folder) {
    std::vector<std::string> mounts = Mounts::below(folder);
    bool busy = false;
    std::reverse(mounts.begin(), mounts.end());
    for (const std::string& mount : mounts)
        busy = unmount(mount) || busy;
    return busy;
}

/// Writes out what lies in memory of a volume that has gone from this mount namespace while somebody still
/// uses it: another namespace, or whoever has a file open on a volume that was detached, as by `umount -l`.
/// Its loop device is the way to it, and is asked first which file it was attached to, since its number may
/// be another program's by now. Gives whether there is such a user. The device is never freed by its number;
/// it goes with its last user by itself.
bool flushHeld(const std::string& loop, const std::string& file) {
    const int fd = ::open(loop.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENOENT || errno == ENXIO || errno == ENODEV) return false;
        fail("Cannot open '" + SxString(loop) + "'", errno);
    }
    // It is known by the name that it was attached with: where the file was unmounted, too, the path that the
    // system shows is another one.
    loop_info64 info = {};
    int error = ::ioctl(fd, LOOP_GET_STATUS64, &info) == 0 ? 0 : errno;
    const std::string name(reinterpret_cast<const char*>(info.lo_file_name));
    const bool isOurs = error == 0 && name == file.substr(0, LO_NAME_SIZE - 1);
    if (isOurs && ::ioctl(fd, BLKFLSBUF) != 0) HelperOps::tell("unsynced", SxOs::errorText(errno).str());
    ::close(fd);
    // It has no file.
    if (error == ENXIO) error = 0;
    if (error != 0) fail("Cannot look at '" + SxString(loop) + "'", error);
    return isOurs;
}

void detach(const SxList<SxString>& words) {
    const std::string &volume = words(1).str(), &loop = words(2).str(), &file = words(3).str();
    if (!Mounts::isMounted(volume)) HelperOps::tell("unmounted", "");
    bool busy = unmountBelow(volume);
    busy = unmountVolume(volume) || busy;
    if (loop != "-") busy = flushHeld(loop, file) || busy;
    if (busy) HelperOps::tell("busy", "");
}

/// Takes away what a service has left, found by its place alone: every mount below the folder. Loop devices
/// go with the mounts that use them.
void sweep(const SxList<SxString>& words) {
    const std::string& folder = words(1).str();
    std::vector<std::string> mounts = Mounts::below(folder);
    const auto isFront = [](const std::string& mount) {
        return mount.ends_with(std::string("/") + ZqServiceFolder::FRONT);
    };
    // A connection whose service is stuck must be ended first, or unmounting would wait for it.
    // Only these: what is bound in may lie on a file system that others use.
    for (const std::string& mount : mounts) {
        if (isFront(mount)) Mounts::abort(mount);
    }
    mounts = Mounts::below(folder);
    std::reverse(mounts.begin(), mounts.end());
    bool busy = false;
    for (const std::string& mount : mounts) {
        // The front is used by what is mounted from it, which says nothing of programs.
        int error = Mounts::unmount(mount);
        busy = busy || (error == EBUSY && !isFront(mount));
        if (error != 0) error = Mounts::detach(mount);
        if (error != 0 && error != EINVAL && error != ENOENT)
            fail("Cannot detach '" + SxString(mount) + "'", error);
    }
    if (busy) HelperOps::tell("busy", "");
}

} // namespace

void HelperOps::tell(const std::string& name, const std::string& value) {
    const std::string line = name + " " + value + "\n";
    [[maybe_unused]] const ssize_t written = ::write(STDOUT_FILENO, line.data(), line.size());
}

void HelperOps::run(const SxList<SxString>& arguments) {
    const auto is = [&](const char* name, int64 least) {
        return arguments.getSize() >= least && arguments(0) == name;
    };
    if (is("attach", 7)) {
        attach(arguments);
    } else if (is("attachDirect", 4)) {
        attachDirect(arguments);
    } else if (is("detach", 4)) {
        detach(arguments);
    } else if (is("redirect", 5)) {
        SxList<SxString> names;
        for (int64 i = 4; i < arguments.getSize(); ++i)
            names.append(arguments(i));
        // The private side, in a process that knows no machine root.
        ZqRootOwner::keep(SxFileInfo(arguments(2)).getPath());
        // Read here from the image's records, since the control library's calls have no place for it.
        const std::string version = LayerIdentity::of(arguments(3).str()).toText();
        const std::string aside = Redirection::apply(arguments(1), arguments(2), names, version);
        if (!aside.empty()) tell("aside", aside);
    } else if (is("restore", 2)) {
        if (unmountBelow(arguments(1).str())) tell("busy", "");
    } else if (is("readahead", 3)) {
        writeSetting(arguments(1).str(), arguments(2).str());
    } else if (is("sweep", 2)) {
        sweep(arguments);
    } else {
        throw SxException("No such operation", UNIT, __LINE__);
    }
}
