#include "DriverLog.h"
#include "Service.h"
#include "SxException.h"
#include "SxOs.h"
#include "SxTime.h"
#include "ZqServiceFolder.h"

#include <algorithm>

// Disks that a service which was killed has left to the kernel, until they are taken over or go.

using Leftovers::Found;

namespace {

constexpr const char* UNIT = "src/driver/ServiceLeft";
/// How long a service may take until it answers, for disks that it takes over.
constexpr int64 TAKE_OVER_MS = 5000;
/// The same of a client that asks how a disk is. A `status` waits for 3 s.
constexpr int64 STATE_MS = 1500;
/// How long the kernel may take to end what the last process of a mount namespace had there.
constexpr int64 ENDED_MS = 1000;

SxString elsewhereText() {
    return "it is mounted in another mount namespace than that of the drive service (process " +
           SxString(SxOs::processId()) +
           "); only a service there can take it over or away, once this one has ended, half a minute after "
           "its last drive";
}

} // namespace

void Service::takeOver(const Leftovers::Disks& found) {
    {
        const SxMutexBlock block(&mutex);
        lefts = found;
        for (auto& [id, left] : lefts) {
            if (left.kind == Found::Sound) {
                reserved[id] = {left.note.params.image};
                left.why = "that is under way";
            }
            if (left.kind == Found::Elsewhere) left.why = elsewhereText();
        }
    }
    // Each on a thread of its own, since the disk of one image may be stuck.
    for (const auto& [id, left] : found) {
        if (left.kind == Found::Unfit) continue;
        const bool isSound = left.kind == Found::Sound;
        takers.push_back(std::make_unique<DiskThread>("take", [this, isSound, id = id, note = left.note] {
            if (isSound) {
                takeOne(id, note);
            } else {
                removeEnded(id);
            }
        }));
    }
    for (const auto& taker : takers)
        taker->start();
    SxWait::pass(TAKE_OVER_MS, [this] {
        return std::none_of(takers.begin(), takers.end(),
                            [](const auto& taker) { return taker->isRunning(); });
    });
}

void Service::takeOne(uint64 deviceId, const DirectNote& note) {
    DiskPtr disk;
    SxString why;
    try {
        disk = tryToTake(deviceId, note);
    } catch (const SxException& e) {
        why = e.toString(SxException::ShowMessage, ": ");
    } catch (const std::exception& e) {
        why = e.what(); // a library's, for want of memory
    }
    if (!why.isEmpty()) driverLog("image " + note.params.image + " can't be taken over: " + why);
    const SxMutexBlock block(&mutex);
    reserved.erase(deviceId);
    if (disk) {
        disks[deviceId] = disk;
        lefts.erase(deviceId);
        return;
    }
    const auto left = lefts.find(deviceId);
    if (why.isEmpty() || left == lefts.end()) return;
    left->second.kind = Found::Unfit;
    left->second.why = why;
}

/// Waits while somebody else has the image: whoever is about to change it is refused in the end, since the
/// kernel reads it. Null where it was given up meanwhile.
Service::DiskPtr Service::tryToTake(uint64 deviceId, const DirectNote& note) {
    while (isAwaited(deviceId)) {
        try {
            return std::make_shared<Disk>(note, placeOf(deviceId, note.params.image),
                                          [&] { claim(deviceId); });
        } catch (const SxException& e) {
            if (!isAwaited(deviceId)) break;
            if (!e.hasTag(ZqImageLock::HELD)) throw;
            noteWhy(deviceId, e.toString(SxException::ShowMessage, ": "));
        }
        SxTime::msleep(SxWait::LOOK_MS);
    }
    return nullptr;
}

bool Service::isAwaited(uint64 deviceId) const {
    const SxMutexBlock block(&mutex);
    const auto left = lefts.find(deviceId);
    return !ending && left != lefts.end() && left->second.kind != Found::Unfit;
}

/// Settles that the disk is taken over: from then on nobody gives it up. Raises where somebody has.
void Service::claim(uint64 deviceId) {
    const SxMutexBlock block(&mutex);
    const auto left = lefts.find(deviceId);
    if (ending || left == lefts.end() || left->second.kind != Found::Sound)
        throw SxException("The drive is no longer wanted", UNIT, __LINE__);
    left->second.kind = Found::Taking;
}

void Service::noteWhy(uint64 deviceId, const SxString& why) {
    const SxMutexBlock block(&mutex);
    const auto left = lefts.find(deviceId);
    if (left != lefts.end()) left->second.why = why;
}

/// The number of the image's disk that may still be taken over, if there is one.
std::optional<uint64> Service::awaitedOf(const SxString& image) const {
    for (const auto& [id, left] : leftOf(image)) {
        if (left.kind == Found::Sound || left.kind == Found::Taking) return id;
    }
    return {};
}

/// Waits for a disk of the image that may be taken over; false where it still isn't.
bool Service::awaitTaken(const SxString& image, int64 ms) const {
    return SxWait::pass(ms, [&] { return !awaitedOf(image); });
}

Leftovers::Disks Service::leftOf(const SxString& image) const {
    const SxMutexBlock block(&mutex);
    Leftovers::Disks found = lefts;
    std::erase_if(found, [&](const auto& left) { return !(left.second.note.params.image == image); });
    return found;
}

/// Takes a disk from that table; none where it was taken over, or another client was faster. Its number stays
/// reserved until whoever tries to take it over has ended.
std::optional<Found> Service::giveUp(uint64 deviceId) {
    std::optional<Found> left;
    const auto isSettled = [&] {
        const SxMutexBlock block(&mutex);
        const auto found = lefts.find(deviceId);
        left.reset();
        if (found == lefts.end()) return true;
        left = found->second;
        if (left->kind == Found::Taking) return false;
        lefts.erase(found);
        const auto taken = reserved.find(deviceId);
        if (taken != reserved.end()) taken->second.isGivenUp = true;
        return true;
    };
    if (!SxWait::pass(TAKEN_MS, isSettled)) refuseTaking(left->note.params.image);
    return left;
}

bool Service::isGivenUp(const SxString& image) const {
    const SxMutexBlock block(&mutex);
    return std::any_of(reserved.begin(), reserved.end(),
                       [&](const auto& each) { return each.second.image == image && each.second.isGivenUp; });
}

/// Removes a disk of that table, and gives whether its volume was in use. Its removal waits for nothing of
/// the image. Raises where it can't be done; it stays in the table then.
bool Service::removeLeft(uint64 deviceId) {
    std::optional<Found> given = giveUp(deviceId);
    if (!given) return false;
    Found& left = *given;
    try {
        // The removal may wait for a disk that is stuck.
        return Leftovers::remove(root, folder, deviceId, [this](const SxString& image, bool isWritten) {
            const SxMutexBlock block(&leftFile);
            noteLeft(folder, image, isWritten);
        });
    } catch (const SxException& e) {
        left.kind = Found::Unfit;
        left.why = e.toString(SxException::ShowMessage, ": ");
        const SxMutexBlock block(&mutex);
        lefts[deviceId] = left;
        throw;
    }
}

/// Removes what is left of a drive of another mount namespace that has ended for certain; false where it may
/// be there.
bool Service::removeEnded(uint64 deviceId) {
    try {
        if (!folderOf(deviceId).whyServed().isEmpty()) return false;
        removeLeft(deviceId);
    } catch (const SxException& e) {
        driverLog(e.toString(SxException::ShowMessage, ": "));
    }
    return true;
}

/// Raises where the image has a drive that can't be taken over: somebody may play from it, and only its
/// unmount takes it away.
void Service::requireNoUnfit(const SxString& image) const {
    for (const auto& [id, left] : leftOf(image)) {
        if (left.kind != Found::Unfit) continue;
        throw SxException("The former drive of image '" + image +
                              "' is still mounted, and can't be taken over: " + left.why +
                              "; unmount it first",
                          UNIT, __LINE__);
    }
}

/// Removes whatever of the image isn't taken over, and gives whether it was in use. Raises where that can't
/// be done.
bool Service::removeAllLeft(const SxString& image) {
    bool busy = false;
    for (const auto& [id, left] : leftOf(image)) {
        SxString kept;
        const auto hasEnded = [&kept, own = folderOf(id)] {
            kept = own.whyServed();
            return kept.isEmpty();
        };
        if (left.kind == Found::Elsewhere && !SxWait::pass(ENDED_MS, hasEnded))
            throw SxException("The drive of image '" + image + "' can't be taken away: " + left.why + ". " +
                                  kept,
                              UNIT, __LINE__);
        busy = removeLeft(id) || busy;
    }
    return busy;
}

ZqDiskStatus Service::stateOfLeft(uint64 deviceId, const Found& found) const {
    const SxString volume = folder + ZqServiceFolder::MOUNTS + "/" + deviceId + "/" + ZqServiceFolder::VOLUME;
    ZqDiskStatus status;
    status.image = found.note.params.image;
    status.mountPath = volume;
    status.drive = DriveLetter::find(root, volume);
    status.deviceId = deviceId;
    status.sectorSize = found.note.params.sectorSize;
    status.cursor = found.note.params.cursor;
    status.nIncluded = found.note.nIncluded;
    status.mounterPid = found.note.mounterPid;
    status.ready = found.kind != Found::Unfit && found.note.ready;
    status.servicePid = SxOs::processId();
    status.madeNs = found.note.madeNs;
    status.isServedByKernel = true;
    status.notTaken = found.why;
    return status;
}

/// None where the image has no disk. Waits a moment for one that is being taken over, and gives what is known
/// of it where that takes longer: so it can be taken away.
std::optional<ZqDiskStatus> Service::stateOf(const SxString& image) {
    awaitTaken(image, STATE_MS);
    for (const auto& [id, left] : leftOf(image)) {
        const bool isGone = left.kind == Found::Elsewhere && removeEnded(id);
        if (!isGone) return stateOfLeft(id, left);
    }
    const DiskPtr disk = find(image);
    if (!disk) return {};
    return disk->getStatus();
}

std::vector<ZqDiskStatus> Service::allStates() const {
    Leftovers::Disks left;
    {
        const SxMutexBlock block(&mutex);
        left = lefts;
    }
    std::vector<ZqDiskStatus> states;
    for (const auto& [id, found] : left)
        states.push_back(stateOfLeft(id, found));
    for (const DiskPtr& disk : all())
        states.push_back(disk->getStatus());
    return states;
}
