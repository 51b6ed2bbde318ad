#include "DiskFolder.h"

#include "DriverLog.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "SxTime.h"
#include "ZqServiceFolder.h"

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/driver/DiskFolder";
/// In it the kernel names what it serves, and how it begins those names.
constexpr const char *SERVED = "/sys/class/bdi", *KIND = "erofs-";
} // namespace

SxString DiskFolder::getFront() const {
    return path + "/" + ZqServiceFolder::FRONT;
}

SxString DiskFolder::getFile() const {
    return getFront() + "/" + ZqServiceFolder::DISK_FILE;
}

SxString DiskFolder::getVolume() const {
    return path + "/" + ZqServiceFolder::VOLUME;
}

void DiskFolder::noteImage(const SxString& image) const {
    SxFileIO::writeAtomic(path + "/" + ZqServiceFolder::IMAGE, image, 0600);
}

void DiskFolder::noteIdentity(uint64 deviceId) const {
    SxFileIO::writeAtomic(
        path + "/" + ZqServiceFolder::IDENTITY,
        SxString(ZqServiceFolder::VENDOR) + "\n" + ZqServiceFolder::PRODUCT + "\n" + deviceId + "\n", 0600);
}

void DiskFolder::makeMountPoints() const {
    for (const SxString& folder : {getFront(), getVolume()})
        SxFSAction::mkdir_p(folder, 0700);
}

void DiskFolder::noteWritten(bool isWritten) const {
    const SxString file = path + "/" + ZqServiceFolder::WRITTEN;
    if (isWritten) {
        SxFileIO::writeAtomic(file, "", 0600);
    } else {
        SxOs::get().unlink(file.str());
    }
}

void DiskFolder::noteKernel(const SxString& names) const {
    SxFileIO::writeAtomic(path + "/" + ZqServiceFolder::KERNEL, names, 0600);
}

SxString DiskFolder::whyServed() const {
    const SxString file = path + "/" + ZqServiceFolder::KERNEL,
                   untold = "Whether the kernel still has it can't be told: ";
    const SxList<SxString> names =
        SxFSAction::test_f(file) ? SxFileIO::readUtf8(file).tokenize(' ') : SxList<SxString>();
    if (names.isEmpty()) return untold + "'" + file + "' doesn't say what the kernel calls it";
    std::vector<std::string> served;
    const int error = SxOs::get().list(SERVED, &served);
    if (error < 0) return untold + "'" + SERVED + "' can't be read: " + SxOs::errorText(error);
    for (const SxString& name : names) {
        if (!name.startsWith(KIND)) return untold + "'" + file + "' is damaged";
        if (std::find(served.begin(), served.end(), name.str()) == served.end()) continue;
        return SxString(names.getSize() == 1 ? "The kernel still has it ("
                                             : "The kernel may still have it (") +
               name + "): a program may use it there, or have a file of it open";
    }
    return {};
}

DiskFolder::Mounting::Mounting(const DiskFolder& folder)
    : file(folder.path.str() + "/" + ZqServiceFolder::MOUNTING),
      fd(SxOs::get().open(file, SxOs::Read | SxOs::Write | SxOs::Create | SxOs::NoFollow, 0600)) {
    const int error = fd < 0 ? fd : SxOs::get().lockRange(fd, 0, 1, SxOs::Lock::Exclusive);
    if (error == 0) return;
    if (fd >= 0) SxOs::get().close(fd);
    throw SxException("Cannot lock '" + SxString(file) + "': " + SxOs::errorText(error), UNIT, __LINE__);
}

DiskFolder::Mounting::~Mounting() {
    SxOs::get().unlink(file);
    SxOs::get().close(fd);
}

bool DiskFolder::Mounting::awaitEnd(const SxString& path, int64 ms) {
    SxOs& os = SxOs::get();
    const int fd =
        os.open(path.str() + "/" + ZqServiceFolder::MOUNTING, SxOs::Read | SxOs::Write | SxOs::NoFollow, 0);
    if (fd < 0) return true;
    const bool isFree = SxWait::pass(ms, [&] { return os.lockRange(fd, 0, 1, SxOs::Lock::Exclusive) == 0; });
    os.close(fd);
    return isFree;
}

void DiskFolder::remove() const {
    const std::string base = path.str() + "/";
    // All files, since a former service may have been killed while it wrote one under another name. The call
    // fails on folders.
    std::vector<std::string> names;
    SxOs::get().list(base, &names);
    for (const std::string& name : names)
        SxOs::get().unlink(base + name);
    SxOs::get().removeDir(base + ZqServiceFolder::VOLUME);
    SxOs::get().removeDir(base + ZqServiceFolder::FRONT);
    const int result = SxOs::get().removeDir(path.str());
    if (result < 0) driverLog("folder " + path + " can't be removed: " + SxOs::errorText(result));
}
