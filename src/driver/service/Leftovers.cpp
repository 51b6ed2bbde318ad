#include "Leftovers.h"

#include "DiskFolder.h"
#include "DriveLetter.h"
#include "DriverLog.h"
#include "Helper.h"
#include "Service.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqServiceFolder.h"

#include <filesystem>
#include <functional>

namespace {

constexpr int64 SWEEP_MS = 10'000;
/// How long a mount may still take whose service was killed; its disk may be stuck.
constexpr int64 MOUNTING_MS = 3000;

std::string mountsOf(const SxString& folder) {
    return folder.str() + ZqServiceFolder::MOUNTS;
}

/// The folder's device id; 0 where it isn't a disk's.
uint64 idOf(const std::filesystem::path& disk) {
    bool bad = false;
    const int64 id = SxString(disk.filename().string()).toInt64(&bad);
    return bad || id < 0 ? 0 : static_cast<uint64>(id);
}

void removeDisks(const SxString& folder, std::vector<std::filesystem::path> disks) {
    driverLog("removes what a former service left in " + SxString(mountsOf(folder)));
    std::erase_if(disks, [](const std::filesystem::path& disk) {
        if (DiskFolder::Mounting::awaitEnd(SxString(disk.string()), MOUNTING_MS)) return false;
        driverLog("something is still being mounted in " + SxString(disk.string()) + ", which is left");
        return true;
    });
    SxList<SxString> images, written;
    for (const auto& disk : disks) {
        Helper::run({"sweep", SxString(disk.string())}, SWEEP_MS, nullptr);
        const SxString image = (disk / ZqServiceFolder::IMAGE).string();
        if (!SxFSAction::test_f(image)) continue;
        images.append(SxFileIO::readUtf8(image));
        if (SxFSAction::test_f(SxString((disk / ZqServiceFolder::WRITTEN).string())))
            written.append(images.last());
    }
    // Before the removal, after which nobody would know of them.
    Service::noteLeft(folder, images, written);
    for (const auto& disk : disks)
        DiskFolder(SxString(disk.string())).remove();
}

Leftovers::Disks findBy(const SxString& folder,
                        const std::function<std::optional<DirectNote>(const SxString&)>& read) {
    Leftovers::Disks found;
    std::error_code error;
    for (const auto& disk : std::filesystem::directory_iterator(mountsOf(folder), error)) {
        const uint64 id = idOf(disk.path());
        if (id == 0) continue;
        try {
            const std::optional<DirectNote> note = read(SxString(disk.path().string()));
            if (note) found.emplace(id, *note);
        } catch (const SxException& e) {
            driverLog("'" + SxString(disk.path().string()) + "' can't be taken over: " + e.what());
        }
    }
    return found;
}

} // namespace

Leftovers::Disks Leftovers::findServed(const SxString& folder) {
    return findBy(folder, DirectNote::readFitting);
}

Leftovers::Disks Leftovers::findOthers(const SxString& folder) {
    return findBy(folder, DirectNote::readOther);
}

void Leftovers::sweep(const SxString& root, const SxString& folder, const Disks& kept) {
    const std::string mounts = mountsOf(folder);
    SxList<SxString> volumes;
    for (const auto& [id, note] : kept)
        volumes.append(SxString(mounts + "/" + std::to_string(id) + "/" + ZqServiceFolder::VOLUME));
    // Links are on the disk and outlive a power cut; the folders that they lead to don't. All of them are of
    // former services: this one, which alone makes such links now, has made none yet.
    DriveLetter::removeBelow(root, SxString(mounts + "/"), volumes);
    std::vector<std::filesystem::path> disks;
    std::error_code error;
    for (const auto& disk : std::filesystem::directory_iterator(mounts, error)) {
        if (kept.count(idOf(disk.path())) == 0) disks.push_back(disk.path());
    }
    if (!disks.empty()) removeDisks(folder, disks);
}

void Leftovers::remove(const SxString& root, const SxString& folder, uint64 deviceId) {
    const std::filesystem::path disk = mountsOf(folder) + "/" + std::to_string(deviceId);
    DriveLetter::removeBelow(root, SxString(disk.string() + "/"), {});
    removeDisks(folder, {disk});
}
