#include "ZqImageLock.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxOs.h"
#include "SxTime.h"
#include "ZqExtractNote.h"
#include "ZqFileLock.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageReplacement.h"

#include <algorithm>
#include <cerrno>
#include <functional>

namespace {

constexpr const char* UNIT = "src/shared/ZqImageLock";
constexpr int N_SLOTS = 48;
constexpr int64 SLOT_SIZE = 256;
constexpr int64 KERNEL_SLOT = N_SLOTS * SLOT_SIZE;
/// The bytes that are the locks: far after the slots, where nothing is stored.
constexpr int64 RANGE_BASE = int64{1} << 32;
/// How long a holder that has its lock may take to write its slot.
constexpr int64 RECORD_MS = 100;
/// Pause between two tries to get a lock that is held.
constexpr int64 LOOK_MS = 10;
/// How long whoever has img.zqf open may take to let it go: the end of a drive that was just unmounted, or a
/// program that looks into each file.
constexpr int64 LET_GO_MS = 2000;
/// Pauses between two looks at that, the first one and the longest.
constexpr int64 FIRST_PAUSE_MS = 2, MAX_PAUSE_MS = 50;

const char* rangeName(ZqImageLock::Range range) {
    switch (range) {
    case ZqImageLock::Shape:
        return "shape";
    case ZqImageLock::Growth:
        return "growth";
    case ZqImageLock::Drive:
        return "drive";
    case ZqImageLock::Blocks:
        return "blocks";
    case ZqImageLock::Record:
        return "record";
    }
    return "";
}

SxOs::Lock osLock(ZqImageLock::Mode mode) {
    return mode == ZqImageLock::Exclusive ? SxOs::Lock::Exclusive : SxOs::Lock::Shared;
}

/// Opens the lock file of `folder`, made where it is missing. Negative: the negated errno.
int openLockFile(const std::string& file, ZqImageLock::Mode mode) {
    SxOs& os = SxOs::get();
    constexpr unsigned BOTH = SxOs::Read | SxOs::Write | SxOs::NoFollow;
    int fd = os.open(file, BOTH, 0);
    if (fd == -ENOENT) {
        fd = os.open(file, BOTH | SxOs::Create | SxOs::Exclusive, 0666);
        // Whoever can reach the image may lock it, whatever the maker's umask.
        if (fd >= 0) os.setPermissionsFd(fd, 0666);
        if (fd == -EEXIST) fd = os.open(file, BOTH, 0);
    }
    if ((fd == -EACCES || fd == -EROFS) && mode == ZqImageLock::Shared) {
        fd = os.open(file, SxOs::Read | SxOs::NoFollow, 0);
    }
    return fd;
}

/// Whether the file was removed, or replaced, since it was opened: then a lock on it keeps nobody away.
bool isStale(int fd, const std::string& file) {
    return SxOs::get().hasName(fd, file) != 1;
}

std::string pathIn(const SxString& folder, const char* name) {
    return SxOs::hostPath(ZqImageFolder::prefix(folder) + name);
}

/// What the slot of the kernel's note has while the kernel may read `img.zqf`; empty where there is no such
/// file. Of a copy of the folder, and after a start of the machine, it is another one.
std::string kernelLine(const SxString& path) {
    SxStat info;
    if (SxOs::get().stat(pathIn(path, ZqImageFiles::ZQF), &info) != 0) return {};
    return "kernel file " + std::to_string(info.inode) + " start " + SxOs::get().bootId();
}

/// Writes into the slot if `isMeant` says so, with the slot locked: nobody notes anything between the one and
/// the other. Gives the error.
int writeKernelSlot(const SxString& path, std::string line, const std::function<bool()>& isMeant) {
    SxOs& os = SxOs::get();
    const int fd = os.open(pathIn(path, ZqImageFiles::LOCK), SxOs::Read | SxOs::Write | SxOs::NoFollow, 0);
    if (fd < 0) return fd;
    int result = 0;
    SxWait::pass(RECORD_MS, [&] {
        result = os.lockRange(fd, KERNEL_SLOT, 1, SxOs::Lock::Exclusive);
        return result != -EAGAIN;
    });
    if (result == 0 && isMeant()) {
        line.resize(SLOT_SIZE, '\n');
        const int64 written = os.writeAt(fd, line.data(), SLOT_SIZE, KERNEL_SLOT);
        if (written != SLOT_SIZE) result = written < 0 ? static_cast<int>(written) : -ENOSPC;
    }
    os.close(fd);
    return result;
}

bool isKernelNoted(const SxString& path) {
    SxOs& os = SxOs::get();
    const int fd = os.open(pathIn(path, ZqImageFiles::LOCK), SxOs::Read | SxOs::NoFollow, 0);
    if (fd < 0) return false;
    char text[SLOT_SIZE] = {};
    const int64 n = os.readAt(fd, text, SLOT_SIZE, KERNEL_SLOT);
    os.close(fd);
    const std::string line = n == SLOT_SIZE ? kernelLine(path) : std::string();
    return !line.empty() && std::string(text, SLOT_SIZE).starts_with(line + "\n");
}

enum class Use { Free, Open, Unknown };

/// Who may have img.zqf open. The kernel serves only what can be told of by its owner, and notes it. So
/// whoever can't tell, and finds no note, may go on: an image of a group, or on a file system without leases.
Use useOfFile(const SxString& path) {
    const int isOpen = SxOs::get().isOpen(pathIn(path, ZqImageFiles::ZQF));
    if (isOpen == 1) return Use::Open;
    return isOpen < 0 && isKernelNoted(path) ? Use::Unknown : Use::Free;
}

SxString openText(const SxString& path) {
    return "Image '" + path +
           "' is still open in another program or in the kernel, as after an unmount while files of the "
           "drive "
           "were in use; close what uses it, and unmount the drive where it is still mounted";
}

SxString unseenText(const SxString& path) {
    return "The kernel may still read 'img.zqf' of image '" + path +
           "' for a drive, which only the owner of that file can see; give the command as its owner, or as "
           "root with the capability CAP_LEASE";
}

/// Raises where somebody has img.zqf open and doesn't let it go. The kernel reads it for a drive that
/// outlives its mount or its service, or is another mount namespace's: neither locks nor the table of mounts
/// show that.
void awaitLetGo(const SxString& path) {
    const int64 endNs = SxClock::get().steadyNs() + LET_GO_MS * 1'000'000;
    Use use = useOfFile(path);
    for (int64 pauseMs = FIRST_PAUSE_MS; use != Use::Free; pauseMs = std::min(2 * pauseMs, MAX_PAUSE_MS)) {
        if (SxClock::get().steadyNs() >= endNs) {
            throw SxException(ZqImageLock::HELD, use == Use::Open ? openText(path) : unseenText(path), UNIT,
                              __LINE__);
        }
        SxTime::msleep(pauseMs);
        use = useOfFile(path);
    }
}

SxString printable(const char* text, int64 n) {
    std::string result;
    for (int64 i = 0; i < n && text[i] >= ' ' && text[i] <= '~'; ++i)
        result += text[i];
    return SxString(result);
}

/// What the holder of the range has written into its slot of the lock file.
SxString describeHolder(int fd, ZqImageLock::Range range) {
    SxString holder;
    SxOs& os = SxOs::get();
    SxWait::pass(RECORD_MS, [&] {
        for (int i = 0; i < N_SLOTS && holder.isEmpty(); ++i) {
            char text[SLOT_SIZE];
            if (os.isLocked(fd, i * SLOT_SIZE, 1, SxOs::Lock::Exclusive) != 1 ||
                os.readAt(fd, text, SLOT_SIZE, i * SLOT_SIZE) != SLOT_SIZE) {
                continue;
            }
            const SxString line = printable(text, SLOT_SIZE);
            if (line.startsWith(rangeName(range))) holder = "process " + line.right("process ");
        }
        return !holder.isEmpty();
    });
    return holder.isEmpty() ? SxString("another process") : holder;
}

} // namespace

bool ZqImageLock::isFileOpen(const SxString& path) {
    return useOfFile(path) != Use::Free;
}

void ZqImageLock::noteKernel(const SxString& path) {
    const int error = writeKernelSlot(path, kernelLine(path), [] { return true; });
    if (error == 0) return;
    throw SxException(SxException(SxOs::errorText(error), UNIT, __LINE__),
                      "Cannot note in image '" + path + "' that the kernel reads it", UNIT, __LINE__);
}

void ZqImageLock::dropKernelNote(const SxString& path) {
    if (!isKernelNoted(path)) return;
    writeKernelSlot(path, {}, [&] { return SxOs::get().isOpen(pathIn(path, ZqImageFiles::ZQF)) == 0; });
}

SxPtr<ZqImageLock> ZqImageLock::take(const SxString& path, Range range, Mode mode, const SxString& job) {
    if (mode == Exclusive && range != Shape) finishReplacement(path);
    SxPtr<ZqImageLock> lock = takeAnyState(path, range, mode, job);
    try {
        refuseUnfinished(path);
    } catch (const SxException&) {
        // Whoever is at it says more than how one would go on.
        if (range != Shape) takeAnyState(path, Shape, Shared, job);
        throw;
    }
    return lock;
}

SxPtr<ZqImageLock> ZqImageLock::takeAnyState(const SxString& path, Range range, Mode mode,
                                             const SxString& job) {
    SxPtr<ZqImageLock> lock = takeExtracted(path, range, mode, job);
    // What it would change is about to be removed.
    if (range == Shape && mode == Exclusive) ZqExtractNote::refuse(path);
    return lock;
}

SxPtr<ZqImageLock> ZqImageLock::takeExtracted(const SxString& path, Range range, Mode mode,
                                              const SxString& job) {
    auto lock = SxPtr<ZqImageLock>::create(Key(), path, range, mode, job);
    if (range == Shape && mode == Exclusive) {
        awaitLetGo(path);
        dropKernelNote(path);
    }
    if (!ZqImageReplacement::isPending(path)) return lock;
    if (range != Shape || mode != Exclusive) {
        throw SxException("A command was cut off while it put a new image in the place of the one in '" +
                              path +
                              "'; the next that writes there brings that to its end, for instance: tavrin "
                              "mount IMAGE",
                          UNIT, __LINE__);
    }
    ZqImageReplacement::finish(path);
    return lock;
}

SxPtr<ZqImageLock> ZqImageLock::await(const SxString& path, Range range, Mode mode, const SxString& job,
                                      int64 ms) {
    const int64 endNs = SxClock::get().steadyNs() + ms * 1'000'000;
    for (;;) {
        try {
            return takeAnyState(path, range, mode, job);
        } catch (const SxException& e) {
            if (!e.hasTag(HELD) || SxClock::get().steadyNs() > endNs) throw;
        }
        SxTime::msleep(LOOK_MS);
    }
}

bool ZqImageLock::isHeld(const SxString& path, Range range) {
    return ZqFileLock::isLocked(ZqImageFolder::prefix(path) + ZqImageFiles::LOCK, RANGE_BASE + range);
}

void ZqImageLock::finishReplacement(const SxString& path) {
    if (ZqImageReplacement::isPending(path)) takeAnyState(path, Shape, Exclusive, "new image");
}

void ZqImageLock::refuseOptimisation(const SxString& path) {
    if (SxFSAction::isGone(ZqImageFolder::prefix(path) + ZqImageFiles::OPTIMIZE_LOCK)) return;
    throw SxException(
        "Image '" + path +
            "' is in the middle of an optimisation; go on with: tavrin image optimize IMAGE --resume",
        UNIT, __LINE__);
}

void ZqImageLock::refuseUnfinished(const SxString& path) {
    ZqExtractNote::refuse(path);
    refuseOptimisation(path);
    const SxString folder = ZqImageFolder::prefix(path);
    if (SxFSAction::exists(folder + ZqImageFiles::PATCH_PROGRESS) ||
        SxFSAction::exists(folder + ZqImageFiles::PATCHING_LOCK)) {
        throw SxException("Image '" + path +
                              "' is in the middle of a patch; go on with: tavrin patch apply IMAGE --resume",
                          UNIT, __LINE__);
    }
}

ZqImageLock::ZqImageLock(Key, const SxString& path, Range range_, Mode mode, const SxString& job_)
    : folder(path),
      job(job_),
      range(range_) {
    if (!SxFSAction::test_d(path)) {
        throw SxException("Image folder '" + path + "' not found", UNIT, __LINE__);
    }
    // A reader must not leave a lock file where there is nothing to read.
    if (mode == Shared && !ZqImageFolder::holdsImage(path)) {
        throw SxException("Folder '" + path + "' holds no image", UNIT, __LINE__);
    }
    const std::string file = SxOs::hostPath(ZqImageFolder::prefix(path) + ZqImageFiles::LOCK);
    for (;;) {
        fd = openLockFile(file, mode);
        if (mode == Shared && (fd == -EACCES || fd == -EROFS || fd == -ENOENT)) return;
        int result = fd;
        if (fd >= 0) result = SxOs::get().lockRange(fd, RANGE_BASE + range, 1, osLock(mode));
        if (result == -EAGAIN) {
            const SxString holder = describeHolder(fd, range);
            SxOs::get().close(fd);
            throw SxException(HELD, "Image '" + path + "' is in use by " + holder, UNIT, __LINE__);
        }
        if (result < 0) {
            if (fd >= 0) SxOs::get().close(fd);
            throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                              "Cannot lock image '" + path + "'", UNIT, __LINE__);
        }
        if (!isStale(fd, file)) break;
        SxOs::get().close(fd);
    }
    record(mode);
}

ZqImageLock::~ZqImageLock() {
    if (fd < 0) return;
    // A child process that another thread makes at the moment has the file open until it runs its program.
    SxOs& os = SxOs::get();
    os.lockRange(fd, RANGE_BASE + range, 1, SxOs::Lock::None);
    if (slot >= 0) os.lockRange(fd, slot * SLOT_SIZE, 1, SxOs::Lock::None);
    os.close(fd);
}

void ZqImageLock::lower() {
    if (fd < 0) return;
    const int result = SxOs::get().lockRange(fd, RANGE_BASE + range, 1, SxOs::Lock::Shared);
    if (result < 0) {
        throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                          "Cannot lower the lock on image '" + folder + "'", UNIT, __LINE__);
    }
    record(Shared);
}

void ZqImageLock::record(Mode mode) {
    SxOs& os = SxOs::get();
    for (int i = 0; i < N_SLOTS && slot < 0; ++i) {
        if (os.lockRange(fd, i * SLOT_SIZE, 1, SxOs::Lock::Exclusive) == 0) slot = i;
    }
    // The record only serves the words of a refusal: without one the lock holds all the same.
    if (slot < 0) return;
    std::string line =
        SxString(SxString(rangeName(range)) + (mode == Exclusive ? " exclusive " : " shared ") + "process " +
                 SxOs::processId() + " (" + job + ")")
            .str();
    line.resize(SLOT_SIZE - 1, '\n');
    line += '\n';
    os.writeAt(fd, line.data(), SLOT_SIZE, slot * SLOT_SIZE);
}

SxString ZqImageLock::holderOf(const SxString& path, Range range) {
    if (!isHeld(path, range)) return {};
    const std::string file = SxOs::hostPath(ZqImageFolder::prefix(path) + ZqImageFiles::LOCK);
    const int fd = SxOs::get().open(file, SxOs::Read | SxOs::NoFollow, 0);
    const SxString holder = describeHolder(fd, range);
    if (fd >= 0) SxOs::get().close(fd);
    return holder;
}
