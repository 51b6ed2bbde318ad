#include "SxClock.h"
#include "ZqImageAheadLoader.h"
#include "ZqImageTableLoader.h"
#include "ZqLog.h"
#include "ZqRemoteImage.h"
#include "ZqUrlText.h"

// What is known of the packed form.

void ZqRemoteImage::openTable() {
    {
        SxMutexBlock lock(&mutex);
        if (tableBegun) return;
        tableBegun = true;
        tableBegunNs = SxClock::get().steadyNs();
    }
    try {
        tableLoader->start();
    } catch (const SxException&) {
        SxMutexBlock lock(&mutex);
        tableBegun = false;
        throw;
    }
    try {
        for (const auto& loader : aheadLoaders)
            loader->start();
    } catch (const SxException& e) {
        // Nobody depends on them: who waits for what one of them should bring takes that himself.
        zqLogMsg("NET", e.toString(SxException::ShowMessage, ": "));
    }
}

bool ZqRemoteImage::takeTable(const SxPtr<ZqSeekTable>& table_, bool isStated) {
    {
        SxMutexBlock lock(&mutex);
        // The checksums are of decoded bytes, so those of the image that was packed anew are the same. A file
        // that doesn't say what it was packed of may be an old one, and gives way to one that does.
        const bool isBetter = isStated && !isTableStated;
        const bool isOther = table && !table_->hasSameChecksums(*table);
        if (isOther && table->hasChecksums() && !isBetter) return false;
        if (isOther) doubtKept();
        table = table_;
        isTableStated = isTableStated || isStated;
        state = Packed::Offered;
    }
    changed.notify_all();
    return true;
}

void ZqRemoteImage::doubtKept() {
    for (const auto& [idx, bytes] : kept)
        unchecked.insert(idx);
    recent.clear();
}

void ZqRemoteImage::setState(Packed state_) {
    {
        SxMutexBlock lock(&mutex);
        state = state_;
    }
    changed.notify_all();
}

void ZqRemoteImage::leavePacked(const SxException& why) {
    {
        SxMutexBlock lock(&mutex);
        if (state == Packed::Absent || state == Packed::Aside) return;
        state = Packed::Aside;
        isPackedAway = ZqNetLink::isAway(why);
        plainCame = false;
        tableFailure = why;
    }
    changed.notify_all();
    zqLogMsg("NET", "'" + ZqUrlText::of(packed->getUrl()) +
                        "' is left aside for now: " + why.toString(SxException::ShowMessage, ": "));
}

void ZqRemoteImage::noteTableWaits(const SxException& why) {
    {
        SxMutexBlock lock(&mutex);
        tableWaits = true;
        // Where there is no memory for that, nobody waits all the same.
        tableFailure = why;
    }
    changed.notify_all();
}

bool ZqRemoteImage::leavePackedFor(const SxException& e) {
    for (const char* tag : {ZqNetLink::NOT_FOUND, ZqNetLink::REFUSED, ZqNetLink::WRONG, ZqNetLink::CHANGED,
                            ZqNetLink::UNREACHABLE, ZqNetLink::BROKEN}) {
        if (!e.hasTag(tag)) continue;
        leavePacked(e);
        return true;
    }
    return false;
}

bool ZqRemoteImage::returnToPacked(SxException* why) {
    const bool isGone = why->hasTag(ZqNetLink::NOT_FOUND) || why->hasTag(ZqNetLink::REFUSED);
    if (!isGone && !ZqNetLink::isAway(*why)) return false;
    {
        SxMutexBlock lock(&mutex);
        if (state != Packed::Aside || !isPackedAway || plainCame || !table) return false;
        state = Packed::Offered;
        // Whoever is asked again may wait for the one that will be there, not for the one that isn't.
        if (isGone) *why = tableFailure;
    }
    changed.notify_all();
    return true;
}

void ZqRemoteImage::notePlainCame() {
    SxMutexBlock lock(&mutex);
    plainCame = true;
}

ZqRemoteImage::Packed ZqRemoteImage::awaitUseless(const ZqStopTest& stop) {
    SxMutexBlock lock(&mutex);
    while (state == Packed::Offered && !stop())
        changed.wait(mutex);
    return state;
}

SxPtr<ZqSeekTable> ZqRemoteImage::getTable() const {
    SxMutexBlock lock(&mutex);
    return state == Packed::Offered ? table : nullptr;
}

SxPtr<ZqSeekTable> ZqRemoteImage::getKnownTable() const {
    SxMutexBlock lock(&mutex);
    return table;
}

ZqRemoteImage::Packed ZqRemoteImage::getState() const {
    SxMutexBlock lock(&mutex);
    return state;
}
