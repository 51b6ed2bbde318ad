#include "Disk.h"

#include "DriverLog.h"
#include "Helper.h"
#include "SxException.h"

// A disk whose volume the kernel serves.

namespace {

constexpr const char* UNIT = "src/driver/DiskDirect";
constexpr int64 MOUNT_MS = int64{24} * 3600 * 1000; // the image's disk may be slow, and nothing else waits

} // namespace

/// Settles that the kernel is to serve the volume, so that nothing comes between that needs sight of the
/// reads. Says in the log why not.
bool Disk::claimDirect(const SxString& type) {
    const SxMutexBlock block(&sight);
    const SxString why = DirectVolume::whyNot(disk, type, isReadOnly(type));
    isDirect = why.isEmpty();
    if (!isDirect) driverLog("image " + params.image + " is served by the service: " + why);
    return isDirect;
}

/// Has the kernel serve the volume; false where the service has to.
bool Disk::attachDirect(const SxString& type) {
    if (!claimDirect(type)) return false;
    try {
        const std::shared_ptr<const DirectVolume> volume =
            DirectVolume::make(disk, params.image, directVolume->get());
        directVolume->set(volume);
        Helper::Facts facts =
            Helper::run({"attachDirect", folder.getVolume(), ReadAhead::valueOf(true),
                         DirectVolume::isCached(disk) ? "cached" : "uncached"},
                        MOUNT_MS, nullptr, nullptr, {volume->getFd(), disk.getStored().getFd()});
        readAhead.begin(SxString(facts["readahead"]), true);
        const SxMutexBlock block(&sight);
        note.readAhead = SxString(facts["readahead"]);
        return true;
    } catch (const SxException& e) {
        driverLog("image " + params.image +
                  " is served by the service: " + e.toString(SxException::ShowMessage, ": "));
    }
    sweep(); // it may have come as far as the mount
    isDirect = false;
    return false;
}

/// Lets the next service take the disk over. Comes last of what makes it: without this it is removed.
void Disk::noteDirect() {
    const SxMutexBlock block(&sight);
    const SxStat zqf = disk.getStored().getStat();
    note.device = DirectNote::deviceAt(folder.getVolume());
    note.zqfDevice = zqf.device;
    note.zqfInode = zqf.inode;
    note.write(folder.getPath());
}

/// Goes on with a volume that is mounted.
void Disk::takeOver() {
    const SxMutexBlock block(&sight);
    const SxStat zqf = disk.getStored().getStat();
    if (zqf.device != note.zqfDevice || zqf.inode != note.zqfInode) {
        throw SxException("The kernel serves another 'img.zqf' than that of image '" + params.image + "'",
                          UNIT, __LINE__);
    }
    isDirect = true;
    ready = note.ready;
    isRedirected = note.isRedirected;
    readAhead.begin(note.readAhead, true);
    const SxString drive = state.takeOver(root, folder.getVolume());
    driverLog("image " + params.image + " is still drive " + drive + ", which a former service has left");
    upkeep.start();
}

void Disk::setReady() {
    ready = true;
    updateNote([](DirectNote* kept) { kept->ready = true; });
}

void Disk::updateNote(const std::function<void(DirectNote*)>& change) {
    const SxMutexBlock block(&sight);
    change(&note);
    if (isDirect && !note.device.isEmpty()) note.write(folder.getPath());
}

void Disk::requireSight(const SxString& wanted) {
    if (!isDirect) return;
    const SxString text = "The kernel serves the drive, so its reads can't be " + wanted;
    upkeep.logOnce(text);
    throw SxException(text, UNIT, __LINE__);
}
