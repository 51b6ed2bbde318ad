#include "ZqVolume.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "SxTime.h"
#include "ZqMachineRoot.h"
#include "ZqServiceClient.h"
#include "ZqServiceFolder.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <linux/fs.h>
#include <optional>
#include <sys/ioctl.h>
#include <unistd.h>

using ZqDriveWire::Call, ZqDriveWire::Reader, ZqDriveWire::Writer;
using ZqServiceClient::Start;

namespace {

constexpr const char* UNIT = "src/platform/devctl/ZqVolume";
constexpr int MAX_TRIES = 3;
/// How long a service that has nothing to do may take to end.
constexpr int64 RETIRE_MS = 5000;

/// The path of a drive's link, without following it; empty where the text is no drive.
std::string driveLink(const SxString& drive) {
    const std::string& text = drive.str();
    if (text.size() < 2 || text[1] != ':' || !std::isalpha(static_cast<unsigned char>(text[0]))) return {};
    const char letter = static_cast<char>(text[0] | 0x20);
    return ZqMachineRoot::get().str() + "/dosdevices/" + letter + ":";
}

[[noreturn]] void fail(const SxString& what, const SxString& drive) {
    throw SxException(ZqVolume::getLastException(UNIT, __LINE__), what + " '" + drive + "'", UNIT, __LINE__);
}

/// Asks the service something; false where none runs. Raises `words` where it doesn't answer.
bool ask(Call call, const Writer& request, Reader* answer, const SxString& words) {
    // A service may have started between the call and the question whether there is one.
    for (int i = 0; !ZqServiceClient::call(call, request, answer, Start::Never); ++i) {
        if (ZqServiceClient::wasCutOff()) {
            if (!ZqServiceClient::isServing()) return false;
            if (i < MAX_TRIES) continue;
        }
        throw SxException(ZqVolume::getLastException(UNIT, __LINE__), words, UNIT, __LINE__);
    }
    return true;
}

/// Who, after a service that was killed, has a disk with a folder in that of the service.
enum class Keeper {
    Nobody, ///< it is what that has left
    Next,   ///< the kernel serves it, and the next service takes it over if it can
    Other   ///< the kernel serves it in another mount namespace
};

Keeper keeperOf(const std::string& disk) {
    std::vector<std::string> names;
    SxOs::get().list(disk, &names);
    Keeper keeper = Keeper::Nobody;
    for (const std::string& name : names) {
        if (name == ZqServiceFolder::directName()) return Keeper::Next;
        if (ZqServiceFolder::isDirectName(name)) keeper = Keeper::Other;
    }
    return keeper;
}

/// The images of the disks that have a folder in that of the service, and such a keeper; of all without one.
SxList<SxString> imagesInFolder(std::optional<Keeper> keeper = {}) {
    SxList<SxString> images;
    const std::string mounts =
        ZqServiceFolder::of(ZqMachineRoot::get().str()) + ZqServiceFolder::MOUNTS + "/";
    std::vector<std::string> disks;
    SxOs::get().list(mounts, &disks);
    for (const std::string& disk : disks) {
        const SxString file = SxString(mounts + disk + "/") + ZqServiceFolder::IMAGE;
        if (keeper && keeperOf(mounts + disk) != *keeper) continue;
        if (SxFSAction::test_f(file)) images.append(SxFileIO::readUtf8(file));
    }
    return images;
}

/// Where the service lives, as far as it says so.
struct Home {
    ZqServiceFolder::Namespace mounts; ///< zeros for unknown
    uint64 pid = 0;

    /// Without a service, or one that says nothing of it, the answer is no.
    bool isElsewhere() const {
        const ZqServiceFolder::Namespace own = ZqServiceFolder::mountNamespace();
        return mounts.inode != 0 && own.inode != 0 && own != mounts;
    }
};

Home queryHome() {
    Reader answer;
    Home home;
    if (!ask(Call::Ping, Writer(), &answer, "Cannot ask for the drive service")) return home;
    home.mounts.device = answer.number();
    home.mounts.inode = answer.number();
    home.pid = answer.number();
    return answer.hasAll() ? home : Home();
}

/// Asks a service without drives to end, and waits for that; false where it has drives.
bool retire() {
    Reader answer;
    if (!ask(Call::Retire, Writer(), &answer, "Cannot end the drive service")) return false;
    if (answer.flag()) SxWait::pass(RETIRE_MS, [] { return !queryHome().isElsewhere(); });
    return true; // somebody may have been faster
}

/// Whether another service may serve what this one hasn't taken over: where it lives in another mount
/// namespace, has no drives there, and ends now, the next call starts one in ours, in which the kernel serves
/// drives.
bool makesWay(const ZqDiskStatus& disk) {
    if (disk.notTaken.isEmpty() || !queryHome().isElsewhere()) return false;
    if (!ZqServiceFolder::hasServedDrives(ZqServiceFolder::of(ZqMachineRoot::get().str()))) return false;
    return retire() && !queryHome().isElsewhere();
}

/// All disks, as the service that runs now tells of them.
SxList<ZqDiskStatus> askDisks() {
    SxList<ZqDiskStatus> disks;
    if (ZqVolume::isForeign()) {
        // A service of another version answers for one image at a time.
        for (const SxString& image : imagesInFolder()) {
            ZqDiskStatus disk;
            if (ZqVolume::findDisk(image, &disk)) disks.append(disk);
        }
        return disks;
    }
    Reader answer;
    if (!ask(Call::Disks, Writer(), &answer, "Cannot ask for the drives")) return disks;
    const uint64 n = answer.number();
    for (uint64 i = 0; i < n; ++i)
        disks.append(ZqServiceClient::readStatus(&answer));
    return disks;
}

bool askDisk(const SxString& image, ZqDiskStatus* status) {
    Reader answer;
    const Writer request = Writer().text(ZqServiceClient::keyOf(image));
    if (!ask(Call::State, request, &answer, "Cannot ask after image '" + image + "'")) return false;
    if (!answer.flag()) return false;
    *status = ZqServiceClient::readStatus(&answer);
    return true;
}

uint64 targetOf(const SxString& drive) {
    ZqVolumeIdentity identity;
    if (!ZqVolume::queryIdentity(drive, &identity)) {
        throw SxException("Drive '" + drive + "' doesn't answer", UNIT, __LINE__);
    }
    return identity.targetId;
}

} // namespace

SxList<SxString> ZqVolume::getDrives() {
    std::vector<std::string> names;
    SxOs::get().list(ZqMachineRoot::get().str() + "/dosdevices", &names);
    std::sort(names.begin(), names.end());
    SxList<SxString> drives;
    for (const std::string& name : names) {
        if (name.size() == 2 && name[1] == ':' && name[0] >= 'a' && name[0] <= 'z')
            drives.append(SxString(name).toUpper());
    }
    return drives;
}

bool ZqVolume::queryIdentity(const SxString& drive, ZqVolumeIdentity* identity) {
    const std::string link = driveLink(drive);
    std::string target;
    if (link.empty() || SxOs::get().readLink(link, &target) < 0) return false;
    const std::string volume = std::string("/") + ZqServiceFolder::VOLUME;
    if (!target.ends_with(volume)) return false;
    const SxString file =
        SxString(target.substr(0, target.size() - volume.size())) + "/" + ZqServiceFolder::IDENTITY;
    try {
        const SxList<SxString> lines = SxFileIO::readLines(file, 0);
        bool bad = lines.getSize() < 3;
        if (bad) return false;
        *identity = {lines(0), lines(1), static_cast<uint64>(lines(2).toInt64(&bad))};
        return !bad;
    } catch (const SxException&) {
        return false; // no drive of this service
    }
}

SxString ZqVolume::findDrive(const ZqDiskStatus& disk) {
    const std::string link = driveLink(disk.drive);
    std::string target;
    const bool isOurs = !link.empty() && SxOs::get().readLink(link, &target) >= 0;
    return isOurs && target == disk.mountPath.str() ? disk.drive : SxString();
}

bool ZqVolume::restoreDrive(const ZqDiskStatus& disk) {
    const std::string link = driveLink(disk.drive);
    if (link.empty() || disk.mountPath.isEmpty()) return false;
    for (const ZqDiskStatus& other : getDisks()) {
        if (other.drive == disk.drive && !(other.image == disk.image)) return false;
    }
    const int removed = SxOs::get().unlink(link);
    return (removed == 0 || removed == -ENOENT) && SxOs::get().symlink(disk.mountPath.str(), link) == 0;
}

bool ZqVolume::isVisible(const ZqDiskStatus& disk) {
    SxStat volume, above;
    const std::string& path = disk.mountPath.str();
    if (SxOs::get().stat(path.substr(0, path.find_last_of('/')), &above) != 0) return false;
    const int result = SxOs::get().stat(path, &volume);
    // A volume that is there and gives errors is there.
    return result == 0 ? volume.device != above.device : result != -ENOENT;
}

bool ZqVolume::isElsewhere(const ZqDiskStatus& disk) {
    return !disk.mountPath.isEmpty() && !isVisible(disk) && queryHome().isElsewhere();
}

void ZqVolume::requireView() {
    for (int i = 0;; ++i) {
        const Home home = queryHome();
        if (!home.isElsewhere()) return;
        bool hasDisks = false, isHidden = false;
        for (const ZqDiskStatus& disk : getDisks()) {
            if (!disk.notTaken.isEmpty()) continue; // a former service has mounted it
            // Where one comes through to this process, the next one does, too.
            if (isVisible(disk)) return;
            hasDisks = true;
            isHidden = isHidden || !disk.mountPath.isEmpty();
        }
        // Those that are still on their way up tell nothing.
        if (hasDisks && !isHidden) return;
        if (!isHidden && i < MAX_TRIES && retire()) continue;
        throw SxException(elsewhereText(static_cast<int64>(home.pid)), UNIT, __LINE__);
    }
}

SxList<SxString> ZqVolume::getLeftDrives() {
    SxList<SxString> left;
    if (ZqServiceClient::isServing()) return left;
    const std::string mounts =
        ZqServiceFolder::of(ZqMachineRoot::get().str()) + ZqServiceFolder::MOUNTS + "/";
    for (const SxString& drive : getDrives()) {
        std::string target;
        const bool isBelow =
            SxOs::get().readLink(driveLink(drive), &target) >= 0 && target.starts_with(mounts);
        if (isBelow && keeperOf(target.substr(0, target.find_last_of('/'))) == Keeper::Nobody)
            left.append(drive);
    }
    return left;
}

void ZqVolume::dismount(const SxString& drive, bool* busy) {
    Reader answer;
    if (!ZqServiceClient::call(Call::Dismount, Writer().number(targetOf(drive)), &answer, Start::Never))
        fail("Cannot dismount volume", drive);
    *busy = answer.flag();
}

void ZqVolume::ejectMedia(const SxString& drive) {
    ZqVolumeIdentity identity;
    if (!queryIdentity(drive, &identity)) return;
    for (const ZqDiskStatus& disk : getDisks()) {
        if (disk.deviceId != identity.targetId) continue;
        if (!ZqServiceClient::call(Call::Eject, Writer().text(disk.image).number(0), nullptr, Start::Never))
            fail("Cannot eject the medium of", drive);
        return;
    }
}

SxString ZqVolume::getLabel(const SxString& drive) {
    Reader answer;
    ZqVolumeIdentity identity;
    if (!queryIdentity(drive, &identity) ||
        !ZqServiceClient::call(Call::Label, Writer().number(identity.targetId), &answer, Start::Never))
        return {};
    return answer.text();
}

void ZqVolume::setLabel(const SxString& drive, const SxString& label) {
    const int fd = ::open(SxOs::hostPath(drive + "/").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return;
    char text[FSLABEL_MAX] = {};
    label.str().copy(text, FSLABEL_MAX - 1);
    ::ioctl(fd, FS_IOC_SETFSLABEL, text);
    ::close(fd);
}

bool ZqVolume::isForeign() {
    return ask(Call::Ping, Writer(), nullptr, "Cannot ask for the drive service") &&
           ZqServiceClient::wasForeign();
}

SxList<ZqDiskStatus> ZqVolume::getDisks() {
    SxList<ZqDiskStatus> disks = askDisks();
    const bool isOld = std::any_of(disks.begin(), disks.end(), makesWay);
    return isOld ? askDisks() : disks;
}

bool ZqVolume::findDisk(const SxString& image, ZqDiskStatus* status) {
    if (!askDisk(image, status)) return false;
    return !makesWay(*status) || askDisk(image, status);
}

bool ZqVolume::isReplaced(const SxString& image) {
    ZqDiskStatus disk;
    if (isForeign()) return findDisk(image, &disk) && disk.replaced;
    Reader answer;
    const Writer request = Writer().text(ZqServiceClient::keyOf(image));
    return ask(Call::Replaced, request, &answer, "Cannot ask after image '" + image + "'") && answer.flag();
}

void ZqVolume::setReady(const SxString& image) {
    if (ZqServiceClient::call(Call::Ready, Writer().text(ZqServiceClient::keyOf(image)).number(0), nullptr,
                              Start::Never))
        return;
    throw SxException(getLastException(UNIT, __LINE__), "Cannot complete the mount of image '" + image + "'",
                      UNIT, __LINE__);
}

SxList<SxString> ZqVolume::getLeftovers() {
    return ZqServiceClient::isServing() ? SxList<SxString>() : imagesInFolder(Keeper::Nobody);
}

SxList<SxString> ZqVolume::getServedElsewhere() {
    return ZqServiceClient::isServing() ? SxList<SxString>() : imagesInFolder(Keeper::Other);
}

uint64 ZqVolume::getProgress(const SxString& image) {
    Reader answer;
    const Writer request = Writer().text(ZqServiceClient::keyOf(image)).number(0);
    return ZqServiceClient::call(Call::Progress, request, &answer, Start::Never) ? answer.number() : 0;
}

bool ZqVolume::removeLeftovers(const SxString& image, bool* written) {
    *written = false;
    if (!ZqServiceClient::isServing()) {
        const std::string folder = ZqServiceFolder::of(ZqMachineRoot::get().str());
        std::vector<std::string> disks;
        SxOs::get().list(folder + ZqServiceFolder::MOUNTS, &disks);
        if (disks.empty() && !SxFSAction::exists(folder + ZqServiceFolder::LEFT) && getLeftDrives().isEmpty())
            return false;
    }
    // A service tidies up what it finds when it starts.
    Reader answer;
    if (!ZqServiceClient::call(Call::Leftover, Writer().text(ZqServiceClient::keyOf(image)), &answer,
                               Start::IfNeeded)) {
        if (ZqServiceClient::wasForeign()) return false;
        throw SxException(getLastException(UNIT, __LINE__), "Cannot remove what a drive service left behind",
                          UNIT, __LINE__);
    }
    const bool found = answer.flag();
    *written = answer.flag();
    return found;
}

void ZqVolume::setPatience(int seconds) {
    ZqServiceClient::setPatience(seconds);
}

bool ZqVolume::wasBusy() {
    return ZqServiceClient::wasBusy();
}

SxString ZqVolume::getLastFailure() {
    return ZqServiceClient::getLastFailure();
}

SxException ZqVolume::getLastException(const SxString& unit, int line) {
    return SxException(ZqServiceClient::getLastTag(), getLastFailure(), unit, line);
}
