#include "ShortReads.h"

void ShortReads::noteEnd(int64 sinceNs, int64 nowNs) {
    endedNs += nowNs - sinceNs;
    waits->end(nowNs);
}

bool ShortReads::hold(uint64 token) {
    const int64 nowNs = SxClock::get().steadyNs();
    const SxMutexBlock lock(&mutex);
    const auto [place, isNew] = requests.try_emplace(token, Request{nowNs, true});
    if (isNew) waits->begin(nowNs);
    const bool isLate = nowNs - place->second.sinceNs >= LIMIT_NS;
    if (isLate) hasExpired = true;
    const bool isOver = isFailing || hasExpired;
    if (isOver) {
        noteEnd(place->second.sinceNs, nowNs);
        requests.erase(place);
    } else {
        place->second.isHeld = true;
    }
    nKnown = requests.size();
    return !isOver;
}

bool ShortReads::forget(uint64 token) {
    const SxMutexBlock lock(&mutex);
    const auto found = requests.find(token);
    if (found == requests.end()) return false;
    const bool wasHeld = found->second.isHeld;
    noteEnd(found->second.sinceNs, SxClock::get().steadyNs());
    requests.erase(found);
    nKnown = requests.size();
    return wasHeld;
}

std::vector<uint64> ShortReads::releaseLocked() {
    std::vector<uint64> tokens;
    for (auto& [token, request] : requests) {
        if (request.isHeld) tokens.push_back(token);
        request.isHeld = false;
    }
    return tokens;
}

std::vector<uint64> ShortReads::release() {
    if (nKnown.load() == 0) return {};
    const SxMutexBlock lock(&mutex);
    return releaseLocked();
}

std::vector<uint64> ShortReads::fail() {
    const SxMutexBlock lock(&mutex);
    isFailing = true;
    return releaseLocked();
}

int64 ShortReads::heldNs() const {
    const int64 nowNs = SxClock::get().steadyNs();
    const SxMutexBlock lock(&mutex);
    int64 sumNs = endedNs;
    for (const auto& [token, request] : requests)
        sumNs += nowNs - request.sinceNs;
    return sumNs;
}

uint64 ShortReads::nHeld() const {
    const SxMutexBlock lock(&mutex);
    uint64 n = 0;
    for (const auto& [token, request] : requests)
        n += request.isHeld ? 1 : 0;
    return n;
}
