#include "ZqStretchClaims.h"

#include <chrono>

namespace {

constexpr auto LOOK = std::chrono::milliseconds(20);
/// Loaders are woken for work and for a stop.
constexpr auto LOADER_LOOK = std::chrono::seconds(1);

} // namespace

ZqStretchClaims::~ZqStretchClaims() {
    // What is left lets go of its claims, which takes the mutex.
    Group untaken;
    std::deque<Fetch> unloaded, unbegun;
    SxMutexBlock lock(&mutex);
    untaken.swap(announced);
    unloaded.swap(passed);
    unbegun.swap(likely);
}

std::vector<uint64> ZqStretchClaims::regroup(Group* group, Group* unwanted) {
    std::vector<uint64> missing;
    SxMutexBlock lock(&mutex);
    unwanted->swap(announced);
    for (auto& [idx, fetch] : *group) {
        const auto old = unwanted->find(idx);
        if (old != unwanted->end()) {
            fetch = old->second;
            unwanted->erase(old);
        } else if (claimed.contains(idx)) {
            handOver(unwanted, idx);
        } else {
            missing.push_back(idx);
        }
    }
    return missing;
}

void ZqStretchClaims::announce(Group* group) {
    SxMutexBlock lock(&mutex);
    for (auto& [idx, fetch] : *group) {
        // One of another group goes with this group, after the lock.
        if (fetch) std::swap(announced[idx], fetch);
    }
}

ZqStretchClaims::Fetch ZqStretchClaims::takeAnnounced(uint64 stretchIdx) {
    SxMutexBlock lock(&mutex);
    const auto found = announced.find(stretchIdx);
    if (found == announced.end()) return nullptr;
    Fetch fetch = found->second;
    announced.erase(found);
    return fetch;
}

bool ZqStretchClaims::beginDemand(uint64 stretchIdx) {
    SxMutexBlock lock(&mutex);
    if (claimed.contains(stretchIdx)) return false;
    demanded.insert(stretchIdx);
    return true;
}

void ZqStretchClaims::endDemand(uint64 stretchIdx) {
    {
        SxMutexBlock lock(&mutex);
        demanded.extract(stretchIdx);
    }
    changed.notify_all();
}

void ZqStretchClaims::beginWait() {
    SxMutexBlock lock(&mutex);
    ++nWaits;
}

void ZqStretchClaims::endWait() {
    {
        SxMutexBlock lock(&mutex);
        --nWaits;
    }
    changed.notify_all();
}

uint64 ZqStretchClaims::claim(uint64 stretchIdx, const SxPtr<ZqStretchRequest>& request) {
    SxMutexBlock lock(&mutex);
    if (announced.contains(stretchIdx) || demanded.contains(stretchIdx)) return 0;
    return claimed.try_emplace(stretchIdx, request).second ? claimed.size() : 0;
}

void ZqStretchClaims::release(uint64 firstIdx, uint64 endIdx) noexcept {
    if (firstIdx >= endIdx) return;
    {
        SxMutexBlock lock(&mutex);
        claimed.erase(claimed.lower_bound(firstIdx), claimed.lower_bound(endIdx));
    }
    changed.notify_all();
}

uint64 ZqStretchClaims::count() const {
    SxMutexBlock lock(&mutex);
    return claimed.size();
}

SxPtr<ZqStretchRequest> ZqStretchClaims::find(uint64 stretchIdx) const {
    SxMutexBlock lock(&mutex);
    const auto found = claimed.find(stretchIdx);
    return found == claimed.end() ? nullptr : found->second;
}

void ZqStretchClaims::pass(const Fetch& fetch) {
    if (!fetch->hasClaims()) return;
    {
        SxMutexBlock lock(&mutex);
        passed.push_back(fetch);
    }
    changed.notify_all();
}

void ZqStretchClaims::passLikely(const std::vector<Fetch>& fetches) {
    {
        SxMutexBlock lock(&mutex);
        likely.insert(likely.begin(), fetches.begin(), fetches.end());
    }
    changed.notify_all();
}

ZqStretchClaims::Fetch ZqStretchClaims::takePassed(const ZqStopTest& isStopped, uint64 nLikely) {
    SxMutexBlock lock(&mutex);
    if (Fetch fetch = takeNext(nLikely)) return fetch;
    if (!isStopped()) changed.wait_for(mutex, LOADER_LOOK);
    return takeNext(nLikely);
}

ZqStretchClaims::Fetch ZqStretchClaims::takeNext(uint64 nLikely) {
    const bool isLikely = passed.empty();
    std::deque<Fetch>& from = isLikely ? likely : passed;
    if (from.empty()) return nullptr;
    const bool isAnybodyServed = nWaits > 0 || !demanded.empty() || !announced.empty();
    if (isLikely && (isAnybodyServed || nLikelyUnderWay >= nLikely)) return nullptr;
    Fetch fetch = from.front();
    from.pop_front();
    fetch->isCounted = isLikely;
    if (isLikely) ++nLikelyUnderWay;
    return fetch;
}

void ZqStretchClaims::noteEnd(const Fetch& fetch) {
    if (!fetch->isCounted) return;
    {
        SxMutexBlock lock(&mutex);
        --nLikelyUnderWay;
    }
    changed.notify_all();
}

ZqStretchClaims::Fetch ZqStretchClaims::takeFrom(std::deque<Fetch>* fetches, uint64 stretchIdx) {
    for (auto at = fetches->begin(); at != fetches->end(); ++at) {
        if (!(*at)->brings(stretchIdx)) continue;
        Fetch fetch = *at;
        fetches->erase(at);
        return fetch;
    }
    return nullptr;
}

ZqStretchClaims::Fetch ZqStretchClaims::takePassed(uint64 stretchIdx) {
    SxMutexBlock lock(&mutex);
    if (!claimed.contains(stretchIdx)) return nullptr;
    handOver(&announced, stretchIdx);
    if (Fetch fetch = takeFrom(&passed, stretchIdx)) return fetch;
    if (Fetch fetch = takeFrom(&likely, stretchIdx)) return fetch;
    changed.wait_for(mutex, LOOK);
    return nullptr;
}

void ZqStretchClaims::wake() {
    {
        // Who has looked and found nothing waits by now.
        SxMutexBlock lock(&mutex);
    }
    changed.notify_all();
}

/// Gives a loader the one of these requests with which a claimed stretch comes.
void ZqStretchClaims::handOver(Group* fetches, uint64 stretchIdx) {
    for (auto at = fetches->begin(); at != fetches->end(); ++at) {
        const Fetch fetch = at->second;
        // One whose first stretch is demanded is about to be taken by who demands it, and passed on.
        if (!fetch->brings(stretchIdx) || demanded.contains(fetch->request->getNext())) continue;
        fetch->claimRest();
        claimed[fetch->request->getNext()] = fetch->request;
        passed.push_back(fetch);
        fetches->erase(at);
        changed.notify_all();
        return;
    }
}

uint64 ZqStretchFetch::claimNext() {
    const uint64 nClaimed = claims->claim(endIdx, request);
    if (nClaimed > 0) ++endIdx;
    return nClaimed;
}

void ZqStretchFetch::unclaim() {
    --endIdx;
    claims->release(endIdx, endIdx + 1);
}

void ZqStretchFetch::release() {
    ++claimedIdx;
    claims->release(claimedIdx - 1, claimedIdx);
}
