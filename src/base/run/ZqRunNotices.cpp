#include "ZqRunNotices.h"

#include "SxClock.h"
#include "SxOs.h"
#include "ZqNotifier.h"

#include <utility>

namespace {

constexpr int64 NS_PER_MS = 1'000'000;
/// How long the end of a run waits for a bus that doesn't answer, at most twice.
constexpr int64 LAST_MS = 250;
constexpr const char* SERVER = "waiting for the server";
constexpr size_t MOST_BYTES = 400;

SxString lastPart(const SxString& path) {
    const SxList<SxString> parts = path.tokenize('/');
    return parts.isEmpty() ? path : parts.last();
}

SxString titleOf(const SxString& image) {
    SxString name = lastPart(image);
    if (!name.isEmpty() && !(name == ".") && !(name == "..")) return name;
    return lastPart(SxString(SxOs::physicalPath(SxOs::hostPath(image))));
}

SxString shortened(const SxString& text) {
    if (text.str().size() <= MOST_BYTES) return text;
    return SxString(text.str().substr(0, MOST_BYTES)).validUtf8() + " ...";
}

} // namespace

ZqRunNotices::ZqRunNotices(const SxString& image) : notifier(std::make_unique<ZqNotifier>(titleOf(image))) {
}

ZqRunNotices::~ZqRunNotices() = default;

void ZqRunNotices::look(ZqRun::Phase phase, bool hasStarted, const ZqFeedStatus& status) {
    if (notifier->isBusy()) notifier->process();
    // What the download waits for while the game goes on is no matter of its player.
    const bool isPlayed = phase == ZqRun::Running || phase == ZqRun::Adopted;
    const bool isWanted = !isPlayed || status.isUnderflow || status.holdsReads;
    follow(phase, hasStarted, isWanted ? status.waiting : SxString());
    send();
}

void ZqRunNotices::follow(ZqRun::Phase phase, bool hasStarted, const SxString& waiting) {
    const int64 nowNs = SxClock::get().steadyNs();
    if (phase == ZqRun::Running && hasStarted && !std::exchange(wasReady, true)) {
        next = Ready;
        nextText = "Ready to start";
    }
    if (waiting.startsWith(SERVER)) {
        if (awayNs == 0) awayNs = nowNs;
        if (nowNs - awayNs < AWAY_MS * NS_PER_MS) return;
        if (next == Again) next = Nothing;
        if (shown == Waiting) return;
        next = Waiting;
        nextText = "W" + SxString(waiting.str().substr(1));
        return;
    }
    awayNs = 0;
    if (next == Waiting) next = Nothing;
    if (shown != Waiting || next != Nothing) return;
    const bool runs = phase == ZqRun::Running || phase == ZqRun::Adopted;
    next = Again;
    nextText = runs ? "Running again" : "The download goes on";
}

void ZqRunNotices::send() {
    if (next == Nothing || notifier->isBusy()) return;
    const int64 nowNs = SxClock::get().steadyNs();
    if (shownNs != 0 && nowNs - shownNs < PAUSE_MS * NS_PER_MS) return;
    notifier->show(shortened(nextText));
    shownNs = nowNs;
    shown = std::exchange(next, Nothing);
}

void ZqRunNotices::end(const SxString& failure) {
    if (failure.isEmpty()) {
        if (shown != Waiting) return;
        if (notifier->isBusy()) notifier->finish(LAST_MS);
        notifier->close();
        return;
    }
    if (notifier->isBusy()) notifier->finish(LAST_MS);
    notifier->show(shortened("Could not start: " + failure));
    notifier->finish(LAST_MS);
}
