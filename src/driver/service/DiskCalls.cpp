#include "Disk.h"

#include "DriverLog.h"
#include "Helper.h"
#include "SxException.h"
#include "SxOs.h"
#include "SxTime.h"
#include "ZqDriveMeans.h"

// What clients ask of a disk, and change of one that is there.

namespace {

constexpr const char* UNIT = "src/driver/DiskCalls";
/// How long monitorOn() waits at most until the kernel reads little in advance on the drive: blocks that are
/// read ahead would be recorded, though nobody asked for them.
constexpr int64 SETTLE_MS = 1000;
constexpr uint64 NS_PER_MS = 1'000'000;

} // namespace

void Disk::redirect(const SxList<SxString>& names, const SxString& directory) {
    const SxMutexBlock block(&tearing);
    if (!isMounted()) throw SxException("The volume isn't mounted", UNIT, __LINE__);
    ZqDriveMeans::require({ZqDriveMeans().getRedirection()});
    isRedirected = true;
    updateNote([](DirectNote* kept) { kept->isRedirected = true; });
    SxList<SxString> words = {"redirect", folder.getVolume(), directory, params.image + "/"};
    words.append(names);
    try {
        const Helper::Facts facts = runHelper(words);
        const auto aside = facts.find("aside");
        if (aside != facts.end()) {
            driverLog("former copies, which would hide names of this version, are now in " +
                      SxString(aside->second));
        }
    } catch (const SxException& e) {
        // What was freed by ending the connection no longer serves.
        if (isAborted)
            state.fail("Redirecting names took too long: " + e.toString(SxException::ShowMessage, ": "));
        throw;
    }
}

void Disk::suspend() {
    const SxMutexBlock block(&sight);
    if (ending) throw SxException("The disk is being ejected", UNIT, __LINE__);
    requireSight("suspended");
    disk.suspend();
}

void Disk::setQACursor(uint64 zqfIdx) {
    const SxMutexBlock block(&sight);
    requireSight("counted from a place on");
    disk.getReads()->setQACursor(zqfIdx);
}

void Disk::flushLayer() {
    // Once it is ejected the image may be somebody else's.
    const SxMutexBlock block(&tearing);
    if (ending) throw SxException("The disk is being ejected", UNIT, __LINE__);
    const SxPtr<ZqImageLock> lock = DiskLocks::takeBlocks(params.image);
    disk.flushLayer();
}

void Disk::monitorOn(const SxString& traceFolder) {
    {
        const SxMutexBlock block(&sight);
        requireSight("traced");
        disk.getTrace()->start(traceFolder);
    }
    SxWait::pass(SETTLE_MS, [this] { return !isMounted() || !readAhead.isHigh(); });
}

void Disk::restore() {
    const SxMutexBlock block(&tearing);
    if (!isMounted()) return;
    // A service that takes it over now would take it for whole.
    updateNote([](DirectNote* kept) { kept->ready = false; });
    runHelper({"restore", folder.getVolume()});
}

ZqDiskStatus Disk::getStatus() {
    ZqDiskStatus status;
    status.image = params.image;
    status.removable = params.removable;
    status.deviceId = deviceId;
    status.sectorSize = params.sectorSize;
    status.cursor = disk.getCursor();
    status.nIncluded = disk.nIncluded();
    status.queueLength = disk.queueLength();
    status.nHeld = disk.nHeld();
    const ReadCount& reads = *disk.getReads();
    status.nReads = reads.get();
    status.nBeyondQA = reads.nBeyondQA();
    status.nStoredBytes = reads.getBytes(ReadPlan::Stored);
    status.nDeliveredBytes = reads.getBytes(ReadPlan::Delivered);
    status.nLayeredBytes = reads.getBytes(ReadPlan::Layered);
    status.nZeroBytes = reads.getBytes(ReadPlan::Zeros);
    status.nWaits = reads.getWaits();
    status.heldMs = static_cast<uint64>(disk.readsHeldNs()) / NS_PER_MS;
    const ReadWaits::View waits = disk.waitsOfReads();
    status.waitSinceNs = static_cast<uint64>(waits.sinceNs);
    status.lastWaitFromNs = static_cast<uint64>(waits.lastFromNs);
    status.lastWaitToNs = static_cast<uint64>(waits.lastToNs);
    status.underflow = disk.isUnderflow();
    status.suspended = disk.isSuspended();
    status.monitored = disk.getTrace()->isOn();
    status.ready = ready;
    status.replaced = upkeep.isReplaced();
    status.mounterPid = mounterPid;
    status.isServedByKernel = isDirect;
    status.servicePid = SxOs::processId();
    status.madeNs = madeNs;
    const DiskState::View view = state.view();
    status.failure = view.failure.isEmpty() ? disk.getFailure() : view.failure;
    if (status.failure.isEmpty()) status.failure = describeLostWrites(0);
    if (status.failure.isEmpty()) status.failure = lost.get();
    // The upkeep hasn't come to it yet.
    if (status.failure.isEmpty() && view.stage == DiskState::Stage::Mounted && front.hasEnded() && !detaching)
        status.failure = "The connection to the drive's file has ended";
    if (view.hasDrive) {
        status.mountPath = folder.getVolume();
        status.drive = view.drive;
    }
    return status;
}
