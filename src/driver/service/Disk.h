#pragma once

#include "DriveLetter.h"
#include "FuseFront.h"
#include "Helper.h"
#include "SxPtr.h"
#include "UserDriver.h"
#include "ZqDiskStatus.h"
#include "ZqImageLock.h"

#include <functional>
#include <optional>

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
/// and its redirections. All operations are safe from any thread.
///
///   state     disk  file  volume  letter   goes on to
///   Starting  yes   yes   -       -        Mounted, Failed, Gone
///   Mounted   yes   yes   yes     yes      Detached, Gone
///   Detached  yes   yes   -       yes      Gone        the volume was dismounted
///   Failed    yes   -     -       -        Gone        says why, until it is ejected
///   Gone      -     -     -       -
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
    /// How a disk has ended.
    struct End {
        SxString lost; ///< what a program wrote and the disk could not keep, as a sentence; empty for nothing
        bool busy = false; ///< the volume was in use, and was detached all the same
    };
    /// Removes everything; what can't be removed is told in the log. Whoever comes second is told the same.
    End eject();
    /// Grows while what programs have written comes to the disk.
    uint64 getProgress() const { return front.getProgress(); }

    /// Whether the volume is there, so that the guard can be attached.
    bool isMounted() const;
    /// Whether the image was removed since, or another one stands in its place. Looks at the image's disk,
    /// which may be stuck; the status tells what this disk's own thread has seen last.
    bool isReplaced() const { return disk.isReplaced(); }
    /// Letter and colon of its drive; empty where it has none.
    SxString getDrive() const;
    /// How many bytes of delivered blocks stay in memory, within moments: the rest goes into a file, and its
    /// disk may be stuck.
    void setCacheSize(uint64 bytes) { cacheSize = bytes; }
    /// Redirects names (relative to the protected folder) to the folder's private copies.
    void redirect(const SxList<SxString>& names, const SxString& directory);
    /// Undoes that.
    void restore();
    void setCursor(uint64 zqfIdx);
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
    SxString getLabel();
    /// Whether somebody else has ended the mount, and all of the disk was taken down after that.
    bool wasTakenAway() const;
    bool isGone() const;

    ZqDiskStatus getStatus();
    VirtualDisk* getVirtualDisk() { return &disk; }
    const MountParams& getParams() const { return params; }
    uint64 getDeviceId() const { return deviceId; }

private:
    enum class State { Starting, Mounted, Detached, Failed, Gone };
    class Starter;
    class Ender;
    class Ticker;

    /// While it is held nobody puts blocks of `img.zqf` right, which would undo what programs write there.
    SxPtr<ZqImageLock> takeBlocks() const;
    void start();
    void tick();
    void bringUp();
    void attach(const SxString& type);
    Helper::Facts runHelper(const SxList<SxString>& words);
    void unblock();
    void cutOff(const SxString& why);
    void noteLost(const SxString& why);
    void setHoldsWrites(bool holds);
    bool readBlocking(uint64 offset, uint32 size, char* to);
    SxString detectType();
    bool detach();
    const char* findUnmounted() const;
    void noticeEnd();
    void sweep();
    void removeFolder();
    bool isReadOnly(const SxString& type) const { return params.readOnly || type != "ext4"; }
    bool wantsReadAhead() const { return disk.isComplete() && !disk.getTrace()->isOn(); }
    bool hasDrive() const SX_REQUIRES(mutex) { return state == State::Mounted || state == State::Detached; }
    void applyCacheSize();
    void adjustReadAhead();
    std::optional<bool> takeReadAhead(SxString* setting);
    void fail(const SxString& why);
    SxString describeLostWrites(int closeError) const;
    SxString getLost() const;
    void setState(State newState);
    void logOnce(const SxString& text);

    const MountParams params;
    const std::function<void()> onLoss;
    const SxString root, folder;
    const uint64 deviceId, madeNs;
    const int64 mounterPid;
    SxPtr<ZqImageLock> driveLock, shapeLock; ///< until everything is removed
    SxPtr<ZqImageLock> blocksLock;           ///< the same, of one that writes into `img.zqf`

    VirtualDisk disk;
    FuseFront front;
    UserDriver userDriver;
    DriveLetter letter; ///< guarded by `mutex`
    std::unique_ptr<Starter> starter;
    std::unique_ptr<Ticker> ticker;
    std::unique_ptr<Ender> ender; ///< from the moment when somebody else has ended the mount; the ticker's
    std::atomic<bool> detaching{false};
    int64 lastLookNs = 0; ///< at the mounts; the ticker's
    std::atomic<bool> ending{false}, firstWoken{false}, ready{false}, isAborted{false};
    std::atomic<bool> isRedirected{false};
    std::atomic<bool> replaced{false}; ///< at the ticker's last look
    std::atomic<uint64> cacheSize;     ///< bytes
    uint64 appliedCacheSize;           ///< of these; the ticker's
    /// What programs wrote may still lie in the kernel's memory, and goes with the connection.
    std::atomic<bool> holdsWrites{false};

    SxMutex ejecting; ///< held over an eject, and taken before `tearing`
    SxMutex tearing;  ///< held over everything that unmounts
    mutable SxMutex mutex;
    State state SX_GUARDED_BY(mutex) = State::Starting;
    SxString failure SX_GUARDED_BY(mutex);
    SxString lost SX_GUARDED_BY(mutex);      ///< what programs wrote and the disk didn't get, as a sentence
    End ended SX_GUARDED_BY(mutex);          ///< once it is gone
    SxString loop SX_GUARDED_BY(mutex);      ///< device; empty without one
    SxString readAhead SX_GUARDED_BY(mutex); ///< setting of the kernel; empty without one
    bool isReadingAhead SX_GUARDED_BY(mutex) = false;
    bool isReadAheadDue SX_GUARDED_BY(mutex) = false; ///< what was tried last
    int nReadAheadTries = 0;                          ///< of that; the ticker's
    int64 readAheadNs = 0;                            ///< of the last one; the ticker's
    SxList<SxString> logged SX_GUARDED_BY(mutex);     ///< faults that the log has
    bool fullLogged SX_GUARDED_BY(mutex) = false;
};
