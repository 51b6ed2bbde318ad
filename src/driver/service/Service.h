#pragma once

#include "Disk.h"
#include "Leftovers.h"
#include "SxMutex.h"
#include "ZqDriveWire.h"

#include <map>
#include <memory>

/// The table of disks and what a client can ask of it. All operations are safe from any thread.
///
/// A disk that is stuck, since that of its image is, holds up its own image alone. So an image is opened
/// without the table's lock, and its place is reserved meanwhile. Each Disk does its regular work on a thread
/// of its own. All disks are ejected at a time. And no request looks at the disk of another image than its
/// own: a state tells what the image's own disk has seen last (a mount looks afresh, at its own image), and a
/// disk sets its cache size itself.
class Service {
public:
    /// `root` is the machine root, `folder` the service's own folder with a trailing slash; host paths.
    Service(const SxString& root, const SxString& folder);

    /// Goes on with disks that a service which was killed has left to the kernel. One whose image is somebody
    /// else's for a while is waited for. One that can't be taken over, or is another mount namespace's, stays
    /// as it is until a client wants it to go or mounts its image. Returns within moments: the rest is done
    /// beside all else, and whoever asks for such an image meanwhile waits. To be called once, before all
    /// others.
    void takeOver(const Leftovers::Disks& found);

    /// Carries out one request. Gives the body of the answer; raises where the request fails.
    /// `peer` is the client's process id.
    std::string handle(unsigned kind, const std::string& body, int64 peer);
    /// Adds an image to the list of those whose drives a killed service left. That is a file in `folder`, so
    /// that an `umount` of it still reverts the registry, whoever has started a service meanwhile.
    /// `isWritten`: its drive may have lost what programs wrote; whoever asks for the image first is told,
    /// once.
    static void noteLeft(const SxString& folder, const SxString& image, bool isWritten);
    /// Regular work, about every 100 ms. Disks do theirs by themselves.
    void tick();
    /// Whether it has a disk, or is making one or taking one over.
    bool hasDisks() const;
    /// Whether a client wants it to end now, and nothing was mounted since.
    bool isRetiring() const { return retiring; }
    /// Ejects everything, all disks at a time, and no longer lets anything be mounted: a mount that is under
    /// way is refused, and what it has made is taken away. What programs wrote and was lost thereby is told
    /// to whoever asks for the image next, since no client waits for this. Raises nothing.
    void end() noexcept;

private:
    using DiskPtr = std::shared_ptr<Disk>;
    /// How long whatever wants to use a disk, or to remove it, waits while that is being taken over.
    static constexpr int64 TAKEN_MS = 5000;

    DiskPtr find(const SxString& image) const;
    DiskPtr require(const SxString& image) const;
    DiskPtr byDeviceId(uint64 deviceId) const;
    DiskPtr byLetter(uint64 devId) const;
    std::vector<DiskPtr> all() const;

    DiskPtr mount(const MountParams& params, int64 peer);
    /// Raises on a path that lies on a drive of this service, which would have to answer itself.
    void refuseOwn(const SxString& path) const;
    class Reservation;
    class Ejector;
    /// Takes a device id for the image; none where another request is making the image's disk.
    std::optional<uint64> reserve(const SxString& image);
    void takeOne(uint64 deviceId, const DirectNote& note);
    DiskPtr tryToTake(uint64 deviceId, const DirectNote& note);
    bool isAwaited(uint64 deviceId) const;
    void claim(uint64 deviceId);
    void noteWhy(uint64 deviceId, const SxString& why);
    std::optional<uint64> awaitedOf(const SxString& image) const;
    bool awaitTaken(const SxString& image, int64 ms) const;
    std::optional<Leftovers::Found> giveUp(uint64 deviceId);
    bool isGivenUp(const SxString& image) const;
    [[noreturn]] static void refuseTaking(const SxString& image);
    bool removeLeft(uint64 deviceId);
    bool removeEnded(uint64 deviceId);
    DiskFolder folderOf(uint64 deviceId) const;
    void requireNoUnfit(const SxString& image) const;
    bool removeAllLeft(const SxString& image);
    Leftovers::Disks leftOf(const SxString& image) const;
    ZqDiskStatus stateOfLeft(uint64 deviceId, const Leftovers::Found& found) const;
    std::optional<ZqDiskStatus> stateOf(const SxString& image);
    std::vector<ZqDiskStatus> allStates() const;
    Disk::Place placeOf(uint64 deviceId, const SxString& image);
    DiskPtr make(const MountParams& params, uint64 deviceId, int64 peer);
    enum class Left { No, Read, Written };
    Left takeLeft(const SxString& image);
    void noteLost(const SxString& image);
    Disk::End eject(const DiskPtr& disk);
    void ejectImage(ZqDriveWire::Reader* request, ZqDriveWire::Writer* answer);
    /// False where there are disks.
    bool retire();
    struct Loss {
        SxString image, text;
    };
    std::vector<Loss> ejectAll();
    void requireNoEnd() const SX_REQUIRES(mutex);
    bool isInUse() const SX_REQUIRES(mutex);
    void storeDisks() const;
    void loadDisks();
    void reset();
    uint64 findProgress(const SxString& image, uint64 deviceId);
    bool handleState(ZqDriveWire::Call call, ZqDriveWire::Reader* request, ZqDriveWire::Writer* answer);
    bool handleDisk(ZqDriveWire::Call call, ZqDriveWire::Reader* request, ZqDriveWire::Writer* answer);
    bool handleGuard(ZqDriveWire::Call call, ZqDriveWire::Reader* request, ZqDriveWire::Writer* answer);
    bool handleService(ZqDriveWire::Call call, ZqDriveWire::Reader* request, ZqDriveWire::Writer* answer,
                       int64 peer);

    const SxString root, folder;
    std::atomic<uint64> cacheSize{0}; // bytes
    std::atomic<bool> guardLogging{false}, retiring{false};
    DirectVolumes directVolumes;

    SxMutex leftFile; ///< held over the file of what was left, which lies in the service's own folder
    mutable SxMutex mutex;
    std::map<uint64, DiskPtr> disks SX_GUARDED_BY(mutex); ///< by device id
    struct Reserved {
        SxString image;
        bool isGivenUp = false; ///< it was to be taken over, and a client wanted it to go meanwhile
    };
    /// Disks that are being made or taken over, by device id: opening an image may take as long as its own
    /// disk does, and until that has ended nobody else gets the number, by which all of a disk is found.
    std::map<uint64, Reserved> reserved SX_GUARDED_BY(mutex);
    /// Disks of a former service that aren't taken over. Those that still may be are reserved, too.
    Leftovers::Disks lefts SX_GUARDED_BY(mutex);
    bool ending SX_GUARDED_BY(mutex) = false; ///< no further disk comes

    std::vector<std::unique_ptr<DiskThread>> takers; ///< which end before all others are destroyed
};
