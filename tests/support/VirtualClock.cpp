#include "VirtualClock.h"

VirtualClock::VirtualClock(int64 startMs) : previous(&SxClock::get()), systemStartMs(startMs) {
    orderOfThisThread();
    SxClock::set(this);
}

VirtualClock::~VirtualClock() {
    SxClock::set(previous);
}

int64 VirtualClock::systemMs() {
    const std::lock_guard lock(mutex);
    return systemStartMs + nowNs / 1'000'000;
}

int64 VirtualClock::steadyNs() {
    const std::lock_guard lock(mutex);
    return nowNs;
}

int64 VirtualClock::elapsedMs() {
    return steadyNs() / 1'000'000;
}

void VirtualClock::adjustSystem(int64 ms) {
    const std::lock_guard lock(mutex);
    systemStartMs += ms;
}

void VirtualClock::sleepNs(int64 ns) {
    if (ns <= 0) return;
    std::unique_lock lock(mutex);
    const Sleeper self{nowNs + ns, orderOfThisThread()};
    sleepers.insert(self);
    advance();
    while (sleepers.contains(self)) {
        if (allBlocked() && nWaiting > 0) {
            changed.wait_until(lock, quietSince + GRACE);
            advance();
        } else {
            changed.wait(lock);
        }
    }
}

void VirtualClock::advance() {
    if (sleepers.empty() || !allBlocked()) return;
    if (nWaiting > 0 && std::chrono::steady_clock::now() < quietSince + GRACE) {
        changed.notify_all();
        return;
    }
    nowNs = std::max(nowNs, sleepers.begin()->first);
    sleepers.erase(sleepers.begin());
    changed.notify_all();
}

int64 VirtualClock::orderOfThisThread() {
    const auto [entry, isNew] = order.try_emplace(std::this_thread::get_id(), nextOrder);
    if (isNew) ++nextOrder;
    return entry->second;
}

void VirtualClock::threadStarting() {
    const std::lock_guard lock(mutex);
    ++nThreads;
}

void VirtualClock::threadEnded() {
    const std::lock_guard lock(mutex);
    --nThreads;
    order.erase(std::this_thread::get_id());
    quietSince = std::chrono::steady_clock::now();
    advance();
}

void VirtualClock::waitBegins() {
    const std::lock_guard lock(mutex);
    ++nWaiting;
    quietSince = std::chrono::steady_clock::now();
    advance();
}

void VirtualClock::waitEnds() {
    const std::lock_guard lock(mutex);
    --nWaiting;
}
