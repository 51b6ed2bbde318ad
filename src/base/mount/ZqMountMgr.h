#pragma once

#include "SxArray.h"
#include "SxPtr.h"
#include "SxString.h"
#include "ZqDriveKinds.h"
#include "ZqTraceParams.h"

class ZqAppParams;
class ZqEpicParams;
class ZqRedirection;
struct ZqLaunchValues;

/// What kind of image the guard is told of.
enum ZqImageType : int { ZqFImage = 1 };

/// Mounts images as drives and speaks with the service that serves them. It is logic over the control library
/// of the drive service (zqdevctl.h), over what the system says of volumes (ZqVolume.h) and over the
/// registry; it knows nothing of how a disk is served.
///
/// A plain class without virtual operations, cheap to create, and not shared: every thread has an instance of
/// its own, which only remembers the drive that it mounted or found last. A drive that another thread or
/// process mounted is found through the service. `image` is the path of the image folder; `mountPoint` a
/// letter and a colon ("E:"). All operations that fail raise SxException, with the service's own reason,
/// where it gives one, as the innermost cause (see ZqDriveStatus). The kinds of drives that records name go
/// by this class's name, too.
///
/// Waits for the letter, the file system, the guard and the end of a drive go in passes of a stated length,
/// with looks every 10 ms (SxWait). They end early: once the service says why it can't bring a disk up, the
/// mount fails with that text, instead of the timeout that would follow up to a minute later.
class ZqMountMgr : public ZqDriveKinds {
public:
    /// The version of the drive service that this library is made for.
    static constexpr const char* DRIVER_VERSION = "3.4.10";
    /// Largest cache that setCacheSize() takes, in bytes.
    static constexpr int64 MAX_CACHE = 2'000'000'000;

    /// What is to be mounted, and how. Sizes in bytes.
    struct MountRequest {
        MountMode mode = ReadOnly;
        DeviceMode deviceMode = Removable;
        SxString image;              ///< the image folder
        SxString traceFolder;        ///< of the trace; empty for none
        uint64 sizeRaw = 0;          ///< of the disk, as img.json says
        uint64 sectorSize = 0;       ///< as img.json says
        uint64 cursor = 0;           ///< ZqF index; so many blocks of `img.zqf` are there
        bool hostFlag = false;       ///< goes to the service as it is
        bool awaitFileSystem = true; ///< whether to wait for the file system, too
        bool spareFlag = false;      ///< goes to the service as it is
        bool noLaunchers = false;    ///< the record's `access` counts as empty
    };

    // The service.

    /// Whether the drive service answers. Never raises; a failure is logged.
    static bool drivePing();
    /// The same for the guard.
    static bool guardPing();
    static SxString getDriveVersion();
    static SxString getGuardVersion();
    /// Whether an image that asks for this version of the service can be served: one up to DRIVER_VERSION,
    /// compared by the first three numbers. What isn't made of numbers can't.
    static bool isDriverVersionAllowed(const SxString& version);
    static void guardLogging(bool on);
    /// `bytes`: the service's memory for blocks that were delivered on demand, for each disk; below 0
    /// counts as 0.
    static void setCacheSize(int64 bytes);
    /// Write down which disks there are, and bring them up again.
    static void storeDisks();
    static void loadDisks();
    /// Ejects all disks and forgets the cache size.
    static void reset();

    // Mounting.

    /// The record of the application that is mounted, kept as a copy; mountImageZQF() reads it where it isn't
    /// set, and without it no registry entries are made or removed.
    void setAppParams(const ZqAppParams& params);

    /// Turns an image folder into a running drive: checks the image, mounts it twice (the first time only to
    /// prepare the guard), attaches the guard, redirects what must survive a run to
    /// `C:/ProgramData/TAVRIN/<guid>`, and sets up the launchers that the record's `access` names; words
    /// that it doesn't know are passed over. What a launcher changes of how the application is started goes
    /// into `app.json` of the image, and getLaunch() gives it; a launcher that isn't installed fails the
    /// mount (tag ZqLaunchCommand::NOT_INSTALLED). Everything that can be refused without a drive is refused
    /// first: a newer image format, names that lead out, an unknown trace method, sizes, the map's digest.
    /// Holds the image's shape meanwhile. The trace folder is emptied and traced into unless it is an empty
    /// text; `traceMethod` is then a text of ZqTraceParams::Method. Waits up to five minutes, always for the
    /// file system, too; gives the mount point. After a failure no drive is left; should its unmount fail,
    /// too, that only goes to the log, and the first failure is raised.
    SxString mountImageZQF(const MountRequest& request, const SxString& traceMethod);
    SxString mountImageZQF(MountMode mode, DeviceMode deviceMode, const SxString& image, uint64 sizeRaw,
                           uint64 sectorSize, uint64 cursor, bool hostFlag, const SxString& traceFolder,
                           const SxString& traceMethod);
    /// How the application is started after mountImageZQF().
    ZqLaunchValues getLaunch() const;
    /// The mount alone: no checks but of the version, no guard, no redirection, no launchers. What mounts
    /// that ended without an unmount have left for launchers and in the registry is taken back first. Waits
    /// up to a minute for the drive letter and, with `awaitFileSystem`, another for the file system, then
    /// makes the registry entries. A removable disk becomes a fixed one where a policy forbids the former.
    SxString mountImage(const MountRequest& request);
    SxString mountImage(MountMode mode, DeviceMode deviceMode, const SxString& image,
                        const SxString& traceFolder, bool hostFlag, bool awaitFileSystem, bool spareFlag,
                        uint64 sizeRaw, uint64 sectorSize, uint64 cursor);
    /// Ends a mount: fails what is held, takes back the registry entries and what was changed for launchers,
    /// as far as the record of that names it for this image (ZqLaunchers), dismounts the volume, ejects the
    /// disk and waits until it is gone, as long as no minute passes without progress. A busy volume is taken
    /// away all the same: a program that still has files open gets I/O errors unless the kernel serves the
    /// drive, and the unmount succeeds, and says so in the log and by wasBusy(). Where a step fails, the disk
    /// is removed the hard way and the failure raised. `hardEject` does that at once. Harmless where the
    /// image isn't mounted. Gives true.
    bool umountImage(const SxString& image, bool hardEject);
    /// Ends the mount of an image that has lost its drive letter, since somebody changed or removed the link;
    /// umountImage() fails where no letter leads to the disk, so this is to be asked first. Removes the
    /// registry entries and ejects the disk; the link is left as it is. False where the image isn't mounted
    /// or has its letter; then nothing is done.
    bool umountWithoutLetter(const SxString& image);
    /// Removes what a service that was killed has left in the machine root (mounts, devices, letters), and
    /// what its mounts have changed in the registry and for launchers. Gives whether a drive of `image` was
    /// among that.
    /// `*written`: what programs had written to that drive, and not synced, may be lost.
    bool removeLeftovers(const SxString& image, bool* written) const;
    /// Whether a program still used the volume that the last umountImage() took from it.
    bool wasBusy() const noexcept { return busy; }

    // Launchers. All keep the record of what they change; what fails is to be taken back by the unmount.

    /// Asks the Epic Games Launcher of this user and machine root to close, and ends its process.
    void closeEpicGamesLauncher() const;
    /// Gives the Epic Games Launcher the titles of this instance's drive in the place of the player's. Raises
    /// where there is no drive, and what is wrong with the drive's entries.
    void genEpicLibrary();
    /// Takes that back. Raises as genEpicLibrary(), and takes it back all the same.
    void cleanEpicLibrary() const;
    /// Gives EA Origin the title's folder of this instance's drive, and takes it back.
    void writeEALibEntries() const;
    void delEALibEntries() const;
    /// The main title that genEpicLibrary() has found; null before.
    const SxPtr<ZqEpicParams>& getEpicParams() const noexcept { return epicParams; }

    // Finding a drive.

    bool isMounted(const SxString& image) const;
    /// The drive of an image, as the service says; empty where it isn't mounted. Raises where the letter no
    /// longer leads to it.
    SxString queryMntPoint(const SxString& image) const;
    SxString queryMountPoint(const SxString& image) const;
    /// The drive that this instance knows, else the one that the service says; empty where the image isn't
    /// mounted.
    SxString getMntPoint(const SxString& image) const;
    /// The drive letter minus 'A'; -1 where the image has none or can't be asked after. Doesn't raise.
    int64 getDevId(const SxString& image) const;

    // Drives of the machine.

    /// Whether a policy of the machine or of the user forbids removable disks.
    static bool isRemovableRestricted();
    /// Hides a drive from the desktop, or shows it again.
    static void hideDrive(const SxString& mountPoint, bool hide);
    static SxString queryDriveLabel(const SxString& mountPoint);
    /// Without effect on a read-only volume.
    static void setDriveLabel(const SxString& mountPoint, const SxString& label);

    // The state of one disk. While the image isn't mounted, most have no effect, or give false, 0, or zeros,
    // so that a thread may poll an image during its unmount.

    /// Raises where the image isn't mounted.
    bool isRemovable(const SxString& image) const;
    bool isSuspended(const SxString& image) const;
    /// Whether a read of a block that isn't there is held. Raises where the service can't tell, with the tag
    /// ZqVolume::SILENT where that doesn't answer: an underflow that it holds isn't over.
    bool isUnderflow(const SxString& image) const;
    bool isMonitored(const SxString& image) const;
    /// Whether a trace record has come since the last question.
    bool retrieveTraceEvent(const SxString& image) const;
    /// Number of blocks that are there, at the start of `img.zqf`.
    uint64 getCursor(const SxString& image) const;
    void setCursor(const SxString& image, uint64 zqfIdx) const;
    /// A pretended cursor, reads above which are counted. Raises where the kernel serves the drive, as do
    /// suspend() and monitorOn(): nobody sees its reads.
    void setQACursor(const SxString& image, uint64 zqfIdx) const;
    /// Bytes.
    uint64 getSectorSize(const SxString& image) const;
    /// Holds all reads and writes until resume().
    void suspend(const SxString& image) const;
    void resume(const SxString& image) const;
    /// From now on reads of missing blocks fail.
    void failOnUnderflow(const SxString& image) const;
    /// Moves the write layer into `img.zqf`, as far as that has a place for it.
    void flushTW(const SxString& image) const;
    /// Begins a trace in `traceFolder`, which is emptied. `traceMethod` is a text of ZqTraceParams::Method;
    /// `time0` in milliseconds since 1970 UTC, 0 for now. Does nothing where the image is traced already.
    void monitorOn(const SxString& image, const SxString& traceFolder, const SxString& traceMethod,
                   uint64 time0) const;
    void monitorOff(const SxString& image) const;

    /// Number of missing blocks that readers wait for.
    uint64 getUnderflowQueueLen(const SxString& image) const;
    /// Takes the ZqF index of the next missing block from the queue.
    uint64 popUnderflowZqFBlock(const SxString& image) const;
    /// Takes up to `count` of them. Gives as many as there were; `count` zeros while the image isn't mounted.
    SxArray<uint64> popUnderflowZqFBlocks(const SxString& image, uint64 count) const;
    /// Offset in `img.zqf` and length, in bytes, of the oldest read that is held.
    SxArray<uint64> getRequestData(const SxString& image) const;
    /// Delivers the bytes of the blocks from `zqfIdx` on.
    void sendBlockToUFLayer(const SxString& image, const SxArray<char>& data, uint64 zqfIdx) const;

    /// Attaches the guard to the image's drive; waits up to a minute. Likewise guardOff().
    void guardOn(const SxString& image) const;
    void guardOff(const SxString& image) const;
    void setImageType(const SxString& image, ZqImageType type) const;
    /// Redirects the names, a comma-separated list relative to the drive's protected folder, to `directory`.
    void reparse(const SxString& image, const SxString& names, const SxString& directory) const;

private:
    /// In the root of every mounted file system: as long as it can be seen, the file system is there.
    static constexpr const char* MARKER = "/gxprefetch.info";
    /// A drive is waited for in passes of this length. A counter ends the wait for it to come when that is
    /// above the limit, so there is one pass more; the wait for its end has so many.
    static constexpr int64 PASS_MS = 1000, LIMIT = 60;

    using VersionCall = int (*)(char* buffer, uint64* size);
    static SxString getVersion(VersionCall call);
    /// Removes and makes a folder for a trace of the image. Only what is a trace, or empty, is removed: a
    /// mistyped path would cost an image, or a folder of documents.
    static void requireSight(const SxString& image);
    static void clearTraceFolder(const SxString& image, const SxString& traceFolder);
    void ejectImage(const SxString& image);

    void checkImage(const SxString& image, uint64 sizeRaw, uint64 cursor, const SxString& traceFolder) const;
    void prepareGuard(const SxString& image);
    void equipDrive(const SxString& image, const SxString& traceFolder, ZqTraceParams::Method traceMethod,
                    const ZqRedirection& redirection) const;
    void redirect(const SxString& image, const ZqRedirection& redirection) const;
    void awaitMntPoint(const SxString& image);
    void awaitFiles(const SxString& image) const;
    void umountAfterFailure(const SxString& image);
    void removeRegistryEntries() const;
    void revertLaunchers() const;
    void setUpLaunchers(const SxList<SxString>& access);
    void setUpEpic();
    void setUpRobotCache();
    void requireDrive() const;
    /// Gives the target id of the disk.
    uint64 releaseVolume(const SxString& image, bool removable);
    void awaitEnd(const SxString& image, uint64 targetId, uint64 madeNs) const;
    /// The drive letter as the guard's functions take it; raises where there is none.
    unsigned char guardId(const SxString& image) const;

    SxString mntPoint;
    SxString mntImage; ///< the image that `mntPoint` is of
    SxPtr<ZqAppParams> appParams;
    SxPtr<ZqEpicParams> epicParams;
    bool busy = false;
};
