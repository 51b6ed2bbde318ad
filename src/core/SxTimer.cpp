#include "SxTimer.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxMap.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/core/SxTimer";
constexpr int N_GLOBAL_TIMERS = 64; // at first; names beyond make room

/// Which enumeration has which ids.
class IdSpaces {
public:
    int getStartId(const SxString& enumName) {
        SxMutexBlock lock(&mutex);
        return space(enumName).startId;
    }
    int registerValue(const SxString& enumName, int value) {
        SxMutexBlock lock(&mutex);
        Space& s = space(enumName);
        s.maxValue = std::max(s.maxValue, value);
        largestId = std::max(largestId, s.startId + s.maxValue);
        return s.startId + value;
    }

private:
    struct Space {
        int startId = -1;
        int maxValue = -1;
    };

    Space& space(const SxString& enumName) SX_REQUIRES(mutex) {
        Space& s = spaces(enumName);
        if (s.startId < 0) s.startId = largestId + 1;
        return s;
    }

    SxMutex mutex;
    SxMap<SxString, Space> spaces SX_GUARDED_BY(mutex);
    int largestId SX_GUARDED_BY(mutex) = -1;
};

IdSpaces& idSpaces() {
    static IdSpaces spaces;
    return spaces;
}

} // namespace

SxTimer::SxTimer(int nTimers, bool startAll) : watches(static_cast<size_t>(nTimers)) {
    for (int id = 0; startAll && id < nTimers; ++id)
        start(id);
}

SxTimer& SxTimer::getGlobalTimer() {
    static SxTimer timer(N_GLOBAL_TIMERS, false);
    return timer;
}

bool SxTimer::startIfIdle(int id) {
    const int64 now = SxClock::get().steadyNs();
    SxMutexBlock lock(&mutex);
    require(id);
    Watch& w = watches[static_cast<size_t>(id)];
    if (w.running) return false;
    w.running = true;
    w.startNs = now;
    return true;
}

void SxTimer::stop(int id) noexcept {
    const int64 now = SxClock::get().steadyNs();
    SxMutexBlock lock(&mutex);
    if (id < 0 || static_cast<size_t>(id) >= watches.size()) return;
    Watch& w = watches[static_cast<size_t>(id)];
    if (!w.running) return;
    w.running = false;
    // Another thread may have started it after the look at the clock.
    w.totalNs += std::max<int64>(now - w.startNs, 0);
}

bool SxTimer::isIdle(int id) const {
    SxMutexBlock lock(&mutex);
    return !watch(id).running;
}

int64 SxTimer::getElapsedNs(int id) const {
    const int64 now = SxClock::get().steadyNs();
    SxMutexBlock lock(&mutex);
    const Watch& w = watch(id);
    return w.totalNs + (w.running ? std::max<int64>(now - w.startNs, 0) : 0);
}

SxString SxTimer::getName(int id) const {
    SxMutexBlock lock(&mutex);
    return watch(id).name;
}

void SxTimer::regTimer(const char* enumName, int value, const SxString& name) {
    getGlobalTimer().setName(idSpaces().registerValue(enumName, value), name);
}

int SxTimer::getStartId(const char* enumName) {
    return idSpaces().getStartId(enumName);
}

void SxTimer::setName(int id, const SxString& name) {
    SxMutexBlock lock(&mutex);
    const size_t needed = static_cast<size_t>(id) + 1;
    if (watches.size() < needed) watches.resize(std::max(needed, 2 * watches.size()));
    watches[static_cast<size_t>(id)].name = name;
}

void SxTimer::require(int id) const {
    if (id < 0 || static_cast<size_t>(id) >= watches.size()) {
        throw SxException("There is no timer " + SxString(id), UNIT, __LINE__);
    }
}

const SxTimer::Watch& SxTimer::watch(int id) const {
    require(id);
    return watches[static_cast<size_t>(id)];
}
