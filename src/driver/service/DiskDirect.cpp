#include "Disk.h"

#include "DriverLog.h"
#include "Helper.h"
#include "SxException.h"
#include "ZqImageFiles.h"

// A disk whose volume the kernel serves.

namespace {

constexpr const char* UNIT = "src/driver/DiskDirect";
constexpr int64 MOUNT_MS = int64{24} * 3600 * 1000; // the image's disk may be slow, and nothing else waits

} // namespace

/// Settles that the kernel is to serve the volume, so that nothing comes between that needs sight of the
/// reads. Gives why not; empty where it is.
SxString Disk::claimDirect(const SxString& type) {
    const SxMutexBlock block(&sight);
    SxString why = DirectVolume::whyNot(disk, type, params.readOnly);
    if (why.isEmpty() && directVolumes->isUnable(disk, params.image))
        why = "the kernel took no image from there before";
    isDirect = why.isEmpty();
    return why;
}

/// Has the kernel serve the volume; false where the service has to.
bool Disk::attachDirect(const SxString& type) {
    SxString why;
    try {
        why = claimDirect(type);
        if (why.isEmpty()) mountDirect();
    } catch (const SxException& e) {
        why = e.toString(SxException::ShowMessage, ": ");
    } catch (const std::exception& e) {
        why = e.what(); // a library's, for want of memory
    }
    if (why.isEmpty()) return true;
    if (!ending) driverLog("image " + params.image + " is served by the service: " + why);
    if (isDirect) sweep(); // it may have come as far as the mount
    const SxMutexBlock block(&sight);
    isDirect = false;
    return false;
}

void Disk::mountDirect() {
    const std::shared_ptr<const DirectVolume> volume =
        directVolumes->get(disk, params.image, mounterPid, [this] {
            if (ending) throw SxException("The disk was ejected", UNIT, __LINE__);
        });
    kernelNote.make();
    const DiskFolder::Mounting mounting(folder);
    const bool isCached = DirectVolume::isCached(disk);
    Helper::Facts facts = Helper::run({"attachDirect", folder.getVolume(), DirectVolume::readAhead(isCached),
                                       isCached ? "cached" : "uncached"},
                                      MOUNT_MS, nullptr, nullptr,
                                      {volume->getFd(), disk.getStored().getFd(), mounting.getFd()});
    const auto unable = facts.find("unable");
    if (unable != facts.end()) {
        directVolumes->noteUnable(disk, params.image);
        throw SxException("The kernel takes no image from that disk: " + SxString(unable->second), UNIT,
                          __LINE__);
    }
    folder.noteKernel(SxString(facts["names"]));
    driverLog("image " + params.image + " is served by the kernel, " +
              (facts["cached"] == "yes" ? "through" : "past") + " the page cache of its file");
    readAhead.begin(SxString(facts["readahead"]), true);
    const SxMutexBlock block(&sight);
    note.readAhead = SxString(facts["readahead"]);
}

DirectNote::File Disk::stateOfMap() const {
    SxStat info;
    const SxString file = params.image + "/" + ZqImageFiles::IDX;
    const int error = SxOs::get().stat(file.str(), &info);
    if (error == 0) return DirectNote::File::of(info);
    throw SxException("Cannot look at '" + file + "': " + SxOs::errorText(error), UNIT, __LINE__);
}

/// Lets the next service take the disk over. Comes last of what makes it: without this it is removed.
void Disk::noteDirect() {
    const SxMutexBlock block(&sight);
    note.device = DirectNote::deviceAt(folder.getVolume());
    note.nIncluded = disk.nIncluded();
    note.params.cursor = disk.getCursor(); // the last blocks may have come while the volume came up
    note.zqf = DirectNote::File::of(disk.getStored().getStat());
    note.idx = stateOfMap();
    note.write(folder.getPath());
}

/// Raises unless the image is still the one that its note was written for.
void Disk::requireUnchanged() {
    const SxMutexBlock block(&sight);
    if (DirectNote::File::of(disk.getStored().getStat()) != note.zqf || stateOfMap() != note.idx) {
        throw SxException("Image '" + params.image +
                              "' was replaced or changed since, so its drive may give wrong data",
                          UNIT, __LINE__);
    }
}

/// Goes on with a volume that is mounted.
void Disk::takeOver() {
    const SxMutexBlock block(&sight);
    isDirect = true;
    kernelNote.takeOver();
    ready = note.ready;
    isRedirected = note.isRedirected;
    readAhead.begin(note.readAhead, true);
    const SxString drive = state.takeOver(root, folder.getVolume());
    driverLog("image " + params.image + " is still drive " + drive + ", which a former service has left");
    upkeep.start();
}

void Disk::setReady() {
    ready = true;
    directVolumes->drop(params.image); // no further mount of it follows
    updateNote([](DirectNote* kept) { kept->ready = true; });
}

void Disk::updateNote(const std::function<void(DirectNote*)>& change) {
    const SxMutexBlock block(&sight);
    change(&note);
    if (isDirect && !note.device.isEmpty()) note.write(folder.getPath());
}

/// To be called before the volume or anything on it is unmounted: half of it mustn't be taken over for all.
void Disk::endNote() {
    const SxMutexBlock block(&sight);
    note.device = SxString();
    DirectNote::remove(folder.getPath());
}

void Disk::requireSight(const SxString& wanted) {
    if (!isDirect) return;
    const SxString text = "The kernel serves the drive, so its reads can't be " + wanted;
    upkeep.logOnce(text);
    throw SxException(text, UNIT, __LINE__);
}
