#pragma once

#include "SxString.h"

#include <string>
#include <vector>

/// What the system says of a file.
struct SxStat {
    enum Kind { File, Dir, Link, Other };
    Kind kind = Other;
    bool isRemoval = false; ///< an overlay's mark that the name is gone; holds nothing
    int64 size = 0;         ///< bytes
    int64 allocated = 0;    ///< bytes on the disk
    int64 nNames = 0;       ///< of the file, in whatever folders
    uint64 device = 0, inode = 0;
    uint32 permissions = 0; ///< the low 12 mode bits
    uint32 owner = 0, group = 0;
    int64 modifiedMs = 0; ///< milliseconds since 1970 UTC
    int64 modifiedNs = 0; ///< the same in nanoseconds
};

/// The one seam to the operating system's files, which a test can replace to fail the n-th operation, to fill
/// the disk, or to forget what was not synced. Paths are host paths (hostPath()). A negative result is a
/// negated errno; nothing is raised but by hostPath(). All operations are safe from any thread as long as a
/// descriptor isn't closed while another thread uses it; those at an explicit offset don't touch the
/// descriptor's position.
class SxOs {
public:
    enum OpenFlag : unsigned {
        Read = 1,
        Write = 2,
        Append = 4, ///< each write goes to the end, atomically between processes
        Create = 8,
        Truncate = 16,
        Exclusive = 32, ///< with Create: fails where the name exists
        NoFollow = 64,  ///< fails where the last part is a link
        Directory = 128
    };
    enum class Lock { None, Shared, Exclusive };

    virtual ~SxOs() = default;

    /// Opens a file; never inherited by child processes, and never waits for the other end of a pipe. Gives
    /// the descriptor.
    virtual int open(const std::string& path, unsigned flags, unsigned permissions) = 0;
    /// The same for `name` in an open folder, wherever that has been moved to.
    virtual int openIn(int folder, const std::string& name, unsigned flags, unsigned permissions) = 0;
    virtual int close(int fd) = 0;
    /// Reads up to `n` bytes at `offset`; less only at the end of the file.
    virtual int64 readAt(int fd, void* buffer, int64 n, int64 offset) = 0;
    /// The same, but only as far as it goes without waiting for the device: less than `n` where the cache
    /// doesn't hold the rest, or the file ends. -EAGAIN where the cache doesn't hold the first byte,
    /// -EOPNOTSUPP where the file system can't tell.
    virtual int64 readCachedAt(int fd, void* buffer, int64 n, int64 offset) = 0;
    /// Writes up to `n` bytes at `offset` (at the end with Append). Less than `n` means that the disk is
    /// full.
    virtual int64 writeAt(int fd, const void* buffer, int64 n, int64 offset) = 0;
    virtual int truncate(int fd, int64 size) = 0;
    /// Gives the room of these bytes back; they read as zeros, and the file's size stays. -EOPNOTSUPP where
    /// the file system can't.
    virtual int punchHole(int fd, int64 offset, int64 n) = 0;
    /// Takes the room for these bytes from the disk; what they hold and the file's size stay.
    virtual int preallocate(int fd, int64 offset, int64 n) = 0;
    /// Returns when the file's bytes and size are on the device.
    virtual int sync(int fd) = 0;
    /// The same for all files of the file system that `fd` lies on: cheaper than sync() for many files.
    virtual int syncFs(int fd) = 0;
    /// Asks for the bytes to be written soon, without waiting; advice. 0 bytes means to the end.
    virtual void startWriteback(int fd, int64 offset, int64 n) = 0;
    /// Tells that the whole file will be read from front to back; advice.
    virtual void adviseSequential(int fd) = 0;
    /// Tells that these bytes will be read soon, and begins to fetch them, without waiting; advice.
    virtual void adviseSoon(int fd, int64 offset, int64 n) = 0;
    /// Tells that these bytes won't be read again soon; advice.
    virtual void adviseDone(int fd, int64 offset, int64 n) = 0;

    virtual int statFd(int fd, SxStat* stat) = 0;
    /// Follows links.
    virtual int stat(const std::string& path, SxStat* stat) = 0;
    /// Doesn't follow a link in the last part.
    virtual int lstat(const std::string& path, SxStat* stat) = 0;
    virtual int lstatIn(int folder, const std::string& name, SxStat* stat) = 0;
    /// 1 where `path` is still, or again, a name of the open file, 0 where it isn't; a link isn't followed.
    int hasName(int fd, const std::string& path);
    /// Names in a folder, without "." and "..", in no order.
    virtual int list(const std::string& path, std::vector<std::string>* names) = 0;

    virtual int makeDir(const std::string& path, unsigned permissions) = 0;
    virtual int removeDir(const std::string& path) = 0;
    virtual int unlink(const std::string& path) = 0;
    virtual int unlinkIn(int folder, const std::string& name) = 0;
    /// Atomic; replaces a file.
    virtual int rename(const std::string& from, const std::string& to) = 0;
    virtual int renameIn(int folder, const std::string& from, const std::string& to) = 0;
    virtual int symlink(const std::string& target, const std::string& path) = 0;
    /// Gives the file `from` a second name, on the same file system.
    virtual int link(const std::string& from, const std::string& to) = 0;
    virtual int readLink(const std::string& path, std::string* target) = 0;
    virtual int setPermissions(const std::string& path, unsigned permissions) = 0;
    virtual int setPermissionsFd(int fd, unsigned permissions) = 0;
    /// Of a link its own. -EPERM where the user may not give it away, or the file system has no owners.
    virtual int setOwner(const std::string& path, uint32 owner, uint32 group) = 0;
    virtual int setOwnerFd(int fd, uint32 owner, uint32 group) = 0;
    /// Sets the time of modification to now.
    virtual int setModifiedNow(const std::string& path) = 0;
    /// Sets it to `modifiedNs`, nanoseconds since 1970 UTC; of a link itself.
    virtual int setModified(const std::string& path, int64 modifiedNs) = 0;
    virtual int setModifiedFd(int fd, int64 modifiedNs) = 0;
    /// Returns when names made, renamed or removed in the folder are on the device.
    virtual int syncDir(const std::string& path) = 0;
    virtual int syncDirFd(int folder) = 0;
    /// Bytes that an ordinary user may still write to the file system of `path`.
    virtual int freeSpace(const std::string& path, int64* bytes) = 0;

    /// Takes, changes or gives up a lock on `n` bytes at `offset`, without waiting (-EAGAIN where another
    /// holds it). The lock belongs to the open file, not to the process: closing a duplicate keeps it, the
    /// end of the last process that has it open drops it.
    virtual int lockRange(int fd, int64 offset, int64 n, Lock lock) = 0;
    /// 1 where taking the lock would fail because of another open file, 0 where not.
    virtual int isLocked(int fd, int64 offset, int64 n, Lock lock) = 0;
    /// 1 where somebody has the file open or mapped, be it this process or the kernel for itself, 0 where
    /// nobody has. A link isn't followed. Negative where that can't be told: the file is another user's and
    /// this process has no right to look (-EACCES), or its file system can't tell (-EINVAL, -EOPNOTSUPP).
    /// Two looks at one time may take each other for a user of the file.
    virtual int isOpen(const std::string& path) = 0;

    /// An id that the machine makes anew at each of its starts; empty where it tells none.
    virtual std::string bootId() = 0;
    virtual std::string currentDir() = 0;
    /// The absolute path with all links resolved.
    virtual int canonical(const std::string& path, std::string* result) = 0;

    /// `path` with the links resolved in as much of it as is there; the rest can have none. By the system in
    /// force.
    static std::string physicalPath(const std::string& path);

    /// The system in force.
    static SxOs& get() noexcept;
    /// The machine's own, to which replacements hand on.
    static SxOs& machine() noexcept;
    /// Puts `os` in force, or the machine's with null; the caller keeps it alive. Not while jobs run.
    static void set(SxOs* os) noexcept;

    /// The id of this process.
    static int64 processId() noexcept;
    /// The text of an errno value, plain or negated.
    static SxString errorText(int64 error);

    using PathHook = std::string (*)(const std::string& path);
    using DriveHook = bool (*)(const std::string& path);
    using OwnerHook = bool (*)(const std::string& path, uint32* owner, uint32* group);
    /// Installs the translation of the library's paths (such as "E:/x") to host paths, and what makes the
    /// folder of a drive that is always there ("C:/") when something is to be put into it; null for none.
    /// Everywhere else the library's paths stay as they are; only this seam sees host paths.
    static void setPathHooks(PathHook translate, DriveHook makeDrive) noexcept;
    /// Installs what says whose a new file, folder or link at a host path is to be; false where it is its
    /// maker's, as without a hook. What can't be given away stays its maker's.
    static void setOwnerHook(OwnerHook hook) noexcept;
    /// Makes the folder of the drive `path` ("C:/"); false where there is no such drive to be made.
    static bool makeDrive(const SxString& path);
    /// The host path of a path of the library. Raises on a path that is empty or holds a NUL.
    static std::string hostPath(const SxString& path);
};
