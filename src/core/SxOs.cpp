#include "SxOs.h"

#include "SxException.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/uio.h>
#include <sys/vfs.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/core/SxOs";

int status(int result) {
    return result < 0 ? -errno : result;
}

void fill(const struct ::stat& from, SxStat* to) {
    to->kind = S_ISREG(from.st_mode)   ? SxStat::File
               : S_ISDIR(from.st_mode) ? SxStat::Dir
               : S_ISLNK(from.st_mode) ? SxStat::Link
                                       : SxStat::Other;
    to->isRemoval = S_ISCHR(from.st_mode) && from.st_rdev == 0;
    to->size = from.st_size;
    to->nNames = static_cast<int64>(from.st_nlink);
    to->allocated = from.st_blocks * 512;
    to->device = from.st_dev;
    to->inode = from.st_ino;
    to->permissions = from.st_mode & 07777;
    to->owner = from.st_uid;
    to->group = from.st_gid;
    to->modifiedMs = from.st_mtim.tv_sec * 1000 + from.st_mtim.tv_nsec / 1'000'000;
    to->modifiedNs = from.st_mtim.tv_sec * 1'000'000'000 + from.st_mtim.tv_nsec;
}

/// The times of a file as the system takes them: that of access stays.
std::array<struct ::timespec, 2> modifiedAt(int64 modifiedNs) {
    constexpr int64 SECOND = 1'000'000'000;
    const int64 rest = ((modifiedNs % SECOND) + SECOND) % SECOND; // also before 1970
    return {{{0, UTIME_OMIT}, {(modifiedNs - rest) / SECOND, rest}}};
}

int systemFlags(unsigned flags) {
    const bool read = flags & SxOs::Read, write = flags & (SxOs::Write | SxOs::Append);
    // Without O_NONBLOCK, whoever opens a pipe that a file was replaced by waits for its other end.
    int result = O_CLOEXEC | O_NONBLOCK | (read && write ? O_RDWR : write ? O_WRONLY : O_RDONLY);
    if (flags & SxOs::Append) result |= O_APPEND;
    if (flags & SxOs::Create) result |= O_CREAT;
    if (flags & SxOs::Truncate) result |= O_TRUNC;
    if (flags & SxOs::Exclusive) result |= O_EXCL;
    if (flags & SxOs::NoFollow) result |= O_NOFOLLOW;
    if (flags & SxOs::Directory) result |= O_DIRECTORY;
    return result;
}

/// Opens a file. Whoever looks whether it is open (isOpen()) holds a lease on it for an instant, whose end an
/// open with O_NONBLOCK doesn't wait for.
int openPatiently(int folder, const std::string& name, unsigned flags, unsigned permissions) {
    constexpr int N_TRIES = 100;
    constexpr std::chrono::milliseconds PAUSE{1};
    for (int i = 1;; ++i) {
        const int fd =
            status(folder == AT_FDCWD ? ::open(name.c_str(), systemFlags(flags), permissions)
                                      : ::openat(folder, name.c_str(), systemFlags(flags), permissions));
        if (fd != -EAGAIN || i == N_TRIES) return fd;
        std::this_thread::sleep_for(PAUSE);
    }
}

/// Whether the file lies on a file system whose leases tell what its server grants, and not who has the file
/// open here.
bool hasServerLeases(int fd) {
    struct ::statfs info {};
    if (::fstatfs(fd, &info) < 0) return false;
    const auto type = static_cast<uint32>(info.f_type);
    return type == NFS_SUPER_MAGIC || type == CIFS_SUPER_MAGIC || type == SMB2_SUPER_MAGIC;
}

std::atomic<SxOs::OwnerHook> ownerHook{nullptr};

/// Whose a new name at a path is to be.
class NewOwner {
public:
    explicit NewOwner(const std::string& path) {
        const SxOs::OwnerHook hook = ownerHook.load(std::memory_order_acquire);
        isOther = hook && hook(path, &owner, &group);
    }
    bool isNeeded() const { return isOther; }
    void take(int fd) const {
        if (::fchown(fd, owner, group) < 0) errno = 0;
    }
    /// Hands the result of making the name on.
    int take(const std::string& path, int result) const {
        if (result == 0 && isOther && ::lchown(path.c_str(), owner, group) < 0) errno = 0;
        return result;
    }

private:
    bool isOther = false;
    uint32 owner = 0, group = 0;
};

class Machine : public SxOs {
public:
    int open(const std::string& path, unsigned flags, unsigned permissions) override {
        if ((flags & Create) != 0) {
            const NewOwner owner(path);
            if (owner.isNeeded()) return openFor(owner, path, flags, permissions);
        }
        return openPatiently(AT_FDCWD, path, flags, permissions);
    }
    int openIn(int folder, const std::string& name, unsigned flags, unsigned permissions) override {
        return openPatiently(folder, name, flags, permissions);
    }
    int close(int fd) override { return status(::close(fd)); }

    int64 readAt(int fd, void* buffer, int64 n, int64 offset) override {
        int64 done = 0;
        while (done < n) {
            const ssize_t got =
                ::pread(fd, static_cast<char*>(buffer) + done, static_cast<size_t>(n - done), offset + done);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) return -errno;
            if (got == 0) break;
            done += got;
        }
        return done;
    }

    int64 readCachedAt(int fd, void* buffer, int64 n, int64 offset) override {
        const struct ::iovec to { buffer, static_cast<size_t>(n) };
        const ssize_t got = ::preadv2(fd, &to, 1, offset, RWF_NOWAIT);
        return got < 0 ? -errno : got;
    }

    int64 writeAt(int fd, const void* buffer, int64 n, int64 offset) override {
        int64 done = 0;
        while (done < n) {
            const ssize_t put = ::pwrite(fd, static_cast<const char*>(buffer) + done,
                                         static_cast<size_t>(n - done), offset + done);
            if (put < 0 && errno == EINTR) continue;
            if (put < 0) return done > 0 ? done : -errno;
            done += put;
        }
        return done;
    }

    int truncate(int fd, int64 size) override { return status(::ftruncate(fd, size)); }
    int punchHole(int fd, int64 offset, int64 n) override {
        return status(::fallocate(fd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, offset, n));
    }
    int preallocate(int fd, int64 offset, int64 n) override {
        return status(::fallocate(fd, FALLOC_FL_KEEP_SIZE, offset, n));
    }
    int sync(int fd) override { return status(::fdatasync(fd)); }
    int syncFs(int fd) override { return status(::syncfs(fd)); }
    void startWriteback(int fd, int64 offset, int64 n) override {
        ::sync_file_range(fd, offset, n, SYNC_FILE_RANGE_WRITE);
    }
    void adviseSequential(int fd) override { ::posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL); }
    void adviseSoon(int fd, int64 offset, int64 n) override {
        ::posix_fadvise(fd, offset, n, POSIX_FADV_WILLNEED);
    }
    void adviseDone(int fd, int64 offset, int64 n) override {
        ::posix_fadvise(fd, offset, n, POSIX_FADV_DONTNEED);
    }

    int statFd(int fd, SxStat* stat) override {
        struct ::stat info {};
        if (::fstat(fd, &info) < 0) return -errno;
        fill(info, stat);
        return 0;
    }
    int stat(const std::string& path, SxStat* stat) override {
        struct ::stat info {};
        if (::stat(path.c_str(), &info) < 0) return -errno;
        fill(info, stat);
        return 0;
    }
    int lstat(const std::string& path, SxStat* stat) override {
        struct ::stat info {};
        if (::lstat(path.c_str(), &info) < 0) return -errno;
        fill(info, stat);
        return 0;
    }
    int lstatIn(int folder, const std::string& name, SxStat* stat) override {
        struct ::stat info {};
        if (::fstatat(folder, name.c_str(), &info, AT_SYMLINK_NOFOLLOW) < 0) return -errno;
        fill(info, stat);
        return 0;
    }

    int list(const std::string& path, std::vector<std::string>* names) override {
        names->clear();
        DIR* dir = ::opendir(path.c_str());
        if (!dir) return -errno;
        errno = 0;
        while (const dirent* entry = ::readdir(dir)) {
            const std::string name = entry->d_name;
            if (name != "." && name != "..") names->push_back(name);
            errno = 0;
        }
        const int error = errno;
        ::closedir(dir);
        return -error;
    }

    int makeDir(const std::string& path, unsigned permissions) override {
        return NewOwner(path).take(path, status(::mkdir(path.c_str(), permissions)));
    }
    int removeDir(const std::string& path) override { return status(::rmdir(path.c_str())); }
    int unlink(const std::string& path) override { return status(::unlink(path.c_str())); }
    int unlinkIn(int folder, const std::string& name) override {
        return status(::unlinkat(folder, name.c_str(), 0));
    }
    int rename(const std::string& from, const std::string& to) override {
        return status(::rename(from.c_str(), to.c_str()));
    }
    int renameIn(int folder, const std::string& from, const std::string& to) override {
        return status(::renameat(folder, from.c_str(), folder, to.c_str()));
    }
    int symlink(const std::string& target, const std::string& path) override {
        return NewOwner(path).take(path, status(::symlink(target.c_str(), path.c_str())));
    }
    int link(const std::string& from, const std::string& to) override {
        return status(::link(from.c_str(), to.c_str()));
    }
    int readLink(const std::string& path, std::string* target) override {
        char buffer[PATH_MAX];
        const ssize_t n = ::readlink(path.c_str(), buffer, sizeof buffer);
        if (n < 0) return -errno;
        target->assign(buffer, static_cast<size_t>(n));
        return 0;
    }
    int setPermissions(const std::string& path, unsigned permissions) override {
        return status(::chmod(path.c_str(), permissions));
    }
    int setPermissionsFd(int fd, unsigned permissions) override { return status(::fchmod(fd, permissions)); }
    int setOwner(const std::string& path, uint32 owner, uint32 group) override {
        return status(::lchown(path.c_str(), owner, group));
    }
    int setOwnerFd(int fd, uint32 owner, uint32 group) override { return status(::fchown(fd, owner, group)); }
    int setModifiedNow(const std::string& path) override {
        return status(::utimensat(AT_FDCWD, path.c_str(), nullptr, 0));
    }
    int setModified(const std::string& path, int64 modifiedNs) override {
        const auto times = modifiedAt(modifiedNs);
        return status(::utimensat(AT_FDCWD, path.c_str(), times.data(), AT_SYMLINK_NOFOLLOW));
    }
    int setModifiedFd(int fd, int64 modifiedNs) override {
        return status(::futimens(fd, modifiedAt(modifiedNs).data()));
    }

    int syncDir(const std::string& path) override {
        const int fd = open(path, Read | Directory, 0);
        if (fd < 0) return fd;
        const int result = syncDirFd(fd);
        ::close(fd);
        return result;
    }
    int syncDirFd(int folder) override {
        const int result = status(::fsync(folder));
        // Some file systems can't sync a folder; they order names by themselves.
        return result == -EINVAL ? 0 : result;
    }

    int freeSpace(const std::string& path, int64* bytes) override {
        struct ::statvfs info {};
        if (::statvfs(path.c_str(), &info) < 0) return -errno;
        *bytes = static_cast<int64>(info.f_bavail) * static_cast<int64>(info.f_frsize);
        return 0;
    }

    int lockRange(int fd, int64 offset, int64 n, Lock lock) override {
        struct ::flock range = describe(offset, n, lock);
        const int result = status(::fcntl(fd, F_OFD_SETLK, &range));
        return result == -EACCES ? -EAGAIN : result;
    }

    int isLocked(int fd, int64 offset, int64 n, Lock lock) override {
        struct ::flock range = describe(offset, n, lock);
        if (::fcntl(fd, F_OFD_GETLK, &range) < 0) return -errno;
        return range.l_type == F_UNLCK ? 0 : 1;
    }

    int isOpen(const std::string& path) override {
        const int fd = open(path, Read | NoFollow, 0);
        if (fd == -EAGAIN) return 1; // somebody holds a lease on it, and so has it open
        if (fd < 0) return fd;
        int result = -EOPNOTSUPP;
        if (!hasServerLeases(fd)) {
            // Whoever opens the file meanwhile has this process told by a signal: SIGIO would end it, SIGURG
            // is ignored.
            ::fcntl(fd, F_SETSIG, SIGURG);
            result = status(::fcntl(fd, F_SETLEASE, F_WRLCK));
            if (result == 0) ::fcntl(fd, F_SETLEASE, F_UNLCK);
        }
        ::close(fd);
        return result == -EAGAIN || result == -EBUSY ? 1 : result;
    }

    std::string bootId() override {
        char text[64];
        const int fd = open("/proc/sys/kernel/random/boot_id", Read, 0);
        if (fd < 0) return {};
        const int64 n = readAt(fd, text, sizeof text, 0);
        close(fd);
        return n > 1 ? std::string(text, static_cast<size_t>(n - 1)) : std::string();
    }

    std::string currentDir() override {
        char buffer[PATH_MAX];
        return ::getcwd(buffer, sizeof buffer) ? buffer : "/";
    }

    int canonical(const std::string& path, std::string* result) override {
        char buffer[PATH_MAX];
        if (!::realpath(path.c_str(), buffer)) return -errno;
        *result = buffer;
        return 0;
    }

private:
    /// Only a file that is new changes hands.
    static int openFor(const NewOwner& owner, const std::string& path, unsigned flags, unsigned permissions) {
        const int fd = openPatiently(AT_FDCWD, path, flags | Exclusive, permissions);
        if (fd == -EEXIST && (flags & Exclusive) == 0)
            return openPatiently(AT_FDCWD, path, flags, permissions);
        if (fd >= 0) owner.take(fd);
        return fd;
    }
    static struct ::flock describe(int64 offset, int64 n, Lock lock) {
        struct ::flock range {};
        range.l_type = lock == Lock::Exclusive ? F_WRLCK : lock == Lock::Shared ? F_RDLCK : F_UNLCK;
        range.l_whence = SEEK_SET;
        range.l_start = offset;
        range.l_len = n;
        return range;
    }
};

std::atomic<SxOs*> current{nullptr};
std::atomic<SxOs::PathHook> pathHook{nullptr};
std::atomic<SxOs::DriveHook> driveHook{nullptr};

} // namespace

SxOs& SxOs::machine() noexcept {
    static Machine machine;
    return machine;
}

SxOs& SxOs::get() noexcept {
    SxOs* os = current.load(std::memory_order_acquire);
    return os ? *os : machine();
}

void SxOs::set(SxOs* os) noexcept {
    current.store(os, std::memory_order_release);
}

int64 SxOs::processId() noexcept {
    return ::getpid();
}

int SxOs::hasName(int fd, const std::string& path) {
    SxStat held, named;
    const int result = lstat(path, &named);
    if (result == -ENOENT) return 0;
    const int own = result < 0 ? result : statFd(fd, &held);
    if (own < 0) return own;
    return held.inode == named.inode && held.device == named.device ? 1 : 0;
}

SxString SxOs::errorText(int64 error) {
    char buffer[256];
    return SxString(strerror_r(static_cast<int>(error < 0 ? -error : error), buffer, sizeof buffer));
}

void SxOs::setPathHooks(PathHook translate, DriveHook makeDrive) noexcept {
    pathHook.store(translate, std::memory_order_release);
    driveHook.store(makeDrive, std::memory_order_release);
}

void SxOs::setOwnerHook(OwnerHook hook) noexcept {
    ownerHook.store(hook, std::memory_order_release);
}

bool SxOs::makeDrive(const SxString& path) {
    const DriveHook hook = driveHook.load(std::memory_order_acquire);
    return hook && hook(path.str());
}

std::string SxOs::physicalPath(const std::string& path) {
    std::string there = path, rest, resolved;
    while (get().canonical(there, &resolved) < 0) {
        const size_t slash = there.rfind('/');
        if (slash == std::string::npos || there == "/") return path;
        rest.insert(0, there.substr(slash));
        there.erase(std::max<size_t>(slash, 1));
    }
    return resolved == "/" && !rest.empty() ? rest : resolved + rest;
}

std::string SxOs::hostPath(const SxString& path) {
    if (path.isEmpty()) throw SxException("The path is empty", UNIT, __LINE__);
    if (path.str().find('\0') != std::string::npos) {
        throw SxException("The path '" + SxString(path.ascii()) + "' goes on after a NUL", UNIT, __LINE__);
    }
    const PathHook hook = pathHook.load(std::memory_order_acquire);
    return hook ? hook(path.str()) : path.str();
}
