#include "ZqImageProgress.h"

#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"
#include "ZqImageParams.h"
#include "ZqJobFailure.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqStartForecast.h"
#include "ZqVolume.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace {

constexpr const char* UNIT = "src/base/ZqImageProgress";
constexpr const char* PREFIX = "ZqImageProgress::main: ";
constexpr const char* TRACE_FILE = "/img.trc";

constexpr int64 PERIOD_MS = 1000;
constexpr int64 N_SPEEDS = 10'000 / PERIOD_MS;
constexpr uint64 LEAST_SPEED = 10'000; // bytes per second
constexpr int BLOCK_SHIFT = 12;
constexpr int ITEM_SHIFT = 4; // 16 bytes in img.trc

/// Bytes that the longest of the traces in `folder` touches.
uint64 longestTrace(const SxString& folder) {
    uint64 longest = 0;
    if (!SxFSAction::test_d(folder)) return longest;
    for (const SxFileInfo& entry : SxFSAction::ls(folder)) {
        const SxFileInfo file(entry.getAbsPath() + TRACE_FILE);
        if (!file.exists()) continue;
        longest = std::max(longest, static_cast<uint64>(file.getSize()) >> ITEM_SHIFT << BLOCK_SHIFT);
    }
    return longest;
}

} // namespace

/// How much of the growing image can be read.
class ZqImageProgress::File {
public:
    File(const SxString& path, const std::function<uint64()>* writeEnd_) : file(path), writeEnd(writeEnd_) {
        look();
    }

    /// Gives whether it has grown.
    bool look() {
        file.setDirty();
        const auto now = static_cast<uint64>(file.getSize());
        if (now < told) {
            throw SxException("Application image has been externally modified", UNIT, __LINE__);
        }
        told = now;
        // After the size, so that what was written between doesn't count yet.
        const uint64 end = *writeEnd ? std::min(now, (*writeEnd)()) : now;
        if (end <= size) return false;
        size = end;
        return true;
    }
    uint64 getSize() const { return size; }

private:
    SxFile file;
    const std::function<uint64()>* const writeEnd;
    uint64 told = 0; ///< by the file system
    uint64 size = 0;
};

ZqImageProgress::ZqImageProgress(const SxString& path_, const ZqAppParams& params)
    : path(path_),
      appParams(params),
      avgSpeed(SxPtr<ZqAvg>::create(N_SPEEDS)),
      globalAvgSpeed(SxPtr<ZqAvg>::create()),
      nTotal(params.sizeZqf) {
    setThreadName("image progress");
}

void ZqImageProgress::stop() {
    stopFlag = true;
}

bool ZqImageProgress::stopRequested() const {
    return stopFlag;
}

uint64 ZqImageProgress::getNCurrent() const {
    SxMutexBlock lock(&countMutex);
    return nCurrent;
}

uint64 ZqImageProgress::getNCurrent0() const {
    SxMutexBlock lock(&countMutex);
    return nCurrent0;
}

uint64 ZqImageProgress::getNTotal() const {
    SxMutexBlock lock(&countMutex);
    return nTotal;
}

void ZqImageProgress::setNCurrent(uint64 n) {
    SxMutexBlock lock(&countMutex);
    nCurrent = n;
}

double ZqImageProgress::getCurrentSpeed() const {
    SxMutexBlock lock(&speedMutex);
    return currentSpeed;
}

double ZqImageProgress::getAvgSpeed() const {
    SxMutexBlock lock(&speedMutex);
    return avgSpeed->getAverage();
}

int64 ZqImageProgress::getNSpeeds() const {
    SxMutexBlock lock(&speedMutex);
    return avgSpeed->getN();
}

ZqImageProgress::Pass ZqImageProgress::getPass() const {
    SxMutexBlock lock(&countMutex);
    if (passSinceMs == 0) return {};
    const double seconds = static_cast<double>(SxClock::get().steadyMs() - passSinceMs) / 1e3;
    return {seconds, nCurrent - std::min(nPassed, nCurrent)};
}

void ZqImageProgress::beginPass(uint64 nThere, int64 nowMs) {
    SxMutexBlock lock(&countMutex);
    nPassed = nThere;
    passSinceMs = nowMs;
}

double ZqImageProgress::getSigmaSpeed() const {
    SxMutexBlock lock(&speedMutex);
    return avgSpeed->getSigma();
}

double ZqImageProgress::getGlobalAvgSpeed() const {
    SxMutexBlock lock(&speedMutex);
    return globalAvgSpeed->getAverage();
}

double ZqImageProgress::getGlobalSigmaSpeed() const {
    SxMutexBlock lock(&speedMutex);
    return globalAvgSpeed->getSigma();
}

double ZqImageProgress::getGlobalMaxSpeed() const {
    SxMutexBlock lock(&speedMutex);
    return globalAvgSpeed->getMax();
}

void ZqImageProgress::resetAvgSpeed() {
    SxMutexBlock lock(&speedMutex);
    avgSpeed->reset();
}

uint64 ZqImageProgress::getRequiredSpeed(uint64 nInit) const {
    return appParams.getBpS(nInit);
}

uint64 ZqImageProgress::getNInitTrace() const {
    return std::max(longestTrace(path + "/traces"), longestTrace(path + "/../../traces"));
}

uint64 ZqImageProgress::getNInit(uint64 speedLimit) const {
    // A start at a fast link needn't wait for the first second to end. The wire is never faster than the
    // file.
    const double known = getNSpeeds() == 0 && earlySpeed ? earlySpeed() : getAvgSpeed();
    const double speed = std::min(known, static_cast<double>(speedLimit) / ZqBlocks::PER_MEGABIT);
    // Recorded traces don't count: a long session touches most of an image, and its trace would outweigh the
    // profile, which says when each byte is due. Without a profile the whole image is waited for anyway.
    const uint64 n = ZqStartForecast::findInit(appParams, speed);
    SxMutexBlock lock(&countMutex);
    return n > nTotal || nCurrent == nTotal ? nTotal : n;
}

uint64 ZqImageProgress::getStartETA(uint64 speedLimit) const {
    return secondsUntil(getNInit(speedLimit));
}

uint64 ZqImageProgress::getTotalETA() const {
    return secondsUntil(getNTotal());
}

uint64 ZqImageProgress::secondsUntil(uint64 nBytes) const {
    const uint64 there = getNCurrent();
    if (nBytes < there) return 0;
    return (nBytes - there) /
           std::max(LEAST_SPEED, static_cast<uint64>(getAvgSpeed() * ZqBlocks::PER_MEGABIT));
}

uint64 ZqImageProgress::cursorBehind(uint64 nBytes) {
    const uint64 zqfIdx = nBytes >> BLOCK_SHIFT;
    return nBytes % ZqBlocks::SIZE == 0 || zqfIdx == 0 ? zqfIdx : zqfIdx - 1;
}

void ZqImageProgress::main() {
    zqLogMsg("base", SxString(PREFIX) + "START");
    try {
        watch();
    } catch (const SxException& e) {
        ZqJobFailure::report(this, PREFIX, path, e, UNIT, __LINE__);
    }
    zqLogMsg("base", SxString(PREFIX) + "END");
}

void ZqImageProgress::watch() {
    File file(path + "/" + ZqImageFiles::ZQF, &writeEnd);
    {
        // Before the first growth, which never comes offline: an image that is there in parts isn't empty.
        SxMutexBlock lock(&countMutex);
        nCurrent0 = file.getSize();
        nCurrent = nCurrent0;
    }
    const uint64 total = getNTotal();
    uint64 previous = file.getSize();
    int64 time = SxClock::get().steadyMs();
    beginPass(previous, time);
    awaitGrowth(&file);
    while (!stopRequested() && previous < total) {
        // No look here: follow() wouldn't see that growth, and the cursor would stay where it is until the
        // next.
        const int64 elapsed = SxClock::get().steadyMs() - time;
        if (elapsed < PERIOD_MS && file.getSize() < total) {
            follow(&file);
            continue;
        }
        time += elapsed;
        takeSample(file.getSize() - previous, elapsed);
        previous = file.getSize();
        // Also where nothing came: the image may have been mounted since.
        moveCursor(cursorBehind(previous));
        setNCurrent(previous);
        beginPass(previous, time);
        follow(&file);
    }
    if (stopRequested()) return;
    // Beyond the last block of the disk, so that no read can miss anything from now on.
    const auto end = static_cast<uint64>(ZqImageParams(path + "/").sizeRaw) / ZqBlocks::SIZE;
    while (!moveCursor(end) && !stopRequested())
        SxTime::msleep(PERIOD_MS);
    setNCurrent(total);
}

void ZqImageProgress::awaitGrowth(File* file) {
    const uint64 total = getNTotal();
    bool grown = false;
    const auto ready = [&] {
        if (file->getSize() >= total || stopRequested()) return true;
        grown = file->look();
        return grown;
    };
    while (!SxWait::pass(PERIOD_MS, ready))
        continue;
    if (!grown) return;
    moveCursor(cursorBehind(file->getSize()));
    setNCurrent(file->getSize());
}

/// One pass, in which cursor and count go with the file. Speeds are taken once a pass and not here, since
/// their averages are those of passes.
void ZqImageProgress::follow(File* file) {
    const uint64 total = getNTotal();
    SxWait::pass(PERIOD_MS, [&] {
        if (file->getSize() >= total || stopRequested()) return true;
        const uint64 before = cursorBehind(file->getSize());
        if (!file->look()) return false;
        const uint64 cursor = cursorBehind(file->getSize());
        if (cursor != before) moveCursor(cursor);
        setNCurrent(file->getSize());
        return file->getSize() >= total;
    });
}

void ZqImageProgress::takeSample(uint64 nNew, int64 elapsedMs) {
    const double perPass = static_cast<double>(nNew) / ZqBlocks::PER_MEGABIT;
    const double speed = perPass * 1000.0 / static_cast<double>(std::max<int64>(elapsedMs, 1));
    SxMutexBlock lock(&speedMutex);
    avgSpeed->update(speed);
    globalAvgSpeed->update(speed);
    currentSpeed = speed;
}

ZqCursorWay ZqImageProgress::getCursorWay() const {
    SxMutexBlock lock(&wayMutex);
    return way;
}

void ZqImageProgress::noteWay(uint64 zqfIdx) {
    if (wayEnded) return;
    const int64 nowMs = SxClock::get().steadyMs();
    const uint64 nIncluded = (getNTotal() + ZqBlocks::SIZE - 1) / ZqBlocks::SIZE;
    SxMutexBlock lock(&wayMutex);
    way.add(nowMs, std::min(zqfIdx, nIncluded));
}

bool ZqImageProgress::moveCursor(uint64 zqfIdx) {
    const ZqMountMgr mgr;
    try {
        try {
            mgr.setCursor(path, zqfIdx);
        } catch (const SxException& e) {
            // The drive may have gone between the two questions of the call, which is no failure.
            if (e.hasTag(ZqVolume::SILENT) || mgr.isMounted(path)) throw;
        }
        serviceSilent = false;
        noteWay(zqfIdx);
    } catch (const SxException& e) {
        // A service that doesn't answer now is told with the next pass: the drive that it serves is up.
        if (!e.hasTag(ZqVolume::SILENT)) throw;
        serviceSilent = true;
    }
    return !serviceSilent;
}
