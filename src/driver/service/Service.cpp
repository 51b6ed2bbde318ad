#include "Service.h"

#include "DriverLog.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "SxTime.h"
#include "ZqServiceFolder.h"

#include <algorithm>

using ZqDriveWire::Reader, ZqDriveWire::Writer;

namespace {

constexpr const char* UNIT = "src/driver/Service";
/// In the place of the process id of a mounter that has ended.
constexpr int64 NOBODY = 0;
/// How long a mount waits for another one of its image that is under way.
constexpr int64 SAME_IMAGE_MS = 15'000;
/// Begins a second line of an image whose drive may have lost writes; the path follows.
const SxString WRITTEN_MARK = "written ";

[[noreturn]] void refuse(const SxString& text) {
    throw SxException(text, UNIT, __LINE__);
}

[[noreturn]] void refuseSecond(const SxString& image) {
    throw SxException(ZqDiskStatus::ALREADY_MOUNTED, "Image '" + image + "' is mounted already", UNIT,
                      __LINE__);
}

} // namespace

Service::Service(const SxString& root_, const SxString& folder_) : root(root_), folder(folder_) {
}

void Service::refuseTaking(const SxString& image) {
    refuse("Image '" + image + "' is still being taken over: somebody has it, or its disk doesn't answer");
}

Service::DiskPtr Service::find(const SxString& image) const {
    if (!awaitTaken(image, TAKEN_MS)) refuseTaking(image);
    const SxMutexBlock block(&mutex);
    for (const auto& [id, disk] : disks) {
        if (disk->getParams().image == image) return disk;
    }
    return nullptr;
}

Service::DiskPtr Service::require(const SxString& image) const {
    DiskPtr disk = find(image);
    if (!disk) refuse("Image '" + image + "' is not mounted");
    return disk;
}

Service::DiskPtr Service::byDeviceId(uint64 deviceId) const {
    const SxMutexBlock block(&mutex);
    const auto found = disks.find(deviceId);
    if (found == disks.end()) refuse("No disk has the device id " + SxString(deviceId));
    return found->second;
}

Service::DiskPtr Service::byLetter(uint64 devId) const {
    const std::string drive = std::string(1, static_cast<char>('A' + devId % 26)) + ":";
    for (const DiskPtr& disk : all()) {
        if (devId < 26 && disk->getDrive() == SxString(drive)) return disk;
    }
    refuse("No disk of this service is drive '" + SxString(drive) + "'");
}

std::vector<Service::DiskPtr> Service::all() const {
    const SxMutexBlock block(&mutex);
    std::vector<DiskPtr> result;
    for (const auto& [id, disk] : disks)
        result.push_back(disk);
    return result;
}

bool Service::hasDisks() const {
    const SxMutexBlock block(&mutex);
    return isInUse();
}

bool Service::isInUse() const {
    // Its end waits for the takers, and it can serve nothing while it does.
    return !disks.empty() || !reserved.empty() ||
           std::any_of(takers.begin(), takers.end(), [](const auto& taker) { return taker->isRunning(); });
}

void Service::refuseOwn(const SxString& path) const {
    if ((path + "/").startsWith(folder.str() + ZqServiceFolder::MOUNTS + "/")) {
        refuse("'" + path + "' lies on a drive of this service");
    }
}

void Service::noteLeft(const SxString& folder, const SxString& image, bool isWritten) {
    const SxString file = folder + ZqServiceFolder::LEFT;
    SxList<SxString> all;
    if (SxFSAction::test_f(file)) all = SxFileIO::readUtf8(file).tokenize('\n');
    const SxString mark = WRITTEN_MARK + image;
    if (!all.contains(image)) all.append(image);
    if (isWritten && !all.contains(mark)) all.append(mark);
    SxFileIO::writeAtomic(file, SxString::join(all, "\n"), 0600);
}

/// Takes the image from the list of those that were left; gives what that said.
Service::Left Service::takeLeft(const SxString& image) {
    const SxString file = folder + ZqServiceFolder::LEFT;
    if (!SxFSAction::test_f(file)) return Left::No;
    SxList<SxString> others;
    Left found = Left::No;
    for (const SxString& each : SxFileIO::readUtf8(file).tokenize('\n')) {
        if (each == WRITTEN_MARK + image) {
            found = Left::Written;
        } else if (each == image) {
            if (found == Left::No) found = Left::Read;
        } else {
            others.append(each);
        }
    }
    if (found == Left::No) return found;
    if (others.isEmpty()) {
        SxFSAction::rm(file);
    } else {
        SxFileIO::writeAtomic(file, SxString::join(others, "\n"), 0600);
    }
    return found;
}

void Service::noteLost(const SxString& image) {
    const SxMutexBlock block(&leftFile);
    noteLeft(folder, image, true);
}

/// A device id that is taken until the end of the scope.
class Service::Reservation {
public:
    /// Waits for another mount of the same image, and for nothing else.
    Reservation(Service* service_, const SxString& image) : service(service_) {
        std::optional<uint64> taken;
        SxWait::pass(SAME_IMAGE_MS, [&] {
            taken = service->reserve(image);
            return taken.has_value();
        });
        if (!taken && service->isGivenUp(image)) refuseTaking(image);
        if (!taken) refuseSecond(image);
        id = *taken;
    }
    ~Reservation() {
        const SxMutexBlock block(&service->mutex);
        service->reserved.erase(id);
    }
    Reservation(const Reservation&) = delete;
    Reservation& operator=(const Reservation&) = delete;
    uint64 deviceId() const { return id; }

private:
    Service* const service;
    uint64 id = 0;
};

std::optional<uint64> Service::reserve(const SxString& image) {
    // Where a folder is left something could not be unmounted.
    std::vector<std::string> names;
    SxOs::get().list(folder.str() + ZqServiceFolder::MOUNTS, &names);
    const auto isLeft = [&](uint64 id) {
        return std::find(names.begin(), names.end(), std::to_string(id)) != names.end();
    };
    const SxMutexBlock block(&mutex);
    requireNoEnd();
    for (const auto& [id, other] : reserved) {
        if (other.image == image) return {};
    }
    uint64 id = 1;
    while (disks.count(id) != 0 || reserved.count(id) != 0 || isLeft(id))
        ++id;
    reserved[id] = {image};
    retiring = false;
    return id;
}

void Service::requireNoEnd() const {
    if (ending) refuse("The drive service (process " + SxString(SxOs::processId()) + ") ends");
}

DiskFolder Service::folderOf(uint64 deviceId) const {
    return DiskFolder(folder + ZqServiceFolder::MOUNTS + "/" + deviceId);
}

Disk::Place Service::placeOf(uint64 deviceId, const SxString& image) {
    return {root,           folderOf(deviceId).getPath(),      deviceId, cacheSize.load(),
            &directVolumes, [this, image] { noteLost(image); }};
}

Service::DiskPtr Service::make(const MountParams& params, uint64 deviceId, int64 peer) {
    const Disk::Place place = placeOf(deviceId, params.image);
    SxFSAction::mkdir_p(place.folder, 0700);
    try {
        return std::make_shared<Disk>(params, place, peer);
    } catch (const std::exception&) {
        SxOs::get().removeDir(place.folder.str());
        throw;
    }
}

Service::DiskPtr Service::mount(const MountParams& params, int64 peer) {
    refuseOwn(params.image);
    refuseOwn(params.traceFolder);
    const Reservation reservation(this, params.image);
    if (const DiskPtr former = find(params.image)) {
        // An image is what stands under its path now, so a folder that was put in the place of a mounted
        // image isn't taken for it.
        if (former->isReplaced())
            refuse("Image '" + params.image + "' stands in the place of one that is still mounted");
        refuseSecond(params.image);
    }
    requireNoUnfit(params.image);
    removeAllLeft(params.image);
    {
        const SxMutexBlock block(&leftFile);
        takeLeft(params.image);
    }
    DiskPtr disk = make(params, reservation.deviceId(), peer);
    try {
        const SxMutexBlock block(&mutex);
        requireNoEnd();
        disks[reservation.deviceId()] = disk;
    } catch (const std::exception&) {
        disk->eject();
        throw;
    }
    disk->setCacheSize(cacheSize); // it may have changed meanwhile
    return disk;
}

Disk::End Service::eject(const DiskPtr& disk) {
    Disk::End end = disk->eject();
    const SxMutexBlock block(&mutex);
    const auto found = disks.find(disk->getDeviceId());
    if (found != disks.end() && found->second == disk) disks.erase(found);
    return end;
}

/// Ejects one disk beside others.
class Service::Ejector : public SxSystemThread {
public:
    Ejector(Service* service_, DiskPtr disk_) : service(service_), disk(std::move(disk_)) {
        setThreadName("eject");
    }
    ~Ejector() override { wait(); }

    SxString getImage() const { return disk->getParams().image; }
    /// What programs wrote and was lost, as a sentence; once it has ended.
    SxString getLost() const { return lost; }
    /// False where there is no thread to be had.
    bool begin() {
        try {
            start();
            return true;
        } catch (const SxException& e) {
            driverLog("image " + getImage() + ": " + e.what());
            return false;
        }
    }
    void eject() {
        try {
            lost = service->eject(disk).lost;
            // At once, as each disk goes: what shuts a machine down kills the service in the end. And even
            // if a client's call has ended this disk, too, since that client may have stopped waiting long
            // ago.
            if (!lost.isEmpty()) service->noteLost(getImage());
        } catch (const std::exception& e) {
            driverLog("image " + getImage() + " can't be ejected: " + e.what());
        }
    }

protected:
    void main() override { eject(); }

private:
    Service* const service;
    const DiskPtr disk;
    SxString lost;
};

/// Ejects all disks at a time, so that one whose disk hangs keeps no other one. What is lost is noted for
/// whoever asks for the image next: no client of its own waits for the disk.
std::vector<Service::Loss> Service::ejectAll() {
    std::vector<std::unique_ptr<Ejector>> ejectors;
    for (const DiskPtr& disk : all())
        ejectors.push_back(std::make_unique<Ejector>(this, disk));
    std::vector<Ejector*> left;
    left.reserve(ejectors.size());
    for (const auto& ejector : ejectors)
        left.push_back(ejector.get());
    // A disk for which there is no thread is ejected on this one. The end of a disk frees several threads, so
    // the others are tried again.
    for (;;) {
        std::erase_if(left, [](Ejector* ejector) { return ejector->begin(); });
        if (left.empty()) break;
        left.back()->eject();
        left.pop_back();
    }
    std::vector<Loss> losses;
    for (const auto& ejector : ejectors) {
        ejector->wait();
        if (!ejector->getLost().isEmpty()) losses.push_back({ejector->getImage(), ejector->getLost()});
    }
    return losses;
}

void Service::end() noexcept {
    {
        const SxMutexBlock block(&mutex);
        ending = true;
    }
    try {
        ejectAll();
    } catch (const std::exception& e) {
        driverLog(e.what()); // the drives go with the service
    }
}

bool Service::retire() {
    const SxMutexBlock block(&mutex);
    retiring = !isInUse();
    return retiring;
}

void Service::storeDisks() const {
    const std::vector<DiskPtr> now = all();
    Writer table;
    table.number(now.size());
    for (const DiskPtr& disk : now) {
        MountParams params = disk->getParams();
        params.cursor = disk->getVirtualDisk()->getCursor();
        params.traceFolder = SxString(); // a trace that goes on would begin afresh, over the former one
        params.write(&table);
        table.flag(disk->isPlain());
    }
    SxFileIO::writeAtomic(folder + ZqServiceFolder::DISK_TABLE, SxString(table.body()), 0600);
}

void Service::loadDisks() {
    const SxString file = folder + ZqServiceFolder::DISK_TABLE;
    if (!SxFSAction::test_f(file)) return;
    SxFileIO in(file, "rb");
    SxArray<char> bytes(in.getSize());
    const int64 n = in.readBuffer(bytes.data(), bytes.getSize());
    Reader table(std::string(bytes.data(), static_cast<size_t>(n)));
    std::vector<std::pair<MountParams, bool>> stored;
    for (uint64 left = table.number(); left > 0 && table.hasAll(); --left) {
        const MountParams params = MountParams::read(&table);
        stored.emplace_back(params, table.flag());
    }
    if (!table.ok()) refuse("The table of disks '" + file + "' is damaged");
    SxString failure;
    for (const auto& [params, isPlain] : stored) {
        try {
            if (find(params.image)) continue;
            // A disk that had redirections comes without them, and saves would go nowhere. So it isn't ready,
            // and the next mount makes it anew, as one whose mounter was killed. An image that can't be
            // loaded fails the load, and keeps no other one from being loaded.
            const DiskPtr disk = mount(params, NOBODY);
            if (isPlain) disk->setReady();
        } catch (const SxException& e) {
            driverLog("image " + params.image + " can't be loaded: " + SxString(e.what()));
            if (failure.isEmpty()) failure = e.toString(SxException::ShowMessage, ": ");
        }
    }
    if (!failure.isEmpty()) refuse(failure);
}

void Service::reset() {
    const std::vector<Loss> losses = ejectAll();
    cacheSize = 0;
    Leftovers::Disks left;
    {
        const SxMutexBlock block(&mutex);
        left = lefts;
    }
    for (const auto& [id, each] : left)
        removeAllLeft(each.note.params.image);
    if (losses.empty()) return;
    // The first is told now, the others to whoever asks next.
    {
        const SxMutexBlock block(&leftFile);
        takeLeft(losses.front().image);
    }
    refuse(losses.front().text);
}

void Service::tick() {
    directVolumes.dropEnded();
    for (const DiskPtr& disk : all()) {
        if (!disk->wasTakenAway()) continue;
        const SxMutexBlock block(&mutex);
        // The device id may be a new disk's by now.
        const auto found = disks.find(disk->getDeviceId());
        if (found != disks.end() && found->second == disk) disks.erase(found);
    }
}
