#pragma once

#include "DirectNote.h"
#include "DirectVolume.h"
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

/// One mounted image: the virtual disk, the file that shows it to the kernel, the volume on it, its letter
/// and its redirections. All operations are safe from any thread. DiskState has the stages of its life.
///
/// Where it can, the kernel serves the volume by itself (DirectVolume), and the service only keeps its letter
/// and its locks. That is settled when the volume comes up and stays so, since open files would show a
/// change. A service that comes after one that was killed takes such a disk over (DirectNote).
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
    /// What the disks of a service have in common, and what each gets from it.
    struct Place {
        SxString root;   ///< the machine root, a host path
        SxString folder; ///< the disk's own folder, a host path
        uint64 deviceId;
        uint64 cacheSize;             ///< bytes
        DirectVolumes* directVolumes; ///< which outlives the disk
        /// Called, on a thread of the disk, where somebody else has ended the mount and what programs wrote
        /// went with it: no client is there to be told.
        std::function<void()> onLoss;
    };
    /// Opens the image, takes its locks and starts to bring the volume up. Raises where the image can't be
    /// served. `mounterPid`: the process that has it mounted.
    Disk(const MountParams& params, const Place& place, int64 mounterPid);
    /// Takes over what a service that was killed has left to the kernel. Raises where it can't; the mount
    /// stays then. `claim` is called once the image is open, which may take long, and before anything of the
    /// mount is touched: it raises where the disk is no longer wanted.
    Disk(const DirectNote& note, const Place& place, const std::function<void()>& claim);
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
    /// These need sight of the reads, and so raise where the kernel serves the volume. suspend() raises while
    /// the disk is being ejected, too.
    void suspend();
    void setQACursor(uint64 zqfIdx);
    void monitorOn(const SxString& traceFolder);
    /// Moves the write layer into `img.zqf`. Raises while somebody puts blocks of that right.
    void flushLayer();
    /// Whoever mounts it has done all of its mount. A disk that a client which was killed has left half made
    /// would lack its redirections, and saves would go nowhere; the next mount takes it away.
    void setReady();
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
    Disk(const DirectNote& note, const Place& place, const std::function<void()>* claim);
    void start();
    void bringUp();
    void attach(const SxString& type);
    bool attachDirect(const SxString& type);
    SxString claimDirect(const SxString& type);
    void mountDirect();
    DirectNote::File stateOfMap() const;
    void requireUnchanged();
    void noteDirect();
    void takeOver();
    void endNote();
    void updateNote(const std::function<void(DirectNote*)>& change);
    void requireSight(const SxString& wanted) SX_REQUIRES(sight);
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
    DirectVolumes* const directVolumes;
    const uint64 deviceId, madeNs;
    const int64 mounterPid;
    DiskLocks locks; ///< until everything is removed
    KernelNote kernelNote;

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
    std::atomic<bool> isDirect{false}; ///< the kernel serves the volume; set with `sight`

    /// Held over what needs sight of the reads, and while it is settled who serves the volume. Taken after
    /// `tearing`, by who holds both.
    SxMutex sight;
    DirectNote note SX_GUARDED_BY(sight);
    SxMutex ejecting; ///< held over an eject, and taken before `tearing`
    SxMutex tearing;  ///< held over everything that unmounts

    // These end before all others are destroyed.
    DiskThread starter;
    std::unique_ptr<DiskThread> ender; ///< from when somebody else has ended the mount; the upkeep's
    Upkeep upkeep;                     ///< ends before the ender, which it may still start
};
