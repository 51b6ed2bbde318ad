#include "FaultOs.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <stdexcept>

namespace fs = std::filesystem;

namespace {

bool isDurableStep(FaultOs::Op op) {
    using Op = FaultOs::Op;
    constexpr Op STEPS[] = {Op::Sync,   Op::SyncFs,   Op::SyncDir, Op::Rename,
                            Op::Unlink, Op::Truncate, Op::MakeDir, Op::RemoveDir};
    return std::find(std::begin(STEPS), std::end(STEPS), op) != std::end(STEPS);
}

} // namespace

FaultOs::FaultOs(const std::string& watchedFolder)
    : machine(SxOs::machine()),
      folder(fs::canonical(watchedFolder).string()),
      pending(folder) {
    SxOs::set(this);
}

FaultOs::~FaultOs() {
    SxOs::set(nullptr);
}

void FaultOs::failNth(Op op, int64 nth, int error, const std::string& pathPart, bool forever) {
    const std::lock_guard lock(mutex);
    fault = Fault{op, nth, error, pathPart, forever};
}

int64 FaultOs::getNFailed() const {
    const std::lock_guard lock(mutex);
    return fault ? fault->nFailed : 0;
}

void FaultOs::setDiskLeft(int64 bytes) {
    const std::lock_guard lock(mutex);
    diskLeft = bytes;
}

void FaultOs::setFreeSpaceAnswer(int64 bytes) {
    const std::lock_guard lock(mutex);
    freeSpaceAnswer = bytes;
}

void FaultOs::setReadEnd(const std::string& pathPart, int64 end) {
    const std::lock_guard lock(mutex);
    readEnd.reset();
    if (end >= 0) readEnd.emplace(pathPart, end);
}

int64 FaultOs::readable(int fd, int64 n, int64 offset) const {
    const std::string path = pathOf(fd);
    const std::lock_guard lock(mutex);
    if (!readEnd || path.empty() || path.find(readEnd->first) == std::string::npos) return n;
    return std::clamp<int64>(readEnd->second - offset, 0, n);
}

int64 FaultOs::getNSteps() const {
    const std::lock_guard lock(mutex);
    return nSteps;
}

void FaultOs::setHook(Hook hook_) {
    const std::lock_guard lock(mutex);
    hook = std::move(hook_);
}

void FaultOs::cutPowerAt(int64 step) {
    const std::lock_guard lock(mutex);
    cutStep = step;
}

bool FaultOs::isCut() const {
    const std::lock_guard lock(mutex);
    return cut;
}

void FaultOs::revive() {
    const std::lock_guard lock(mutex);
    cutStep.reset();
    cut = false;
}

void FaultOs::crash(std::mt19937_64* random) {
    const std::lock_guard lock(mutex);
    if (!openFiles.empty())
        throw std::logic_error("still open at the crash: " + openFiles.begin()->second.path);
    pending.crash(random);
    cutStep.reset();
    cut = false;
    ++nCrashes;
}

std::string FaultOs::bootId() {
    const std::lock_guard lock(mutex);
    return machine.bootId() + "." + std::to_string(nCrashes);
}

std::string FaultOs::normal(const std::string& path) const {
    fs::path full = (fs::path(machine.currentDir()) / path).lexically_normal();
    return full.has_filename() ? full.string() : full.parent_path().string();
}

std::string FaultOs::pathIn(int folderFd, const std::string& name) {
    return (fs::read_symlink("/proc/self/fd/" + std::to_string(folderFd)) / name).string();
}

bool FaultOs::watches(const std::string& path) const {
    return path == folder || path.starts_with(folder + "/");
}

std::string FaultOs::pathOf(int fd) const {
    const std::lock_guard lock(mutex);
    const auto file = openFiles.find(fd);
    return file == openFiles.end() ? std::string() : file->second.path;
}

int64 FaultOs::faultFor(Op op, const std::string& path) {
    if (!fault || fault->op != op || path.find(fault->pathPart) == std::string::npos) return 0;
    ++fault->nSeen;
    if (fault->nSeen < fault->nth || (fault->nSeen > fault->nth && !fault->forever)) return 0;
    ++fault->nFailed;
    return fault->error;
}

int FaultOs::strike(Op op, const std::string& path) {
    const std::string full = normal(path);
    return watches(full) ? strikeAt(op, full) : 0;
}

int FaultOs::strike(Op op, int fd) {
    const std::string path = pathOf(fd);
    return path.empty() ? 0 : strikeAt(op, path);
}

int FaultOs::strikeAt(Op op, const std::string& path) {
    Hook ahead;
    int64 step = 0;
    {
        const std::lock_guard lock(mutex);
        if (cut) return -EIO;
        if (isDurableStep(op)) {
            step = ++nSteps;
            cut = cutStep && step >= *cutStep;
            if (cut) return -EIO;
            ahead = hook;
        }
        if (const int64 error = faultFor(op, path)) return -static_cast<int>(error);
    }
    if (ahead) ahead(step, op, path);
    return 0;
}

int FaultOs::open(const std::string& path, unsigned flags, unsigned permissions) {
    const std::string full = normal(path);
    if (!watches(full)) return machine.open(path, flags, permissions);
    if (const int error = strike(Op::Open, full)) return error;
    const std::lock_guard lock(mutex);
    const int fd = openWatched(full, flags, permissions);
    if (fd >= 0) openFiles[fd] = {full, (flags & Append) != 0};
    return fd;
}

int FaultOs::openWatched(const std::string& path, unsigned flags, unsigned permissions) {
    const bool makes = (flags & Create) && !fs::exists(fs::symlink_status(path));
    if (makes) pending.changeName(path);
    const int fd = machine.open(path, flags & ~unsigned{Truncate}, permissions);
    if (fd < 0) return fd;
    if (makes) {
        pending.makeFile(fd);
    } else if (flags & Truncate) {
        SxStat info;
        machine.statFd(fd, &info);
        pending.changeFile(fd, 0, {}, 0);
        machine.truncate(fd, 0);
        if (diskLeft) *diskLeft += info.size;
    }
    return fd;
}

int FaultOs::close(int fd) {
    // A descriptor that can't be closed is closed all the same.
    const int error = strike(Op::Close, fd);
    const std::lock_guard lock(mutex);
    openFiles.erase(fd);
    const int result = machine.close(fd);
    return error ? error : result;
}

/// How many of `n` bytes the disk still takes.
int64 FaultOs::fitting(int fd, int64 n, int64 offset) {
    if (!diskLeft) return n;
    SxStat info;
    machine.statFd(fd, &info);
    const int64 roomEnd = std::max(info.size, openFiles.at(fd).roomEnd);
    const int64 grows = std::max<int64>(0, offset + n - roomEnd);
    const int64 fits = n - std::clamp<int64>(grows - *diskLeft, 0, n);
    *diskLeft -= std::max<int64>(0, offset + fits - roomEnd);
    return fits;
}

int64 FaultOs::writeAt(int fd, const void* buffer, int64 n, int64 offset) {
    if (const int error = strike(Op::Write, fd)) return error;
    const std::lock_guard lock(mutex);
    const auto file = openFiles.find(fd);
    if (file == openFiles.end()) return machine.writeAt(fd, buffer, n, offset);
    SxStat info;
    machine.statFd(fd, &info);
    if (file->second.append) offset = info.size;
    const int64 fits = fitting(fd, n, offset);
    if (fits == 0 && n > 0) return -ENOSPC;
    pending.changeFile(fd, offset, std::string(static_cast<const char*>(buffer), static_cast<size_t>(fits)),
                       std::max(info.size, offset + fits));
    return machine.writeAt(fd, buffer, fits, offset);
}

int FaultOs::truncate(int fd, int64 size) {
    if (const int error = strike(Op::Truncate, fd)) return error;
    const std::lock_guard lock(mutex);
    if (!openFiles.contains(fd)) return machine.truncate(fd, size);
    SxStat info;
    machine.statFd(fd, &info);
    pending.changeFile(fd, size, {}, size);
    if (diskLeft) *diskLeft -= size - info.size;
    return machine.truncate(fd, size);
}

int FaultOs::preallocate(int fd, int64 offset, int64 n) {
    if (const int error = strike(Op::Write, fd)) return error;
    const std::lock_guard lock(mutex);
    if (const auto file = openFiles.find(fd); file != openFiles.end()) {
        if (fitting(fd, n, offset) < n) return -ENOSPC;
        file->second.roomEnd = std::max(file->second.roomEnd, offset + n);
    }
    return machine.preallocate(fd, offset, n);
}

int FaultOs::punchHole(int fd, int64 offset, int64 n) {
    if (const int error = strike(Op::Write, fd)) return error;
    const std::lock_guard lock(mutex);
    if (openFiles.contains(fd)) {
        SxStat info;
        machine.statFd(fd, &info);
        const int64 end = std::min(info.size, offset + n);
        if (end > offset) {
            pending.changeFile(fd, offset, std::string(static_cast<size_t>(end - offset), '\0'), info.size);
        }
    }
    SxStat before, after;
    const bool counts = diskLeft && openFiles.contains(fd) && machine.statFd(fd, &before) == 0;
    const int result = machine.punchHole(fd, offset, n);
    if (counts && machine.statFd(fd, &after) == 0) *diskLeft += before.allocated - after.allocated;
    return result;
}

int FaultOs::sync(int fd) {
    const int error = strike(Op::Sync, fd);
    const std::lock_guard lock(mutex);
    // One that was interrupted has only not come.
    if (error && error != -EINTR && !cut && openFiles.contains(fd)) pending.loseFile(fd);
    if (error) return error;
    const int result = machine.sync(fd);
    if (result == 0 && openFiles.contains(fd)) pending.syncFile(fd);
    return result;
}

int FaultOs::syncFs(int fd) {
    if (const int error = strike(Op::SyncFs, fd)) return error;
    const std::lock_guard lock(mutex);
    const int result = machine.syncFs(fd);
    if (result == 0 && openFiles.contains(fd)) pending.syncAll();
    return result;
}

int FaultOs::changeName(Op op, const std::string& path, const std::function<int()>& change) {
    if (const int error = strike(op, path)) return error;
    const std::lock_guard lock(mutex);
    if (watches(normal(path))) pending.changeName(normal(path));
    return change();
}

int FaultOs::unlink(const std::string& path) {
    if (const int error = strike(Op::Unlink, path)) return error;
    const std::lock_guard lock(mutex);
    const std::string full = normal(path);
    if (!watches(full)) return machine.unlink(path);
    pending.changeName(full);
    SxStat info;
    const bool isFile = machine.lstat(full, &info) == 0 && info.kind == SxStat::File;
    const int result = machine.unlink(full);
    if (result == 0 && isFile && diskLeft) *diskLeft += info.size;
    return result;
}

int FaultOs::rename(const std::string& from, const std::string& to) {
    if (const int error = strike(Op::Rename, watches(normal(to)) ? to : from)) return error;
    const std::lock_guard lock(mutex);
    const std::string fullFrom = normal(from), fullTo = normal(to);
    if (!watches(fullFrom) && !watches(fullTo)) return machine.rename(from, to);
    SxStat moved, replaced;
    if (const int error = machine.lstat(fullFrom, &moved)) return error;
    const bool replaces = machine.lstat(fullTo, &replaced) == 0;
    const bool sameFile = replaces && moved.inode == replaced.inode;
    if (moved.kind == SxStat::Dir) {
        if (replaces) pending.changeName(fullTo);
        const int result = machine.rename(fullFrom, fullTo);
        if (result == 0 && !sameFile) pending.moveFolder(fullFrom, fullTo);
        return result;
    }
    if (watches(fullFrom) && watches(fullTo)) {
        pending.rename(fullFrom, fullTo);
    } else {
        pending.changeName(watches(fullFrom) ? fullFrom : fullTo);
    }
    const int result = machine.rename(fullFrom, fullTo);
    if (result == 0 && replaces && !sameFile && replaced.kind == SxStat::File && diskLeft) {
        *diskLeft += replaced.size;
    }
    return result;
}

int FaultOs::syncDir(const std::string& path) {
    if (const int error = strike(Op::SyncDir, path)) return error;
    const std::lock_guard lock(mutex);
    const int result = machine.syncDir(path);
    if (result == 0 && watches(normal(path))) pending.syncFolder(normal(path));
    return result;
}

int FaultOs::freeSpace(const std::string& path, int64* bytes) {
    if (const int error = strike(Op::FreeSpace, path)) return error;
    const int result = machine.freeSpace(path, bytes);
    const std::lock_guard lock(mutex);
    if (result == 0 && watches(normal(path))) {
        if (diskLeft) *bytes = std::max<int64>(*diskLeft, 0);
        if (freeSpaceAnswer) *bytes = *freeSpaceAnswer;
    }
    return result;
}
