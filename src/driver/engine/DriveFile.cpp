#include "DriveFile.h"

#include "Counted.h"
#include "SxClock.h"
#include "SxException.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <sstream>
#include <sys/sysmacros.h>
#include <utility>

namespace {

constexpr const char* UNIT = "src/driver/DriveFile";
/// A sync of more than this is done in steps of this size, so that one on a slow disk can be seen to go on.
constexpr uint64 SYNC_STEP = 4 << 20;

/// What the disk has to write, for whatever program, to count as one step of progress; and how long that
/// counts after the last step of our own.
constexpr uint64 DEVICE_STEP = (1 << 20) / 512; // sectors
constexpr int64 MAX_FOREIGN_NS = int64{600} * 1'000'000'000;

/// Sectors that the disk or partition of this number has written; false where the system doesn't tell, as of
/// file systems without a device of their own.
bool readWritten(uint64 device, uint64* nSectors) {
    constexpr int64 MAX_TEXT = 1024;
    SxOs& os = SxOs::get();
    const std::string file =
        "/sys/dev/block/" + std::to_string(major(device)) + ":" + std::to_string(minor(device)) + "/stat";
    const int fd = os.open(file, SxOs::Read, 0);
    if (fd < 0) return false;
    std::string text(MAX_TEXT, '\0');
    const int64 n = os.readAt(fd, text.data(), MAX_TEXT, 0);
    os.close(fd);
    std::istringstream fields(text.substr(0, static_cast<size_t>(std::max<int64>(n, 0))));
    uint64 reads = 0, merged = 0, sectors = 0, ms = 0, writes = 0, writesMerged = 0;
    return static_cast<bool>(fields >> reads >> merged >> sectors >> ms >> writes >> writesMerged >>
                             *nSectors);
}

} // namespace

void DriveFile::open(const std::string& path_, unsigned flags) {
    close();
    path = path_;
    take(SxOs::get().open(path, flags, 0600));
}

void DriveFile::openIn(int folder, const std::string& path_, unsigned flags) {
    close();
    path = path_;
    take(SxOs::get().openIn(folder, path.substr(path.rfind('/') + 1), flags, 0600));
}

void DriveFile::take(int opened) {
    fd = opened;
    if (fd < 0) raise("Cannot open", fd, UNIT, __LINE__);
    SxStat info;
    const int status = SxOs::get().statFd(fd, &info);
    device = info.device;
    if (status == 0 && info.kind == SxStat::File) return;
    close();
    if (status < 0) raise("Cannot look at", status, UNIT, __LINE__);
    throw SxException("'" + SxString(path) + "' is not a plain file", UNIT, __LINE__);
}

void DriveFile::adopt(DriveFile* other) {
    close();
    std::swap(fd, other->fd);
    device = other->device.load();
    if (path.empty()) path = other->path;
}

void DriveFile::close() {
    if (fd >= 0) SxOs::get().close(std::exchange(fd, -1));
}

bool DriveFile::isInPlace() const {
    SxStat own, named;
    return SxOs::get().statFd(fd, &own) == 0 && SxOs::get().stat(path, &named) == 0 &&
           own.device == named.device && own.inode == named.inode;
}

uint64 DriveFile::getSize() const {
    SxStat info;
    const int status = SxOs::get().statFd(fd, &info);
    if (status < 0) raise("Cannot get the size of", status, UNIT, __LINE__);
    return static_cast<uint64>(info.size);
}

int64 DriveFile::readAt(void* buffer, uint64 n, uint64 offset) const {
    return SxOs::get().readAt(fd, buffer, static_cast<int64>(n), static_cast<int64>(offset));
}

int DriveFile::writeAt(const void* buffer, uint64 n, uint64 offset) const {
    stepNs = SxClock::get().steadyNs();
    const Counted counted(&nUnderWay);
    const int64 done = SxOs::get().writeAt(fd, buffer, static_cast<int64>(n), static_cast<int64>(offset));
    noteWritten(offset, offset + n);
    if (done < 0) return static_cast<int>(-done);
    return static_cast<uint64>(done) == n ? 0 : ENOSPC;
}

void DriveFile::noteWritten(uint64 begin, uint64 end) const {
    for (uint64 now = dirtyBegin; begin < now && !dirtyBegin.compare_exchange_weak(now, begin);) {
    }
    for (uint64 now = dirtyEnd; end > now && !dirtyEnd.compare_exchange_weak(now, end);) {
    }
    nDirty += end - begin;
}

/// The steps only make the sync after them short, so it doesn't matter what a write at the same time adds.
int DriveFile::writeBackInSteps() const {
    const uint64 begin = dirtyBegin.exchange(~uint64{0}), end = dirtyEnd.exchange(0);
    if (nDirty.exchange(0) <= SYNC_STEP) return 0;
    for (uint64 at = begin; at < end; at += SYNC_STEP) {
        constexpr unsigned AND_WAIT =
            SYNC_FILE_RANGE_WAIT_BEFORE | SYNC_FILE_RANGE_WRITE | SYNC_FILE_RANGE_WAIT_AFTER;
        if (::sync_file_range(fd, static_cast<off64_t>(at), SYNC_STEP, AND_WAIT) != 0) {
            const int error = errno;
            // The kernel tells of a lost write once for each descriptor: the sync would know nothing of it.
            if (error == EIO || error == ENOSPC || error == EDQUOT) return error;
            // A file system that can't do this: the sync does it all.
            return 0;
        }
        nSynced += SYNC_STEP;
        stepNs = SxClock::get().steadyNs();
    }
    return 0;
}

int DriveFile::sync() const {
    stepNs = SxClock::get().steadyNs();
    const Counted counted(&nUnderWay);
    if (const int error = writeBackInSteps()) return error;
    const int error = -SxOs::get().sync(fd);
    ++nSynced;
    return error;
}

/// Asks the kernel alone, with the device's number that was noted when the file was opened. A file system may
/// ask its server even for that, and a server that is stuck would hold up whoever wants to know whether the
/// sync goes on.
void DriveFile::lookAtDevice() const {
    uint64 now = 0;
    if (SxClock::get().steadyNs() - stepNs.load() > MAX_FOREIGN_NS || !readWritten(device, &now)) return;
    uint64 last = nSectors.load();
    if (now - last >= DEVICE_STEP && nSectors.compare_exchange_strong(last, now)) ++nSynced;
}

void DriveFile::raise(const SxString& what, int64 error, const char* unit, int line) const {
    throw SxException(SxException(SxOs::errorText(error), unit, line), what + " '" + path + "'", unit, line);
}
