#include "HeldRequests.h"

#include "SxClock.h"
#include "ZqBlocks.h"

#include <algorithm>

bool HeldRequests::isHeldBack(bool write) const {
    const unsigned now = restrictions.load();
    return (now & Closed) == 0 && ((now & Suspended) != 0 || (write && (now & Gated) != 0));
}

void HeldRequests::restrict(Restriction restriction, bool on) {
    if (on) {
        restrictions |= restriction;
    } else {
        restrictions &= ~unsigned{restriction};
    }
}

void HeldRequests::noteBegin(bool write, int64 nowNs) {
    if (!write) waits->begin(nowNs);
}

void HeldRequests::noteEnd(bool write, int64 sinceNs) {
    if (write) return;
    const int64 nowNs = SxClock::get().steadyNs();
    endedNs += nowNs - sinceNs;
    waits->end(nowNs);
}

HeldRequests::Verdict HeldRequests::admit(uint64 token, bool write) {
    const SxMutexBlock lock(&mutex);
    if (isClosed()) return Verdict::Failed;
    if (!isHeldBack(write)) return Verdict::Go;
    waiting.push_back({token, write, SxClock::get().steadyNs()});
    noteBegin(write, waiting.back().sinceNs);
    return Verdict::Held;
}

HeldRequests::Verdict HeldRequests::hold(uint64 token, uint64 offset, uint32 size, bool write) {
    const SxMutexBlock lock(&mutex);
    if (isClosed()) return Verdict::Failed;
    HeldRequest request{{}, token, offset, size, write, SxClock::get().steadyNs(), {}, 0};
    findMissing(request, &request.missing);
    if (request.missing.empty()) return Verdict::Go;
    if (failing) return Verdict::Failed;
    request.nMissing = request.missing.size();
    missing.push_back(std::move(request));
    missing.back().self = std::prev(missing.end());
    queue.add(&missing.back());
    noteBegin(write, missing.back().sinceNs);
    return Verdict::Held;
}

bool HeldRequests::forget(uint64 token) {
    const SxMutexBlock lock(&mutex);
    const auto place = std::find_if(waiting.begin(), waiting.end(),
                                    [token](const Waiting& request) { return request.token == token; });
    if (place != waiting.end()) {
        noteEnd(place->write, place->sinceNs);
        waiting.erase(place);
        return true;
    }
    const auto found = std::find_if(missing.begin(), missing.end(),
                                    [token](const HeldRequest& request) { return request.token == token; });
    if (found == missing.end()) return false;
    queue.remove(&*found);
    noteEnd(found->write, found->sinceNs);
    missing.erase(found);
    return true;
}

HeldRequests::Tokens HeldRequests::arriveLocked(ZqfIdx first, ZqfIdx end) {
    Tokens tokens;
    for (const HeldRequest* request : queue.arrive(first, end)) {
        tokens.push_back(request->token);
        noteEnd(request->write, request->sinceNs);
        missing.erase(request->self);
    }
    return tokens;
}

HeldRequests::Tokens HeldRequests::arrive(ZqfIdx first, ZqfIdx end) {
    const SxMutexBlock lock(&mutex);
    return arriveLocked(first, end);
}

HeldRequests::Tokens HeldRequests::moveCursor(std::atomic<uint64>* cursor, uint64 to) {
    const SxMutexBlock lock(&mutex);
    const uint64 from = cursor->exchange(to);
    return from <= to ? arriveLocked({from}, {to}) : rebuild();
}

HeldRequests::Tokens HeldRequests::rebuild() {
    Tokens tokens;
    std::vector<HeldRequest*> left;
    for (auto request = missing.begin(); request != missing.end();) {
        request->missing.clear();
        findMissing(*request, &request->missing);
        request->nMissing = request->missing.size();
        if (request->nMissing == 0) {
            tokens.push_back(request->token);
            noteEnd(request->write, request->sinceNs);
            request = missing.erase(request);
        } else {
            left.push_back(&*request);
            ++request;
        }
    }
    queue.rebuild(left);
    return tokens;
}

HeldRequests::Tokens HeldRequests::releaseMissing() {
    Tokens tokens;
    for (const HeldRequest& request : missing) {
        tokens.push_back(request.token);
        noteEnd(request.write, request.sinceNs);
    }
    missing.clear();
    queue.rebuild({});
    return tokens;
}

HeldRequests::Tokens HeldRequests::releaseWaiting() {
    Tokens tokens;
    const auto end = std::stable_partition(
        waiting.begin(), waiting.end(), [this](const Waiting& request) { return isHeldBack(request.write); });
    for (auto request = end; request != waiting.end(); ++request) {
        tokens.push_back(request->token);
        noteEnd(request->write, request->sinceNs);
    }
    waiting.erase(end, waiting.end());
    return tokens;
}

HeldRequests::Tokens HeldRequests::failMissing() {
    const SxMutexBlock lock(&mutex);
    failing = true;
    return releaseMissing();
}

void HeldRequests::suspend() {
    const SxMutexBlock lock(&mutex);
    restrict(Suspended, true);
}

HeldRequests::Tokens HeldRequests::resume() {
    const SxMutexBlock lock(&mutex);
    restrict(Suspended, false);
    return releaseWaiting();
}

void HeldRequests::closeGate() {
    const SxMutexBlock lock(&mutex);
    restrict(Gated, true);
}

HeldRequests::Tokens HeldRequests::openGate() {
    const SxMutexBlock lock(&mutex);
    restrict(Gated, false);
    return releaseWaiting();
}

HeldRequests::Tokens HeldRequests::close() {
    const SxMutexBlock lock(&mutex);
    restrict(Closed, true);
    Tokens tokens = releaseWaiting();
    for (const uint64 token : releaseMissing())
        tokens.push_back(token);
    return tokens;
}

bool HeldRequests::isUnderflow() const {
    const SxMutexBlock lock(&mutex);
    return std::any_of(missing.begin(), missing.end(), [](const HeldRequest& r) { return !r.write; });
}

uint64 HeldRequests::nHeld() const {
    const SxMutexBlock lock(&mutex);
    return missing.size() + waiting.size();
}

int64 HeldRequests::readsHeldNs() const {
    const int64 nowNs = SxClock::get().steadyNs();
    const SxMutexBlock lock(&mutex);
    int64 sumNs = endedNs;
    for (const HeldRequest& request : missing)
        sumNs += request.write ? 0 : std::max<int64>(nowNs - request.sinceNs, 0);
    for (const Waiting& request : waiting)
        sumNs += request.write ? 0 : std::max<int64>(nowNs - request.sinceNs, 0);
    return sumNs;
}

uint64 HeldRequests::queueLength() {
    const int64 nowNs = SxClock::get().steadyNs();
    const SxMutexBlock lock(&mutex);
    return queue.length(nowNs);
}

std::vector<uint64> HeldRequests::popMissing(uint64 max) {
    const int64 nowNs = SxClock::get().steadyNs();
    const SxMutexBlock lock(&mutex);
    return queue.pop(max, nowNs);
}

bool HeldRequests::oldest(uint64* offset, uint64* length) const {
    *offset = *length = 0;
    const SxMutexBlock lock(&mutex);
    for (const HeldRequest& request : missing) {
        if (request.write) continue;
        *offset = static_cast<uint64>(queue.firstMissing(request).byte());
        *length = request.nMissing * ZqBlocks::SIZE;
        return true;
    }
    return false;
}
