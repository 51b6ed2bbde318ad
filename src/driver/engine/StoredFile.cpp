#include "StoredFile.h"

#include "ZqBlocks.h"
#include "ZqImageFiles.h"

#include <cerrno>

namespace {
constexpr const char* UNIT = "src/driver/StoredFile";
} // namespace

StoredFile::StoredFile(const SxString& folder_, uint64 nIncluded_, DriveFailure* failure_)
    : folder(folder_),
      nIncluded(nIncluded_),
      failure(failure_) {
}

void StoredFile::open(bool isWritten) {
    file.open(folder.str() + ZqImageFiles::ZQF,
              isWritten ? SxOs::Read | SxOs::Write | SxOs::NoFollow : SxOs::Read);
    sizeAtStart = file.getSize();
    if (!isWritten) return;
    // What a killed service has written may not be on the disk yet, and programs rely on it after a sync.
    file.noteWritten(0, sizeAtStart);
    dirty = true;
}

SxStat StoredFile::getStat() const {
    SxStat info;
    const int error = SxOs::get().statFd(file.getFd(), &info);
    if (error < 0) file.raise("Cannot look at", error, UNIT, __LINE__);
    return info;
}

SxString StoredFile::replacedText() const {
    return "The image '" + folder + "' was removed, or replaced by another one, since it was mounted";
}

void StoredFile::noteEnd() {
    SxStat info;
    if (end.load() != 0) return;
    if (SxOs::get().statFd(file.getFd(), &info) == 0) end = static_cast<uint64>(info.size);
}

bool StoredFile::isAtEnd(uint64 from) const {
    const ZqfIdx last{nIncluded - 1};
    const uint64 known = end.load();
    SxStat info;
    return known > static_cast<uint64>(last.byte()) && from >= known &&
           SxOs::get().statFd(file.getFd(), &info) == 0 && from >= static_cast<uint64>(info.size);
}

int StoredFile::write(ZqfIdx first, uint64 size, const char* data) {
    if (failure->isStopped()) return EIO;
    const int error = file.writeAt(data, size, static_cast<uint64>(first.byte()));
    dirty = true;
    // A full disk refuses this write, and nothing that was taken before is lost; a later one may find room.
    // After any other error nobody knows what the file holds.
    return error == 0 || error == ENOSPC ? error : stop("Cannot write", error);
}

int StoredFile::zero(ZqfIdx zqfIdx, uint64 size) {
    static constexpr char ZEROS[ZqBlocks::SIZE] = {};
    if (failure->isStopped()) return EIO;
    if (SxOs::get().punchHole(file.getFd(), zqfIdx.byte(), static_cast<int64>(size)) == 0) {
        // Set after the hole is made: a sync in between would clear the flag and might miss the hole.
        dirty = true;
        return 0;
    }
    // A file system without holes.
    return write(zqfIdx, size, ZEROS);
}

int StoredFile::sync() {
    if (failure->isStopped()) return EIO;
    const int error = dirty.exchange(false) ? file.sync() : 0;
    return error ? stop("Cannot bring to the disk", error) : 0;
}

int StoredFile::stop(const char* what, int error) {
    return failure->stop(error, [&] { return SxString(what) + " '" + file.getPath() + "'"; });
}
