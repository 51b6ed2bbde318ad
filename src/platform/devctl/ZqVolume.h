#pragma once

#include "SxException.h"
#include "SxList.h"
#include "SxString.h"
#include "ZqDiskStatus.h"

// What the system tells of volumes and their drives, beside the control library of the drive service.

/// What a drive says of its disk.
struct ZqVolumeIdentity {
    SxString vendorId, productId;
    uint64 targetId = 0; ///< of its SCSI address
};

/// Operations on drives and volumes. Safe from any thread.
class ZqVolume {
public:
    /// Tag of a failure: the service is there and didn't answer in time. It may have been stopped, or the
    /// machine be busy, and answer later.
    static constexpr const char* SILENT = "ServiceSilent";

    /// Tag of a failure: another client has the image mounted already.
    static constexpr const char* ALREADY_MOUNTED = ZqDiskStatus::ALREADY_MOUNTED;

    /// Letter and colon of each logical drive ("C:", "E:"), in order.
    static SxList<SxString> getDrives();
    /// Asks the disk of a drive for its identity; false where the drive can't be opened or doesn't answer.
    static bool queryIdentity(const SxString& drive, ZqVolumeIdentity* identity);
    /// The drive of a disk, as its service says; empty where it has none yet, or where the link no longer has
    /// the text that the service gave it, since somebody has changed or removed it. The service is asked and
    /// no link is searched for the identity of the disk: links outlive a power cut, and those of another
    /// user's service of this machine root look the same.
    static SxString findDrive(const ZqDiskStatus& disk);
    /// Puts the link of a drive back that somebody has changed or removed. False where it can't, and where
    /// another disk has the letter by now.
    static bool restoreDrive(const ZqDiskStatus& disk);
    /// Whether this process sees the disk's volume mounted; by that alone a client believes that it is. It
    /// doesn't where somebody has unmounted the volume, or where the service lives in another mount
    /// namespace.
    static bool isVisible(const ZqDiskStatus& disk);
    /// Whether the disk's volume is mounted in another mount namespace, from which it doesn't come through to
    /// this process. The service says in which namespace it lives: device numbers alone can't tell such a
    /// drive from one that somebody has unmounted a moment ago.
    static bool isElsewhere(const ZqDiskStatus& disk);
    /// A sentence on the service of that process, whose drives this one can't see.
    static SxString elsewhereText(int64 servicePid) {
        return SxString("The drive service (process ") + servicePid +
               ") lives in another mount namespace, whose drives this process can't see; it ends by itself "
               "half a minute after its last drive";
    }
    /// Sees to it that this process will see what it mounts. A service of another mount namespace without
    /// drives is ended, so that the next one starts in ours. Raises where it has drives that are mounted
    /// and none of them comes through to this process.
    static void requireView();
    /// Letters that lead below this service's folder, while no service runs, but those of drives that the
    /// kernel still serves. They were left by one that was killed, or whose machine lost its power; even its
    /// folder is gone then.
    static SxList<SxString> getLeftDrives();
    /// Takes the volume of a drive out of use, after writing what is to be written. Where a program still
    /// uses it, it is detached all the same, ends with an I/O error for that program unless the kernel serves
    /// it, and `*busy` is set.
    /// Raises where it can't.
    static void dismount(const SxString& drive, bool* busy);
    /// Takes the medium out of the drive's disk, so that the service ends it. A disk that another client has
    /// ended meanwhile is no failure. Raises where it can't.
    static void ejectMedia(const SxString& drive);
    /// The label of the volume; empty where it has none or can't be asked.
    static SxString getLabel(const SxString& drive);
    /// Sets the label; without effect on a read-only volume.
    static void setLabel(const SxString& drive, const SxString& label);

    /// All disks of the machine root's service, in the order of their device ids; none where no service runs.
    /// Raises where it can't tell.
    static SxList<ZqDiskStatus> getDisks();
    /// The disk of one image, by any spelling of its folder; false where it isn't mounted. Raises where the
    /// service can't tell.
    static bool findDisk(const SxString& image, ZqDiskStatus* status);
    /// Looks whether a mounted image was removed since, or another one stands in its place. May wait for the
    /// image's disk. Raises where the service can't tell.
    static bool isReplaced(const SxString& image);
    /// Says that the mount of an image is complete. A mount that a client which was killed has left half made
    /// would lack its redirections, and saves would go nowhere; the next mount takes it away. (The service
    /// knows the mounting process, so one that still lives is waited for.)
    static void setReady(const SxString& image);
    /// The image folders whose drives a service that was killed has left, as long as no other one runs, but
    /// those that the kernel still serves: the next service takes them over.
    static SxList<SxString> getLeftovers();
    /// The image folders whose drives the kernel serves in another mount namespace, as long as no service
    /// runs; one that runs tells of them as of others.
    static SxList<SxString> getServedElsewhere();
    /// Whether the service is of another version. Such a one takes no mounts; its drives can be asked after
    /// and ejected. Raises where it can't tell.
    static bool isForeign();
    /// Removes what a service that was killed has left in this machine root (mounts, loop devices,
    /// connections, letters, the socket), by starting one where anything is left: a service tidies up when it
    /// starts. Gives whether a drive of `image` was, or has been since it was last asked for, among that.
    /// `*written`: what programs had written to that drive may be lost. While a service of another version
    /// serves, nothing is removed.
    static bool removeLeftovers(const SxString& image, bool* written);
    /// A number that grows while what programs wrote to an image's drive comes to its disk; stays as it is
    /// where the service can't be asked, or doesn't serve the image.
    static uint64 getProgress(const SxString& image);
    /// From now on an answer of a service may take so long at most, in seconds: for whoever only asks how
    /// things are, and needn't wait for a service that may be stopped.
    static void setPatience(int seconds);
    /// Whether a program still used the volume that zqDriveEjectImage() took away last on this thread.
    static bool wasBusy();
    /// Why the last function of the control library failed on this thread, in words for the user; empty where
    /// the last one succeeded.
    static SxString getLastFailure();
    /// The same as an exception, with the tag SILENT or ALREADY_MOUNTED where that was the reason. `unit` and
    /// `line`: the place that it names.
    static SxException getLastException(const SxString& unit, int line);
};
