#include "ZqExtractDrive.h"

#include "SxException.h"
#include "SxProcessInfo.h"
#include "ZqAppParams.h"
#include "ZqBlocks.h"
#include "ZqExtractNote.h"
#include "ZqImageFolder.h"
#include "ZqImageParams.h"
#include "ZqVolume.h"

ZqExtractDrive::~ZqExtractDrive() {
    if (!isMounted) return;
    try {
        umount();
    } catch (const SxException& e) {
        log("Cannot eject TAVRIN disk " + image + " : " + e.toString(3, "\n"));
    }
}

SxString ZqExtractDrive::mount(const ZqAppParams& app) {
    // Files are copied as the image has them, and the private ones over them. A launcher may be missing.
    // Entries that a mount writes would go with its end, and those of an installation with them.
    ZqAppParams bare = app;
    bare.access.removeAll();
    bare.registry.removeAll();
    bare.dirmap.removeAll();
    bare.filemap.removeAll();
    manager.setAppParams(bare);
    const ZqImageParams params(ZqImageFolder::prefix(image));
    const auto sizeRaw = static_cast<uint64>(params.sizeRaw);
    SxString mntPoint = manager.mountImageZQF(ZqMountMgr::ReadOnly, ZqMountMgr::Removable, image, sizeRaw,
                                              static_cast<uint64>(params.emulatedSectorSize),
                                              sizeRaw / ZqBlocks::SIZE, false, "", "inc-monitoring");
    isMounted = true;
    manager.guardOff(image);
    return mntPoint;
}

void ZqExtractDrive::note(const SxString& destination) const {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk)) return;
    ZqExtractNote note;
    note.destination = destination;
    note.drive = disk.madeNs;
    note.write(image);
}

void ZqExtractDrive::umount() {
    isMounted = false;
    manager.umountImage(image, false);
}

bool ZqExtractDrive::isForeign(const SxString& image) {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk)) return false;
    SxProcessInfo mounter;
    // A mount that was cut off is anybody's.
    if (!disk.ready) return SxProcessInfo::get(disk.mounterPid, &mounter) && mounter.isRunning();
    return disk.madeNs == 0 || !ZqExtractNote::exists(image) ||
           ZqExtractNote::read(image).drive != disk.madeNs;
}

void ZqExtractDrive::removeLeft(const SxString& image) {
    ZqDiskStatus disk;
    if (!ZqVolume::findDisk(image, &disk) || isForeign(image)) return;
    ZqMountMgr().umountImage(image, disk.drive.isEmpty());
}
