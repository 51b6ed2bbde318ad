#pragma once

#include "DiskFolder.h"
#include "DiskLocks.h"
#include "DiskState.h"
#include "DiskThread.h"
#include "FuseFront.h"
#include "Helper.h"
#include "LostWrites.h"
#include "ReadAhead.h"
#include "Upkeep.h"
#include "UserDriver.h"
#include "VolumeProbe.h"
#include "ZqDiskStatus.h"

#include <functional>
#include <memory>

/// What a disk is made from.
struct MountParams {
    SxString image;       ///< canonical path of the image folder
    SxString traceFolder; ///< host path; empty for no trace
    bool readOnly = true, writeLayer = false, removable = false;
    bool hostFlag = false, awaitFileSystem = false, spareFlag = false; ///< kept as they came
    uint64 sizeRaw = 0, sectorSize = 0;                                ///< bytes
    uint64 cursor = 0;                                                 ///< blocks

    /// Whether programs write into `img.zqf` (mode "rw").
    bool writesInPlace() const { return !readOnly && !writeLayer; }
};

/// One mounted image: the virtual disk, the file that shows it to the kernel, the volume on it, its letter
/// and its redirections. All operations are safe from any thread. DiskState has the stages of its life.
///
/// A disk that can't be mounted stays as Failed, with the reason, since the mount call has returned long
/// before.
///
/// Lost writes fail the unmount, though the drive goes: the kernel tells a program of them only if that
/// syncs. So the first loss is kept, shown as the status's failure, and given by eject(). While a volume may
/// be written to there is a note in the disk's folder (ZqServiceFolder::WRITTEN), so that whoever comes after
/// a service that was killed says that writes may be lost.
class Disk {
public:
    /// Opens the image, takes its locks and starts to bring the volume up. `root` is the machine root,
    /// `folder` the disk's own folder, both host paths. Raises where the image can't be served.
    /// `mounterPid`: the process that has it mounted. `onLoss` is called, on a thread of the disk, where
    /// somebody else has ended the mount and what programs wrote went with it: no client is there to be told.
    Disk(const MountParams& params, const SxString& root, const SxString& folder, uint64 deviceId,
         uint64 cacheSize, int64 mounterPid, std::function<void()> onLoss);
    ~Disk();
    Disk(const Disk&) = delete;
    Disk& operator=(const Disk&) = delete;

    /// Takes the volume out of use; gives whether it was in use, and was detached all the same. Raises where
    /// it can't be done.
    bool dismount();

    using End = DiskState::End;
    /// Removes everything; what can't be removed is told in the log. Whoever comes second is told the same.
    End eject();
    /// Grows while what programs have written comes to the disk.
    uint64 getProgress() const { return front.getProgress(); }

    /// Whether the volume is there, so that the guard can be attached.
    bool isMounted() const { return state.is(DiskState::Stage::Mounted); }
    /// Whether the image was removed since, or another one stands in its place. Looks at the image's disk,
    /// which may be stuck; the status tells what this disk's own thread has seen last.
    bool isReplaced() const { return disk.isReplaced(); }
    /// Letter and colon of its drive; empty where it has none.
    SxString getDrive() const { return state.view().drive; }
    /// How many bytes of delivered blocks stay in memory, within moments: the rest goes into a file, and its
    /// disk may be stuck.
    void setCacheSize(uint64 bytes) { upkeep.setCacheSize(bytes); }
    /// Redirects names (relative to the protected folder) to the folder's private copies.
    void redirect(const SxList<SxString>& names, const SxString& directory);
    /// Undoes that.
    void restore();
    void setCursor(uint64 zqfIdx) { disk.setCursor(zqfIdx); } // the upkeep looks after the read-ahead
    /// Raises while the disk is being ejected.
    void suspend();
    /// Moves the write layer into `img.zqf`. Raises while somebody puts blocks of that right.
    void flushLayer();
    void monitorOn(const SxString& traceFolder);
    /// Whoever mounts it has done all of its mount. A disk that a client which was killed has left half made
    /// would lack its redirections, and saves would go nowhere; the next mount takes it away.
    void setReady() { ready = true; }
    /// Whether it is ready, and no name was redirected.
    bool isPlain() const { return ready && !isRedirected; }
    /// The volume's label, from its superblock; empty where that isn't present.
    SxString getLabel() { return isMounted() ? probe.getLabel() : SxString(); }
    /// Whether somebody else has ended the mount, and all of the disk was taken down after that.
    bool wasTakenAway() const;
    bool isGone() const { return state.is(DiskState::Stage::Gone); }

    ZqDiskStatus getStatus();
    VirtualDisk* getVirtualDisk() { return &disk; }
    const MountParams& getParams() const { return params; }
    uint64 getDeviceId() const { return deviceId; }

private:
    void start();
    void bringUp();
    void attach(const SxString& type);
    Helper::Facts runHelper(const SxList<SxString>& words);
    void unblock();
    void cutOff(const SxString& why);
    bool detach();
    bool takeDown(const SxString& why);
    void sweep();
    bool isReadOnly(const SxString& type) const { return params.readOnly || type != "ext4"; }
    SxString describeLostWrites(int closeError) const;

    const MountParams params;
    const std::function<void()> onLoss;
    const SxString root;
    const DiskFolder folder;
    const uint64 deviceId, madeNs;
    const int64 mounterPid;
    DiskLocks locks; ///< until everything is removed

    VirtualDisk disk;
    VolumeProbe probe;
    FuseFront front;
    UserDriver userDriver;
    LostWrites lost;
    ReadAhead readAhead;
    DiskState state;
    SxString loop; ///< device; empty without one. The starter's, and then of who holds `tearing`
    std::atomic<bool> detaching{false}, ending{false}, ready{false}, isAborted{false};
    std::atomic<bool> isRedirected{false};

    SxMutex ejecting; ///< held over an eject, and taken before `tearing`
    SxMutex tearing;  ///< held over everything that unmounts

    // These end before all others are destroyed.
    DiskThread starter;
    std::unique_ptr<DiskThread> ender; ///< from when somebody else has ended the mount; the upkeep's
    Upkeep upkeep;                     ///< ends before the ender, which it may still start
};
