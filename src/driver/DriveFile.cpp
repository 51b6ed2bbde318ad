#include "DriveFile.h"

#include "SxException.h"

#include <cerrno>
#include <utility>

namespace {

constexpr const char* UNIT = "src/driver/DriveFile";

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
    if (done < 0) return static_cast<int>(-done);
    return static_cast<uint64>(done) == n ? 0 : ENOSPC;
}

int DriveFile::sync() const {
    return -SxOs::get().sync(fd);
}

void DriveFile::raise(const SxString& what, int64 error, const char* unit, int line) const {
    throw SxException(SxException(SxOs::errorText(error), unit, line), what + " '" + path + "'", unit, line);
}
