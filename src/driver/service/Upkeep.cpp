#include "Upkeep.h"

#include "DriverLog.h"
#include "Mounts.h"
#include "SxDeadline.h"
#include "SxTime.h"

#include <utility>

namespace {

/// How often a disk looks whether it is still mounted.
constexpr int64 LOOK_NS = 1'000'000'000;
constexpr int64 TICK_MS = 100;
/// Of a tick, for giving room back to the disk: a fifth of the time.
constexpr int64 GIVE_BACK_MS = 25;
/// A loop device has 128 requests: when all are held, it stands still.
constexpr uint64 NEARLY_ALL = 100;

} // namespace

Upkeep::Upkeep(const Parts& parts_, uint64 cacheSize_, Ties ties_)
    : parts(parts_),
      ties(std::move(ties_)),
      cacheSize(cacheSize_),
      appliedCacheSize(cacheSize_),
      thread("tick", [this] { run(); }) {
}

void Upkeep::run() {
    while (!stopping && !ties.isGone()) {
        try {
            tick();
        } catch (const std::exception& e) {
            driverLog(e.what());
        }
        SxTime::msleep(TICK_MS);
    }
}

void Upkeep::tick() {
    // First what waits for nothing of the image's disk.
    noticeEnd();
    // While the disk is suspended the kernel might wait for it.
    const bool isSteered = ties.isMounted() && !ties.isDirect() && !parts.disk.isSuspended();
    if (isSteered) logOnce(parts.readAhead.adjust());
    applyCacheSize();
    replaced = parts.disk.isReplaced();
    parts.disk.tick();
    // After a large discard there is a lot of it, and the rest of the work must go on meanwhile.
    for (const SxDeadline deadline(GIVE_BACK_MS); deadline.getLeftMs() > 0 && parts.disk.giveBackRoom();)
        continue;
    for (const SxString& text : {parts.disk.getFailure(), parts.disk.getTrace()->getFailure()})
        logOnce(text);
    watchHeld();
}

/// What of the two somebody has unmounted; null for neither.
const char* Upkeep::findUnmounted() const {
    const bool hasFile = !ties.isDirect();
    if (hasFile && (parts.front.hasEnded() || !Mounts::isMounted(parts.folder.getFront().str())))
        return "file";
    return Mounts::isMounted(parts.folder.getVolume().str()) ? nullptr : "volume";
}

/// Looks once a second, in the mount table and at the file's connection, whether somebody else has unmounted
/// the volume or the file that it lies on.
void Upkeep::noticeEnd() {
    const int64 nowNs = SxClock::get().steadyNs();
    if (isEndNoticed || nowNs - lastLookNs < LOOK_NS) return;
    lastLookNs = nowNs;
    if (!ties.isMounted()) return;
    const char* what = nullptr;
    try {
        what = findUnmounted();
    } catch (const SxException& e) {
        // Nobody knows, then. The next look may.
        logOnce("Cannot see whether the drive is still mounted: " +
                e.toString(SxException::ShowMessage, ": "));
    }
    if (what) isEndNoticed = ties.onUnmounted(SxString("Somebody has unmounted the drive's ") + what);
}

/// What doesn't go into the file that it is meant for stays in memory: that fails no other disk.
void Upkeep::applyCacheSize() {
    const uint64 wanted = cacheSize;
    if (wanted == appliedCacheSize) return;
    appliedCacheSize = wanted;
    try {
        parts.disk.setCacheSize(wanted);
    } catch (const SxException& e) {
        logOnce("its cache size can't be set to " + SxString(wanted) + ": " +
                e.toString(SxException::ShowMessage, ": "));
    }
}

void Upkeep::watchHeld() {
    const uint64 nHeld = parts.disk.nHeld();
    const bool wasNearlyFull = std::exchange(isNearlyFull, nHeld >= NEARLY_ALL);
    if (!hasLoop || !isNearlyFull || wasNearlyFull) return;
    driverLog("image " + parts.image + " holds " + SxString(nHeld) +
              " reads; at 128 its loop device serves no others");
}

void Upkeep::logOnce(const SxString& text) {
    const SxMutexBlock block(&mutex);
    if (text.isEmpty() || logged.contains(text)) return;
    logged.append(text);
    driverLog("image " + parts.image + ": " + text);
}
