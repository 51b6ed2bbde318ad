#pragma once

#include "PendingChanges.h"

#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <random>

/// The machine's files with faults, for one watched folder; in force (SxOs::set) from construction to
/// destruction. Other paths are handed on untouched. Safe from any thread.
///
/// The model of a power cut: what stood in the folder at the construction is durable. A file's bytes and size
/// become durable by sync() of that file; a name made, renamed or removed becomes so by syncDir() of its
/// folder (both folders, for a move between two); syncFs() makes everything durable. The sync of a file does
/// nothing for its name and the other way round. crash() takes back all that isn't durable: bytes and sizes
/// fall back to the last sync (a new file to empty), new names vanish with all below them, replaced, renamed
/// and removed ones come back. crash(random) lets each pending write and each pending name survive or not by
/// chance, as a device does that writes in an order of its own; the two names of one rename share their fate,
/// so a file is never lost by it. What a sync that fails should have made durable isn't made so by a later
/// one, as on Linux, unless it is written again. The machine has another start id after it. Permissions and
/// times aren't followed. Descriptors must be closed before.
class FaultOs : public SxOs {
public:
    enum class Op {
        Open,
        Close,
        Read,
        Write,
        Truncate,
        Sync,
        SyncFs,
        Stat,
        List,
        MakeDir,
        RemoveDir,
        Unlink,
        Rename,
        Symlink,
        Link,
        ReadLink,
        SetPermissions,
        SetModified,
        SyncDir,
        FreeSpace,
        Lock
    };
    /// Called before a durable step with its number, from 1.
    using Hook = std::function<void(int64 step, Op op, const std::string& path)>;

    explicit FaultOs(const std::string& watchedFolder);
    ~FaultOs() override;
    FaultOs(const FaultOs&) = delete;
    FaultOs& operator=(const FaultOs&) = delete;

    /// The `nth` (from 1) coming operation `op` on a path that contains `pathPart` fails with `error`, an
    /// errno value, without doing anything; with `forever` all later ones too. One such fault at a time.
    void failNth(Op op, int64 nth, int error, const std::string& pathPart = "", bool forever = false);
    /// How often failNth() has struck since it was called.
    int64 getNFailed() const;

    /// From here on files may grow by `bytes` in all. Removed and cut files give their size back, and holes
    /// their room. A write that doesn't fit comes short, and the next one fails with ENOSPC. freeSpace()
    /// tells what is left.
    void setDiskLeft(int64 bytes);
    /// What freeSpace() says, whatever is left.
    void setFreeSpaceAnswer(int64 bytes);

    /// Reads of files whose path contains `pathPart` give nothing beyond byte `end`, whatever size is told:
    /// so a file system does whose daemon has taken a part of a write already. A negative `end` takes that
    /// back.
    void setReadEnd(const std::string& pathPart, int64 end);

    /// Number of durable steps so far: sync, syncFs, syncDir, rename, unlink, truncate, makeDir, removeDir.
    int64 getNSteps() const;
    void setHook(Hook hook);
    /// Cuts the power before that durable step: it and everything after it fails with EIO and does nothing.
    void cutPowerAt(int64 step);
    bool isCut() const;
    /// Goes on where cutPowerAt() has cut, with nothing lost: as if only the process had been killed there.
    void revive();
    /// Leaves the folder as a power cut would, and turns the power on again. With `random` some of what was
    /// pending survives.
    void crash(std::mt19937_64* random = nullptr);

    int open(const std::string& path, unsigned flags, unsigned permissions) override;
    int openIn(int folderFd, const std::string& name, unsigned flags, unsigned permissions) override {
        return open(pathIn(folderFd, name), flags, permissions);
    }
    int close(int fd) override;
    int64 readAt(int fd, void* buffer, int64 n, int64 offset) override {
        const int error = strike(Op::Read, fd);
        return error ? error : machine.readAt(fd, buffer, readable(fd, n, offset), offset);
    }
    int64 readCachedAt(int fd, void* buffer, int64 n, int64 offset) override {
        const int error = strike(Op::Read, fd);
        return error ? error : machine.readCachedAt(fd, buffer, readable(fd, n, offset), offset);
    }
    int64 writeAt(int fd, const void* buffer, int64 n, int64 offset) override;
    int truncate(int fd, int64 size) override;
    int punchHole(int fd, int64 offset, int64 n) override;
    int preallocate(int fd, int64 offset, int64 n) override;
    int sync(int fd) override;
    int syncFs(int fd) override;
    void startWriteback(int fd, int64 offset, int64 n) override { machine.startWriteback(fd, offset, n); }
    void adviseSequential(int fd) override { machine.adviseSequential(fd); }
    void adviseSoon(int fd, int64 offset, int64 n) override { machine.adviseSoon(fd, offset, n); }
    void adviseDone(int fd, int64 offset, int64 n) override { machine.adviseDone(fd, offset, n); }
    int statFd(int fd, SxStat* stat) override {
        const int error = strike(Op::Stat, fd);
        return error ? error : machine.statFd(fd, stat);
    }
    int stat(const std::string& path, SxStat* stat) override {
        const int error = strike(Op::Stat, path);
        return error ? error : machine.stat(path, stat);
    }
    int lstat(const std::string& path, SxStat* stat) override {
        const int error = strike(Op::Stat, path);
        return error ? error : machine.lstat(path, stat);
    }
    int lstatIn(int folderFd, const std::string& name, SxStat* stat) override {
        return lstat(pathIn(folderFd, name), stat);
    }
    int list(const std::string& path, std::vector<std::string>* names) override {
        const int error = strike(Op::List, path);
        return error ? error : machine.list(path, names);
    }
    int makeDir(const std::string& path, unsigned permissions) override {
        return changeName(Op::MakeDir, path, [&] { return machine.makeDir(path, permissions); });
    }
    int removeDir(const std::string& path) override {
        return changeName(Op::RemoveDir, path, [&] { return machine.removeDir(path); });
    }
    int unlink(const std::string& path) override;
    int unlinkIn(int folderFd, const std::string& name) override { return unlink(pathIn(folderFd, name)); }
    int rename(const std::string& from, const std::string& to) override;
    int renameIn(int folderFd, const std::string& from, const std::string& to) override {
        return rename(pathIn(folderFd, from), pathIn(folderFd, to));
    }
    int symlink(const std::string& target, const std::string& path) override {
        return changeName(Op::Symlink, path, [&] { return machine.symlink(target, path); });
    }
    int link(const std::string& from, const std::string& to) override {
        return changeName(Op::Link, to, [&] { return machine.link(from, to); });
    }
    int readLink(const std::string& path, std::string* target) override {
        const int error = strike(Op::ReadLink, path);
        return error ? error : machine.readLink(path, target);
    }
    int setPermissions(const std::string& path, unsigned permissions) override {
        const int error = strike(Op::SetPermissions, path);
        return error ? error : machine.setPermissions(path, permissions);
    }
    int setPermissionsFd(int fd, unsigned permissions) override {
        const int error = strike(Op::SetPermissions, fd);
        return error ? error : machine.setPermissionsFd(fd, permissions);
    }
    int setOwner(const std::string& path, uint32 owner, uint32 group) override {
        const int error = strike(Op::SetPermissions, path);
        return error ? error : machine.setOwner(path, owner, group);
    }
    int setOwnerFd(int fd, uint32 owner, uint32 group) override {
        const int error = strike(Op::SetPermissions, fd);
        return error ? error : machine.setOwnerFd(fd, owner, group);
    }
    int setModifiedNow(const std::string& path) override {
        const int error = strike(Op::SetModified, path);
        return error ? error : machine.setModifiedNow(path);
    }
    int setModified(const std::string& path, int64 modifiedNs) override {
        const int error = strike(Op::SetModified, path);
        return error ? error : machine.setModified(path, modifiedNs);
    }
    int setModifiedFd(int fd, int64 modifiedNs) override {
        const int error = strike(Op::SetModified, fd);
        return error ? error : machine.setModifiedFd(fd, modifiedNs);
    }
    int syncDir(const std::string& path) override;
    int syncDirFd(int folderFd) override { return syncDir(pathIn(folderFd, "")); }
    int freeSpace(const std::string& path, int64* bytes) override;
    int lockRange(int fd, int64 offset, int64 n, Lock lock) override {
        const int error = strike(Op::Lock, fd);
        return error ? error : machine.lockRange(fd, offset, n, lock);
    }
    int isLocked(int fd, int64 offset, int64 n, Lock lock) override {
        const int error = strike(Op::Lock, fd);
        return error ? error : machine.isLocked(fd, offset, n, lock);
    }
    int isOpen(const std::string& path) override {
        const int error = strike(Op::Lock, path);
        return error ? error : machine.isOpen(path);
    }
    std::string bootId() override;
    std::string currentDir() override { return machine.currentDir(); }
    int canonical(const std::string& path, std::string* result) override {
        const int error = strike(Op::Stat, path);
        return error ? error : machine.canonical(path, result);
    }

private:
    struct OpenFile {
        std::string path;
        bool append;
        int64 roomEnd = 0; ///< bytes of it that have room on the disk, whatever its size
    };
    struct Fault {
        Op op;
        int64 nth;
        int error;
        std::string pathPart;
        bool forever;
        int64 nSeen = 0, nFailed = 0;
    };

    std::string normal(const std::string& path) const;
    /// The path that a name in an open folder has now.
    static std::string pathIn(int folderFd, const std::string& name);
    bool watches(const std::string& path) const;
    /// Empty where the file isn't watched.
    std::string pathOf(int fd) const;
    /// The error that strikes the operation now, negated, or 0. Counts durable steps and runs the hook.
    int strike(Op op, const std::string& path);
    int strikeAt(Op op, const std::string& path);
    /// The same before an operation on a file.
    int strike(Op op, int fd);
    int64 faultFor(Op op, const std::string& path);
    /// Makes or removes a name, and takes note of it.
    int changeName(Op op, const std::string& path, const std::function<int()>& change);
    int openWatched(const std::string& path, unsigned flags, unsigned permissions);
    int64 fitting(int fd, int64 n, int64 offset);
    /// What may be read of `n` bytes.
    int64 readable(int fd, int64 n, int64 offset) const;

    SxOs& machine;
    const std::string folder;

    mutable std::mutex mutex; ///< guards all that follows
    PendingChanges pending;
    std::map<int, OpenFile> openFiles;
    std::optional<Fault> fault;
    std::optional<std::pair<std::string, int64>> readEnd;
    std::optional<int64> diskLeft, freeSpaceAnswer, cutStep;
    bool cut = false;
    int64 nSteps = 0, nCrashes = 0;
    Hook hook;
};
