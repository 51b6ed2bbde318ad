#include "ZqFormChoice.h"

#include "SxClock.h"
#include "ZqLog.h"
#include "ZqUrlText.h"

#include <chrono>

namespace {

constexpr auto LOOK = std::chrono::milliseconds(20);
/// How long a stretch of the plain form waits for the table that tells whether it is right, from the first
/// request for that on. But for very large images a table comes in less time than a stretch takes: it has a
/// hundredth of a percent of its image. After this time the plain form goes on, unchecked until the table is
/// there.
constexpr int64 TABLE_PATIENCE_NS = 2'000'000'000;

} // namespace

ZqFormChoice::ZqFormChoice(const SxPtr<ZqNetLink>& link_, const SxString& packedUrl_,
                           std::function<void()> onOther_)
    : link(link_),
      packedUrl(packedUrl_),
      onOther(std::move(onOther_)) {
}

bool ZqFormChoice::begin() {
    SxMutexBlock lock(&mutex);
    if (isBegun) return false;
    isBegun = true;
    begunNs = SxClock::get().steadyNs();
    return true;
}

void ZqFormChoice::abandon() {
    SxMutexBlock lock(&mutex);
    isBegun = false;
}

void ZqFormChoice::beginLook() {
    SxMutexBlock lock(&mutex);
    isWanted = false;
}

bool ZqFormChoice::take(const Table& other, bool isStated_) {
    bool isOther = false;
    {
        SxMutexBlock lock(&mutex);
        // The checksums are of decoded bytes, so those of the image that was packed anew are the same. A file
        // that doesn't say what it was packed of may be an old one, and gives way to one that does.
        const bool isBetter = isStated_ && !isStated;
        isOther = table && !other->hasSameChecksums(*table);
        if (isOther && table->hasChecksums() && !isBetter) return false;
    }
    {
        // No other thread takes one, so the comparison still holds.
        SxMutexBlock lock(&mutex);
        table = other;
        isStated = isStated || isStated_;
        state = Packed::Offered;
    }
    // After the change, so that nothing that was looked up in the old table comes after it and stays.
    if (isOther && onOther) onOther();
    changed.notify_all();
    return true;
}

void ZqFormChoice::noteWaits(const SxException& why) {
    {
        SxMutexBlock lock(&mutex);
        waits = true;
        // Where there is no memory for that, nobody waits all the same.
        failure = why;
    }
    changed.notify_all();
}

ZqFormChoice::Packed ZqFormChoice::awaitUseless(const ZqStopTest& stop) {
    SxMutexBlock lock(&mutex);
    while (state == Packed::Offered && !stop())
        changed.wait(mutex);
    return state;
}

bool ZqFormChoice::awaitWanted(int64 ms, const ZqStopTest& stop) {
    const int64 endNs = SxClock::get().steadyNs() + ms * 1'000'000;
    SxMutexBlock lock(&mutex);
    while (!isWanted && !stop()) {
        const int64 leftNs = endNs - SxClock::get().steadyNs();
        if (leftNs <= 0) break;
        changed.wait_for(mutex, std::chrono::nanoseconds(leftNs));
    }
    return !stop();
}

void ZqFormChoice::wake() {
    {
        // Who has looked for a stop and not found it waits by now.
        SxMutexBlock lock(&mutex);
    }
    changed.notify_all();
}

void ZqFormChoice::setState(Packed state_) {
    {
        SxMutexBlock lock(&mutex);
        state = state_;
    }
    changed.notify_all();
}

void ZqFormChoice::leave(const SxException& why) {
    {
        SxMutexBlock lock(&mutex);
        if (state == Packed::Absent || state == Packed::Aside) return;
        state = Packed::Aside;
        isAway = ZqNetLink::isAway(why);
        plainCame = false;
        failure = why;
    }
    changed.notify_all();
    zqLogMsg("NET", "'" + ZqUrlText::of(packedUrl) +
                        "' is left aside for now: " + why.toString(SxException::ShowMessage, ": "));
}

bool ZqFormChoice::leaveFor(const SxException& e) {
    for (const char* tag : {ZqNetLink::NOT_FOUND, ZqNetLink::REFUSED, ZqNetLink::WRONG, ZqNetLink::CHANGED,
                            ZqNetLink::UNREACHABLE, ZqNetLink::BROKEN}) {
        if (!e.hasTag(tag)) continue;
        leave(e);
        return true;
    }
    return false;
}

void ZqFormChoice::refuse() {
    zqLogMsg("NET", "'" + ZqUrlText::of(packedUrl) + "' was packed of another img.zqf; it is left aside");
    setState(Packed::Absent);
}

bool ZqFormChoice::noteAbsent(const SxException& why) {
    const bool mayPass = why.hasTag(ZqNetLink::REFUSED);
    if (mayPass) {
        leave(why);
    } else {
        setState(Packed::Absent);
    }
    return !mayPass;
}

void ZqFormChoice::forgetAbsence() {
    {
        SxMutexBlock lock(&mutex);
        if (state != Packed::Absent) return;
        state = Packed::Unknown;
        isWanted = true;
        waits = false;
        begunNs = SxClock::get().steadyNs();
    }
    changed.notify_all();
}

bool ZqFormChoice::returnToPacked(SxException* why) {
    const bool isGone = why->hasTag(ZqNetLink::NOT_FOUND) || why->hasTag(ZqNetLink::REFUSED);
    if (!isGone && !ZqNetLink::isAway(*why)) return false;
    {
        SxMutexBlock lock(&mutex);
        if (state != Packed::Aside || !isAway || plainCame || !table) return false;
        state = Packed::Offered;
        // Whoever is asked again may wait for the one that will be there, not for the one that isn't.
        if (isGone) *why = failure;
    }
    changed.notify_all();
    return true;
}

void ZqFormChoice::notePlainCame() {
    SxMutexBlock lock(&mutex);
    plainCame = true;
}

ZqFormChoice::Packed ZqFormChoice::getState() const {
    SxMutexBlock lock(&mutex);
    return state;
}

ZqFormChoice::Table ZqFormChoice::getTable() const {
    SxMutexBlock lock(&mutex);
    return state == Packed::Offered ? table : nullptr;
}

ZqFormChoice::Table ZqFormChoice::getKnownTable() const {
    SxMutexBlock lock(&mutex);
    return table;
}

bool ZqFormChoice::isPutOff() const {
    return waits || state == Packed::Absent || state == Packed::Aside;
}

bool ZqFormChoice::isSettled() const {
    return table || isPutOff() || SxClock::get().steadyNs() - begunNs > TABLE_PATIENCE_NS;
}

bool ZqFormChoice::mayCheck() const {
    SxMutexBlock lock(&mutex);
    return table ? table->hasChecksums() : !isSettled();
}

bool ZqFormChoice::isDelayed(SxException* why) const {
    SxMutexBlock lock(&mutex);
    if (table || state == Packed::Absent || !isPutOff()) return false;
    *why = failure;
    return true;
}

ZqFormChoice::Table ZqFormChoice::awaitTable(const ZqStopTest& stop) {
    for (;;) {
        link->checkStop(stop);
        SxMutexBlock lock(&mutex);
        if (table || isPutOff()) return table;
        changed.wait_for(mutex, LOOK);
    }
}

ZqFormChoice::Table ZqFormChoice::awaitSoon(const ZqStopTest& stop) {
    for (;;) {
        link->checkStop(stop);
        SxMutexBlock lock(&mutex);
        if (isSettled()) return table;
        changed.wait_for(mutex, LOOK);
    }
}

bool ZqFormChoice::awaitPacked(bool isPlaced, const ZqStopTest& stop) {
    for (;;) {
        link->checkStop(stop);
        SxMutexBlock lock(&mutex);
        if (state == Packed::Offered && table) return true;
        if (state == Packed::Absent || state == Packed::Aside) return false;
        if (state == Packed::Unknown && isPlaced) return true;
        // A table that doesn't come holds up nobody.
        if (isSettled()) return false;
        changed.wait_for(mutex, LOOK);
    }
}
