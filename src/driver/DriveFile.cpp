#include "DriveFile.h"

#include "SxException.h"

#include <cerrno>
#include <fcntl.h>
#include <utility>

namespace {

constexpr const char* UNIT = "src/driver/DriveFile";
/// A sync of more than this is done in steps of this size, so that one on a slow disk can be seen to go on.
constexpr uint64 SYNC_STEP = 4 << 20;

} // namespace

void DriveFile::open(const std::string& path_, unsigned flags) {
    close();
    path = path_;
    fd = SxOs::get().open(path, flags, 0600);
    if (fd < 0) raise("Cannot open", fd, UNIT, __LINE__);
    SxStat info;
    const int status = SxOs::get().statFd(fd, &info);
    if (status == 0 && info.kind == SxStat::File) return;
    close();
    if (status < 0) raise("Cannot look at", status, UNIT, __LINE__);
    throw SxException("'" + SxString(path) + "' is not a plain file", UNIT, __LINE__);
}

void DriveFile::adopt(DriveFile* other) {
    close();
    std::swap(fd, other->fd);
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
    }
    return 0;
}

int DriveFile::sync() const {
    if (const int error = writeBackInSteps()) return error;
    const int error = -SxOs::get().sync(fd);
    ++nSynced;
    return error;
}

void DriveFile::raise(const SxString& what, int64 error, const char* unit, int line) const {
    throw SxException(SxException(SxOs::errorText(error), unit, line), what + " '" + path + "'", unit, line);
}
