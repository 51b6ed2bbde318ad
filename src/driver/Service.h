#pragma once

#include "Disk.h"
#include "SxMutex.h"
#include "ZqDriveWire.h"

#include <map>
#include <memory>

/// The table of disks and what a client can ask of it. All operations are safe from any thread.
class Service {
public:
    /// `root` is the machine root, `folder` the service's own folder with a trailing slash; host paths.
    Service(const SxString& root, const SxString& folder);

    /// Carries out one request. Gives the body of the answer; raises where the request fails.
    /// `peer` is the client's process id.
    std::string handle(unsigned kind, const std::string& body, int64 peer);
    /// Adds to the list of images whose drives a killed service left behind.
    /// `written`: those of them whose drives may have lost what programs wrote.
    static void noteLeft(const SxString& folder, const SxList<SxString>& images,
                         const SxList<SxString>& written);
    /// Regular work, about every 100 ms.
    void tick();
    bool hasDisks() const;
    /// Whether a client wants it to end now, and nothing was mounted since.
    bool isRetiring() const { return retiring; }
    /// Ejects everything.
    void ejectAll();

private:
    using DiskPtr = std::shared_ptr<Disk>;

    DiskPtr find(const SxString& image) const;
    DiskPtr require(ZqDriveWire::Reader* request) const;
    DiskPtr byDeviceId(uint64 deviceId) const;
    DiskPtr byLetter(uint64 devId) const;
    std::vector<DiskPtr> all() const;

    void mount(const MountParams& params, int64 peer);
    /// Raises where the service would have to answer itself.
    void refuseOwn(const SxString& path) const;
    enum class Left { No, Read, Written };
    Left takeLeft(const SxString& image);
    Disk::End eject(const DiskPtr& disk);
    void ejectImage(ZqDriveWire::Reader* request, ZqDriveWire::Writer* answer);
    /// False where there are disks.
    bool retire();
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

    SxMutex mounting; ///< held over making a disk, so that an image or a device id is not taken twice
    mutable SxMutex mutex;
    std::map<uint64, DiskPtr> disks SX_GUARDED_BY(mutex); ///< by device id
};
