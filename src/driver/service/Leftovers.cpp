#include "Leftovers.h"

#include "DiskFolder.h"
#include "DriveLetter.h"
#include "DriverLog.h"
#include "Helper.h"
#include "Mounts.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqServiceFolder.h"

#include <filesystem>
#include <optional>

namespace {

constexpr const char* UNIT = "src/driver/Leftovers";
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

SxString imageOf(const SxString& disk) {
    const SxString file = disk + "/" + ZqServiceFolder::IMAGE;
    return SxFSAction::test_f(file) ? SxFileIO::readUtf8(file) : SxString();
}

/// Gives whether programs used its volume. Raises where it can't be removed; then it stays.
bool removeDisk(const SxString& disk, const Leftovers::Note& note) {
    if (!DiskFolder::Mounting::awaitEnd(disk, MOUNTING_MS))
        throw SxException("A mount that a former service has begun hasn't ended", UNIT, __LINE__);
    const Helper::Facts facts = Helper::run({"sweep", disk}, SWEEP_MS, nullptr);
    const SxString image = imageOf(disk);
    // Before the removal, after which nobody would know of it.
    if (!image.isEmpty()) note(image, SxFSAction::test_f(disk + "/" + ZqServiceFolder::WRITTEN));
    DiskFolder(disk).remove();
    return facts.count("busy") != 0;
}

/// None where nothing is mounted that the kernel serves.
std::optional<Leftovers::Found> findIn(const SxString& disk) {
    using Leftovers::Found;
    const bool isHere = DirectNote::exists(disk);
    if (!isHere && !DirectNote::existsElsewhere(disk)) return {};
    if (isHere && !Mounts::isMounted((disk + "/" + ZqServiceFolder::VOLUME).str())) return {};
    Found found{isHere ? Found::Sound : Found::Elsewhere, {}, {}};
    try {
        found.note = isHere ? DirectNote::readFitting(disk) : DirectNote::readElsewhere(disk);
    } catch (const SxException& e) {
        found.note.params.image = imageOf(disk);
        found.why = e.toString(SxException::ShowMessage, ": ");
        if (isHere) found.kind = Found::Unfit;
    }
    return found;
}

} // namespace

Leftovers::Disks Leftovers::findServed(const SxString& folder) {
    Disks disks;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(mountsOf(folder), error)) {
        const uint64 id = idOf(entry.path());
        if (id == 0) continue;
        const std::optional<Found> found = findIn(SxString(entry.path().string()));
        if (!found) continue;
        if (!found->why.isEmpty())
            driverLog("'" + SxString(entry.path().string()) + "' can't be taken over: " + found->why);
        disks.emplace(id, *found);
    }
    return disks;
}

Leftovers::Disks Leftovers::sweep(const SxString& root, const SxString& folder, const Disks& kept,
                                  const Note& note) {
    const std::string mounts = mountsOf(folder);
    SxList<SxString> volumes;
    for (const auto& [id, disk] : kept)
        volumes.append(SxString(mounts + "/" + std::to_string(id) + "/" + ZqServiceFolder::VOLUME));
    // Links are on the disk and outlive a power cut; the folders that they lead to don't. All of them are of
    // former services: this one, which alone makes such links now, has made none yet.
    DriveLetter::removeBelow(root, SxString(mounts + "/"), volumes);
    std::vector<std::filesystem::path> disks;
    std::error_code error;
    for (const auto& disk : std::filesystem::directory_iterator(mounts, error)) {
        if (kept.count(idOf(disk.path())) == 0) disks.push_back(disk.path());
    }
    Disks left;
    for (const auto& path : disks) {
        const SxString disk(path.string());
        driverLog("removes what a former service left in '" + disk + "'");
        try {
            removeDisk(disk, note);
        } catch (const SxException& e) {
            // One disk that is stuck keeps nobody from the drives of others.
            Found found{Found::Unfit, {}, e.toString(SxException::ShowMessage, ": ")};
            driverLog("'" + disk + "' stays: " + found.why);
            found.note.params.image = imageOf(disk);
            if (!found.note.params.image.isEmpty()) left.emplace(idOf(path), found);
        }
    }
    return left;
}

bool Leftovers::remove(const SxString& root, const SxString& folder, uint64 deviceId, const Note& note) {
    const SxString disk(mountsOf(folder) + "/" + std::to_string(deviceId));
    driverLog("removes what a former service left in '" + disk + "'");
    DriveLetter::removeBelow(root, disk + "/", {});
    return removeDisk(disk, note);
}
