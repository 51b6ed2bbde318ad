#include "ScriptedDriver.h"

#include "SxException.h"
#include "zqdevctl.h"

#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

ScriptedDriver* current = nullptr;
constexpr uint64 DEVICE_ID = 7;
constexpr uint64 BLOCK = 4096;

std::string text(ZqWide wide) {
    return SxString::fromUtf16(wide).str();
}

/// A call about the image, which must be named as it was to the mount.
bool enter(const std::string& name, ZqWide image, const std::string& note = "") {
    ScriptedDriver& driver = ScriptedDriver::get();
    if (driver.mounted && text(image) != driver.image) driver.notes.push_back("wrong image in " + name);
    return driver.enter(name, note);
}

template<class T, class V>
ZqStatus answer(const std::string& name, ZqWide image, T* out, V value) {
    if (!enter(name, image)) return 1;
    *out = static_cast<T>(value);
    return 0;
}

ZqStatus act(const std::string& name, ZqWide image, const std::string& note = "") {
    return enter(name, image, name + note) ? 0 : 1;
}

ZqStatus guard(const std::string& name, ZqFlag* flag) {
    ScriptedDriver& driver = ScriptedDriver::get();
    if (!driver.enter(name, driver.guardAt < 0 ? name : "")) return 1;
    if (driver.guardAt < 0) driver.guardAt = driver.clock().elapsedMs();
    *flag = driver.clock().elapsedMs() >= driver.guardAt + driver.guardAfter;
    if (*flag) driver.guardAt = -1;
    return 0;
}

ZqStatus version(const std::string& name, char* buffer, uint64* size) {
    ScriptedDriver& driver = ScriptedDriver::get();
    if (!driver.enter(name)) return 1;
    std::memcpy(buffer, driver.version.data(), std::min<size_t>(driver.version.size(), *size));
    return 0;
}

void raiseUnless(bool good) {
    if (!good) throw SxException(ScriptedDriver::get().lastFailure, "ScriptedDriver", __LINE__);
}

} // namespace

ScriptedDriver::ScriptedDriver(std::string volume)
    : marker(std::move(volume) + "/gxprefetch.info"),
      time(*this) {
    current = this;
}

ScriptedDriver::~ScriptedDriver() {
    current = nullptr;
}

ScriptedDriver& ScriptedDriver::get() {
    return *current;
}

void ScriptedDriver::fail(const std::string& name, int nth, const std::string& reason) {
    faults[name] = {nth, reason};
}

bool ScriptedDriver::enter(const std::string& name, const std::string& note) {
    settle();
    ++nCalls;
    if (onCall) onCall(name);
    const int64 leftMs = silentUntilMs - clock().elapsedMs();
    if (leftMs > 0) clock().sleepNs(std::min(leftMs, ANSWER_MS) * 1'000'000);
    wasSilent = leftMs > ANSWER_MS;
    if (wasSilent) {
        lastFailure = "The drive service doesn't answer";
        return false;
    }
    if (!note.empty()) notes.push_back(note);
    const auto fault = faults.find(name);
    const bool fails = fault != faults.end() && --fault->second.left <= 0;
    lastFailure = fails ? SxString(fault->second.reason) : SxString();
    return !fails;
}

std::vector<uint64> ScriptedDriver::pop(uint64 max) {
    const int64 now = clock().elapsedMs();
    std::vector<uint64> result;
    for (const uint64 zqfIdx : queue) {
        const auto popped = poppedAt.find(zqfIdx);
        if (result.size() == max || (popped != poppedAt.end() && now < popped->second + returnAfter))
            continue;
        poppedAt[zqfIdx] = now;
        result.push_back(zqfIdx);
    }
    return result;
}

void ScriptedDriver::take(uint64 zqfIdx, const std::string& bytes) {
    for (uint64 at = 0; at < bytes.size(); at += BLOCK)
        delivered[zqfIdx + at / BLOCK] = bytes.substr(at, BLOCK);
    if (!keepsQueue) std::erase_if(queue, [this](uint64 missing) { return delivered.contains(missing); });
}

void ScriptedDriver::settle() {
    const int64 now = clock().elapsedMs();
    if (releasedAt >= 0 && now >= releasedAt + goneAfter) mounted = false;
    const bool shown = mounted ? now >= mountedAt + filesAfter : now < releasedAt + markerStays;
    if (shown == std::filesystem::exists(marker)) return;
    if (shown) {
        std::ofstream(marker).flush();
    } else {
        std::filesystem::remove(marker);
    }
}

ZqStatus zqDriveMountImage(ZqWide image, ZqWide traceFolder, ZqFlag readOnly, ZqFlag readTW, ZqFlag removable,
                           ZqFlag hostFlag, ZqFlag awaitFileSystem, ZqFlag spareFlag, uint64 sizeRaw,
                           uint64 sectorSize, uint64 cursor) {
    ScriptedDriver& driver = ScriptedDriver::get();
    const std::string mode = readOnly ? " ro" : readTW ? " rtw" : " rw";
    std::string note = "MountImage" + mode + (removable ? " removable" : " fixed");
    for (const uint64 value :
         {uint64{hostFlag}, uint64{awaitFileSystem}, uint64{spareFlag}, sizeRaw, sectorSize, cursor}) {
        note += " " + std::to_string(value);
    }
    if (!driver.enter("MountImage", note + (*traceFolder ? " traced" : ""))) return 1;
    driver.mounted = true;
    driver.ready = false;
    driver.removable = removable != 0;
    driver.monitored = *traceFolder != 0;
    driver.image = text(image);
    driver.mountedAt = driver.clock().elapsedMs();
    driver.releasedAt = driver.guardAt = -1;
    driver.settle();
    return 0;
}

ZqStatus zqDriveEjectImage(ZqWide image) {
    if (act("EjectImage", image) != 0) return 1;
    ScriptedDriver::get().releasedAt = ScriptedDriver::get().clock().elapsedMs();
    ScriptedDriver::get().settle();
    return 0;
}

ZqStatus zqDriveIsRemovable(ZqWide image, ZqFlag* flag) {
    return answer("IsRemovable", image, flag, ScriptedDriver::get().removable);
}
ZqStatus zqDriveHasTraceEvent(ZqWide image, ZqFlag* flag) {
    return answer("HasTraceEvent", image, flag, ScriptedDriver::get().monitored);
}
ZqStatus zqDriveSetCursor(ZqWide image, uint64 zqfIdx) {
    ScriptedDriver::get().cursor = zqfIdx;
    return act("SetCursor", image, " " + std::to_string(zqfIdx));
}
ZqStatus zqDriveSetQACursor(ZqWide image, uint64 zqfIdx) {
    return act("SetQACursor", image, " " + std::to_string(zqfIdx));
}
ZqStatus zqDriveSuspend(ZqWide image) {
    if (act("Suspend", image) != 0) return 1;
    ScriptedDriver::get().suspended = true;
    return 0;
}
ZqStatus zqDriveResume(ZqWide image) {
    if (act("Resume", image) != 0) return 1;
    ScriptedDriver::get().suspended = false;
    return 0;
}
ZqStatus zqDriveSetFailOnUnderflow(ZqWide image) {
    return act("SetFailOnUnderflow", image);
}
ZqStatus zqDrivePopUnderflowZqFBlock(ZqWide image, uint64* zqfIdx) {
    const std::vector<uint64> next = ScriptedDriver::get().pop(1);
    return answer("PopUnderflowZqFBlock", image, zqfIdx, next.empty() ? 0 : next.front());
}
ZqStatus zqDrivePopUnderflowZqFBlocks(ZqWide image, uint64* zqfIdx, uint64* count) {
    if (!enter("PopUnderflowZqFBlocks", image)) return 1;
    const std::vector<uint64> next = ScriptedDriver::get().pop(*count);
    *count = next.size();
    std::copy(next.begin(), next.end(), zqfIdx);
    return 0;
}
ZqStatus zqDriveGetRequestData(ZqWide image, uint64* offset, uint64* length) {
    *length = 4096;
    return answer("GetRequestData", image, offset, 8192);
}
ZqStatus zqDriveResolveUnderflow(ZqWide image, uint64 zqfIdx, const char* data, uint64 length) {
    const std::string bytes(data, length);
    const std::string shown = length < BLOCK ? bytes : std::to_string(length) + " bytes";
    if (act("ResolveUnderflow", image, " " + std::to_string(zqfIdx) + " " + shown) != 0) return 1;
    ScriptedDriver::get().take(zqfIdx, bytes);
    return 0;
}
ZqStatus zqDriveMonitorOn(ZqWide image, ZqWide traceFolder) {
    if (act("MonitorOn", image, " " + text(traceFolder)) != 0) return 1;
    ScriptedDriver::get().monitored = true;
    return 0;
}
ZqStatus zqDriveMonitorOff(ZqWide image) {
    return act("MonitorOff", image);
}
ZqStatus zqDriveFlushTWToImage(ZqWide image) {
    return act("FlushTWToImage", image);
}

ZqStatus zqDriveSetCacheSize(int bytes) {
    return ScriptedDriver::get().enter("SetCacheSize", "SetCacheSize " + std::to_string(bytes)) ? 0 : 1;
}
ZqStatus zqDriveStoreDisks() {
    return ScriptedDriver::get().enter("StoreDisks", "StoreDisks") ? 0 : 1;
}
ZqStatus zqDriveLoadDisks() {
    return ScriptedDriver::get().enter("LoadDisks", "LoadDisks") ? 0 : 1;
}
ZqStatus zqDriveReset() {
    return ScriptedDriver::get().enter("Reset", "Reset") ? 0 : 1;
}
ZqStatus zqDrivePing(ZqFlag* flag) {
    *flag = ScriptedDriver::get().answersPing;
    return ScriptedDriver::get().enter("DrivePing") ? 0 : 1;
}
ZqStatus zqDriveGetVersion(char* buffer, uint64* size) {
    return version("DriveGetVersion", buffer, size);
}

ZqStatus zqGuardOn(unsigned char, ZqFlag* flag) {
    return guard("GuardOn", flag);
}
ZqStatus zqGuardOff(unsigned char, ZqFlag* flag) {
    return guard("GuardOff", flag);
}
ZqStatus zqGuardPing(ZqFlag* flag) {
    *flag = ScriptedDriver::get().answersPing;
    return ScriptedDriver::get().enter("GuardPing") ? 0 : 1;
}
ZqStatus zqGuardGetVersion(char* buffer, uint64* size) {
    return version("GuardGetVersion", buffer, size);
}
ZqStatus zqGuardSetImageType(unsigned char devId, int type) {
    const std::string note = "SetImageType " + std::to_string(devId) + " " + std::to_string(type);
    return ScriptedDriver::get().enter("SetImageType", note) ? 0 : 1;
}
ZqStatus zqGuardSetLogging(ZqFlag on) {
    return ScriptedDriver::get().enter("SetLogging", on ? "SetLogging on" : "SetLogging off") ? 0 : 1;
}
ZqStatus zqGuardSetReparse(unsigned char, ZqWide names, ZqWide directory) {
    const std::string note = "SetReparse " + text(names) + " -> " + text(directory);
    return ScriptedDriver::get().enter("SetReparse", note) ? 0 : 1;
}

bool ZqVolume::queryIdentity(const SxString& drive, ZqVolumeIdentity* identity) {
    ScriptedDriver& driver = ScriptedDriver::get();
    const auto other = driver.otherDrives.find(drive.str());
    *identity =
        other != driver.otherDrives.end() ? other->second : ZqVolumeIdentity{"VOLM", "ZqDD", DEVICE_ID};
    return driver.enter("queryIdentity") && !identity->vendorId.isEmpty();
}
void ZqVolume::dismount(const SxString& drive, bool* busy) {
    raiseUnless(ScriptedDriver::get().enter("dismount", "dismount " + drive.str()));
    *busy = ScriptedDriver::get().isBusy;
}
void ZqVolume::ejectMedia(const SxString& drive) {
    ScriptedDriver& driver = ScriptedDriver::get();
    raiseUnless(driver.enter("ejectMedia", "ejectMedia " + drive.str()));
    driver.releasedAt = driver.clock().elapsedMs();
    driver.settle();
}
SxString ZqVolume::getLabel(const SxString& drive) {
    return "label of " + drive;
}
void ZqVolume::setLabel(const SxString& drive, const SxString& label) {
    ScriptedDriver::get().enter("setLabel", "setLabel " + drive.str() + " " + label.str());
}
bool ZqVolume::findDisk(const SxString& image, ZqDiskStatus* status) {
    ScriptedDriver& driver = ScriptedDriver::get();
    if (!enter("FindDisk", image.utf16().data())) throw getLastException("ScriptedDriver", __LINE__);
    const bool isNext = driver.releasedAt >= 0 && driver.nextMadeNs != 0;
    if (!driver.mounted && !isNext) return false;
    status->image = driver.image;
    status->ready = driver.ready;
    status->failure = driver.diskFailure;
    status->drive = driver.drive;
    status->mountPath = "/mounted";
    status->madeNs = isNext ? driver.nextMadeNs : 1;
    status->removable = driver.removable;
    status->suspended = driver.suspended;
    status->monitored = driver.monitored;
    status->underflow = !driver.queue.empty();
    status->queueLength = driver.queue.size();
    status->cursor = driver.cursor;
    status->sectorSize = 4096;
    return true;
}
SxList<ZqDiskStatus> ZqVolume::getDisks() {
    SxList<ZqDiskStatus> disks;
    for (const std::string& image : ScriptedDriver::get().otherImages) {
        ZqDiskStatus disk;
        disk.image = image;
        disks.append(disk);
    }
    return disks;
}
bool ZqVolume::isForeign() {
    return false;
}
bool ZqVolume::isReplaced(const SxString&) {
    return false;
}
bool ZqVolume::isVisible(const ZqDiskStatus&) {
    return ScriptedDriver::get().isVisible;
}
bool ZqVolume::isElsewhere(const ZqDiskStatus&) {
    return !ScriptedDriver::get().isVisible;
}
void ZqVolume::requireView() {
}
SxString ZqVolume::findDrive(const ZqDiskStatus& disk) {
    ScriptedDriver& driver = ScriptedDriver::get();
    const bool isDue = driver.mounted && driver.clock().elapsedMs() >= driver.mountedAt + driver.letterAfter;
    return isDue && driver.hasLink ? disk.drive : SxString();
}
void ZqVolume::setReady(const SxString&) {
    ScriptedDriver::get().enter("setReady", "setReady");
    ScriptedDriver::get().ready = true;
}
bool ZqVolume::removeLeftovers(const SxString&, bool* written) {
    *written = false;
    return false;
}
uint64 ZqVolume::getProgress(const SxString&) {
    ScriptedDriver& driver = ScriptedDriver::get();
    return driver.nProgress > 0 ? driver.nProgress-- : 0;
}
bool ZqVolume::wasBusy() {
    return ScriptedDriver::get().isBusy;
}
SxString ZqVolume::getLastFailure() {
    return ScriptedDriver::get().lastFailure;
}
SxException ZqVolume::getLastException(const SxString& unit, int line) {
    return ScriptedDriver::get().wasSilent ? SxException(SILENT, getLastFailure(), unit, line)
                                           : SxException(getLastFailure(), unit, line);
}
