#include "DirectVolume.h"

#include "ErofsMetadata.h"
#include "StoredReader.h"
#include "SxClock.h"
#include "SxException.h"
#include "SxLooseJob.h"
#include "SxOs.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/driver/DirectVolume";

constexpr uint32 OTHERS_WRITE = 022; // mode bits
/// How long metadata wait for the second mount, from when they were used last.
constexpr int64 KEPT_NS = 60'000'000'000;

[[noreturn]] void fail(const SxString& what, int error) {
    throw SxException(what + ": " + SxOs::errorText(error), UNIT, __LINE__);
}

int openUnnamed(const SxString& folder) {
    const int fd = ::open(folder.ascii(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600);
    if (fd < 0) fail("No file can be made in '" + folder + "'", errno);
    return fd;
}

struct stat lookAt(const std::string& path) {
    struct stat info = {};
    if (::stat(path.c_str(), &info) != 0) fail("Cannot look at '" + SxString(path) + "'", errno);
    return info;
}

std::string stateOfFile(const std::string& path) {
    const struct stat info = lookAt(path);
    std::string text;
    for (const int64 number : {static_cast<int64>(info.st_dev), static_cast<int64>(info.st_ino),
                               int64{info.st_size}, int64{info.st_ctim.tv_sec}, int64{info.st_ctim.tv_nsec}})
        text += std::to_string(number) + " ";
    return text;
}

/// Whoever changes an image must be able to see that the kernel still reads it. The disk has `img.zqf` open
/// now, so whoever can see it sees that.
void requireSeen(const StoredFile& stored) {
    const int isOpen = SxOs::get().isOpen(stored.getPath());
    if (isOpen == 1) return;
    throw SxException("nobody could see that '" + SxString(stored.getPath()) + "' is still read: " +
                          (isOpen == 0 ? SxString("it seems not to be open") : SxOs::errorText(isOpen)),
                      UNIT, __LINE__);
}

bool isOfProgram(const StoredFile& stored) {
    struct statfs info = {};
    return ::fstatfs(stored.getFd(), &info) == 0 && static_cast<uint32>(info.f_type) == FUSE_SUPER_MAGIC;
}

uint64 sizeOf(const StoredFile& stored) {
    return static_cast<uint64>(stored.getStat().size);
}

} // namespace

SxString DirectVolume::whyNot(const VirtualDisk& disk, const SxString& type, bool isReadOnly) {
    if (::geteuid() != 0) return "that takes root";
    if (type != "erofs") return "its file system is " + type;
    if (!isReadOnly) return "it can be written to";
    if (disk.hasLayer()) return "something was written to it";
    if (!disk.isComplete()) return "blocks are missing";
    if (disk.getTrace()->isOn()) return "it is traced";
    if (disk.isSuspended()) return "it is suspended";
    if (disk.getReads()->hasQACursor()) return "its reads are counted from a place on";
    const SxStat zqf = disk.getStored().getStat();
    // Its program may give other bytes to the kernel than it gave to whoever checked them.
    if (isOfProgram(disk.getStored())) return "its file system is that of a program (FUSE)";
    // Such a user couldn't see that the kernel reads the file, which takes its owner's rights.
    if ((zqf.permissions & OTHERS_WRITE) != 0) return "others than its owner may write to its file";
    const auto size = static_cast<uint64>(zqf.size);
    if (size % ZqBlocks::SIZE != 0 || size / ZqBlocks::SIZE < disk.nIncluded()) {
        return "'" + SxString(disk.getStored().getPath()) + "' has " + size + " bytes, which aren't its " +
               disk.nIncluded() + " blocks";
    }
    return {};
}

DirectVolume::File::~File() {
    ::close(fd);
}

std::string DirectVolume::stateOf(const VirtualDisk& disk, const SxString& image) {
    return stateOfFile(disk.getStored().getPath()) + stateOfFile(image.str() + "/" + ZqImageFiles::IDX);
}

DirectVolume::DirectVolume(const VirtualDisk& disk, const SxString& image, std::string state_,
                           const std::function<void()>& look)
    : file{openUnnamed(image)},
      state(std::move(state_)) {
    requireSeen(disk.getStored());
    fill(disk, look);
}

void DirectVolume::fill(const VirtualDisk& disk, const std::function<void()>& look) {
    StoredReader reader(disk.getMap(), disk.getStored(), look);
    ErofsMetadata metadata(&reader, disk.getMap(), sizeOf(disk.getStored()) / ZqBlocks::SIZE);
    int64 at = 0;
    metadata.write([&](const std::string& bytes) {
        look();
        const int64 n = static_cast<int64>(bytes.size());
        const int64 written = SxOs::get().writeAt(file.fd, bytes.data(), n, at);
        if (written < 0) fail("Its metadata can't be written", static_cast<int>(-written));
        if (written < n) fail("Its metadata can't be written", ENOSPC);
        at += n;
    });
}

bool DirectVolume::isCached(const VirtualDisk& disk) {
#ifndef SYS_cachestat
    constexpr long SYS_cachestat = 451;
#endif
    struct {
        uint64 offset, size;
    } range = {0, 0}; // to its end
    struct {
        uint64 nCached, nDirty, nWriteback, nEvicted, nRecentlyEvicted;
    } found = {};
    const uint64 size = sizeOf(disk.getStored());
    const auto page = static_cast<uint64>(::sysconf(_SC_PAGESIZE));
    const auto memory = static_cast<uint64>(std::max(::sysconf(_SC_PHYS_PAGES), 0L)) * page;
    if (size > memory / 4) return false;
    if (::syscall(SYS_cachestat, disk.getStored().getFd(), &range, &found, 0) != 0) return false;
    return found.nCached * page > size / 2;
}

const char* DirectVolume::readAhead(bool isCached) {
    // From memory, in runs of 50, 512 gives 3.1 GB/s and 1024 from 0.5 to 1.6; from the disk 1.2 and 1.3.
    return isCached ? "512" : "1024";
}

DirectVolumes::Ptr DirectVolumes::get(const VirtualDisk& disk, const SxString& image, int64 mounterPid,
                                      const std::function<void()>& look) {
    Ptr volume;
    {
        const SxMutexBlock block(&mutex);
        const auto found = volumes.find(image);
        if (found != volumes.end()) volume = found->second.volume;
    }
    std::string state = DirectVolume::stateOf(disk, image);
    if (!volume || volume->getState() != state)
        volume = std::make_shared<DirectVolume>(disk, image, std::move(state), look);
    Kept kept{volume, mounterPid, SxClock::get().steadyNs()};
    const SxMutexBlock block(&mutex);
    std::swap(volumes[image], kept);
    return volume;
}

void DirectVolumes::drop(const SxString& image) {
    Ptr former;
    const SxMutexBlock block(&mutex);
    const auto found = volumes.find(image);
    if (found == volumes.end()) return;
    former = std::move(found->second.volume);
    volumes.erase(found);
}

bool DirectVolumes::Kept::hasEnded(int64 nowNs) const {
    const bool isGone = mounterPid > 0 && ::kill(static_cast<pid_t>(mounterPid), 0) != 0 && errno == ESRCH;
    return isGone || nowNs - sinceNs >= KEPT_NS;
}

void DirectVolumes::dropEnded() {
    std::vector<Ptr> former;
    const int64 nowNs = SxClock::get().steadyNs();
    {
        const SxMutexBlock block(&mutex);
        std::erase_if(volumes, [&](auto& each) {
            if (!each.second.hasEnded(nowNs)) return false;
            former.push_back(std::move(each.second.volume));
            return true;
        });
    }
    // The end of the file may wait for a disk that is stuck.
    if (!former.empty()) const SxLooseJob job("drop", [files = std::move(former)] {});
}

DirectVolumes::Place DirectVolumes::placeOf(const VirtualDisk& disk, const SxString& image) {
    return {lookAt(image.str()).st_dev, disk.getStored().getStat().device};
}

void DirectVolumes::noteUnable(const VirtualDisk& disk, const SxString& image) {
    const Place place = placeOf(disk, image);
    const SxMutexBlock block(&mutex);
    unable.insert(place);
}

bool DirectVolumes::isUnable(const VirtualDisk& disk, const SxString& image) const {
    const Place place = placeOf(disk, image);
    const SxMutexBlock block(&mutex);
    return unable.contains(place);
}
