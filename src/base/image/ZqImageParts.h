#pragma once

#include "SxFileIO.h"
#include "SxString.h"
#include "ZqImageFiles.h"
#include "ZqSysEnv.h"
#include "ZqTaskMon.h"

#include <optional>

// What splitting and joining a ZqF file share; for these two alone.
//
//   img.zqf  record         parts     state
//   whole    -              -         not split
//   whole    img.zqf.split  some      split cut off: split again
//   whole    img.zqf.info   all       split cut off at its end: join, or split again
//   -        img.zqf.info   all       split
//   prefix   img.zqf.join   the rest  join cut off: join again; the prefix has the missing parts
//
// The record is named img.zqf.info only while all parts are on the device. While a split writes them it is
// named img.zqf.split: otherwise a join after a cut could take parts that never got to the device, and
// remove the whole file for them. While a join is under way the record is renamed to img.zqf.join and not
// removed, since it says which parts there were. A part is removed only when its bytes are on the device as
// part of img.zqf, and img.zqf only when all parts are on the device.

namespace ZqImageParts {

constexpr const char* UNIT = "src/base/ZqImage";
/// Bytes of the buffer that copyBytes() works with.
constexpr int64 BUFFER = 4'096'000;
constexpr const char* PACKED = ".zstd";

/// The sizes and names of the parts of a ZqF file.
struct Parts {
    SxString prefix; ///< path of a part without its number
    uint64 size, partSize, count;
    int nDigits = 1;

    Parts(const SxString& pathPrefix, uint64 size_, uint64 partSize_)
        : prefix(pathPrefix + ZqImageFiles::SPLIT_PART),
          size(size_),
          partSize(partSize_),
          count(size / partSize + (size % partSize != 0 ? 1 : 0)) {
        for (uint64 rest = count; rest >= 10; rest /= 10)
            ++nDigits;
    }

    /// `part` counts from 1.
    SxString path(uint64 part) const { return prefix + SxString::sprintf("%0*ju", nDigits, uintmax_t{part}); }
    uint64 offset(uint64 part) const { return (part - 1) * partSize; }
    uint64 bytes(uint64 part) const { return std::min(partSize, size - offset(part)); }
    /// Whether a part, plain or compressed, has that path.
    bool hasPath(const SxString& file) const {
        if (!file.startsWith(prefix)) return false;
        bool bad = false;
        const int64 part = file.right(prefix).left(PACKED).toInt64(&bad);
        if (bad || part < 1 || static_cast<uint64>(part) > count) return false;
        const SxString plain = path(static_cast<uint64>(part));
        return file == plain || file == plain + PACKED;
    }
};

/// Moves a monitor, where there is one, and asks it whether to stop.
class Progress {
public:
    Progress(ZqTaskMon* monitor_, uint64 total) : monitor(monitor_), t0(ZqSysEnv::getSysTime()) {
        if (!monitor) return;
        monitor->setNTotal(total);
        monitor->setNCurrent(0);
    }
    void add(uint64 n) {
        if (!monitor) return;
        monitor->addNCurrent(n);
        monitor->updateSpeed(t0);
    }
    bool stopped() const { return monitor && monitor->stopRequested(); }
    void refuseStop() const {
        if (stopped()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
    }

private:
    ZqTaskMon* monitor;
    int64 t0;
};

/// Copies `n` bytes from the position of `from` to that of `to`. The system is asked to write them at once,
/// so that the disk works while we copy on, and to forget the source, so that its removal has less left to
/// do.
void copyBytes(SxFileIO* from, SxFileIO* to, uint64 n, SxArray<char>* buffer, Progress* progress);

/// What a split record says; none where it doesn't state sizes that a file and its parts can have.
std::optional<Parts> parseRecord(const SxString& pathPrefix, const SxList<SxString>& lines);

/// What the split record `file` says. Raises where there is none, or it states no such sizes.
Parts readRecord(const SxString& pathPrefix, const SxString& file);

/// Whether a join of the image was cut off.
bool isJoining(const SxString& pathPrefix);

/// The permissions of the file `path`. What is made of that file gets them: parts, and what is joined of
/// them, can be read by those who could read the image, and by nobody else. The umask counts all the same.
int permissionsOf(const SxString& path);

} // namespace ZqImageParts
