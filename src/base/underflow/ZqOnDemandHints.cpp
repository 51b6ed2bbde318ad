#include "ZqOnDemandHints.h"

#include "ZqBlocks.h"

#include <vector>

namespace {

constexpr uint64 STRETCH = ZqBlocks::STRETCH;
/// So many may be of no use before one has been, and so many more for each that was. Hints are right in half
/// of the cases at least, for those who play as others did; who doesn't isn't to fetch all of a game twice.
constexpr int64 FREE = 16, FREE_FOR_EACH = 2;

} // namespace

void ZqOnDemandHints::set(const SxPtr<const ZqOrderHints>& hints_) {
    const SxMutexBlock lock(&mutex);
    hints = hints_;
}

SxArray<uint64> ZqOnDemandHints::findLikely(const SxArray<uint64>& offsets, uint64 nCurrent) {
    SxPtr<const ZqOrderHints> known;
    {
        const SxMutexBlock lock(&mutex);
        known = hints;
    }
    if (!known) return {};
    std::vector<const ZqOrderHints::Group*> groups;
    for (const uint64 offset : offsets) {
        const uint64 idx = offset / STRETCH;
        const auto [at, isNew] = states.try_emplace(idx, Waited);
        // What can't be had is asked for again and again, and tells nothing new then.
        if (!isNew && at->second == Waited) continue;
        if (at->second == Begun) {
            ++nUsed;
            if (idx >= passedIdx) --nUnused;
        }
        at->second = Waited;
        if (const ZqOrderHints::Group* group = known->find(idx)) groups.push_back(group);
    }
    SxArray<uint64> likely;
    if (groups.empty() || isInVain(nCurrent)) return likely;
    for (const ZqOrderHints::Group* group : groups)
        take(*group, nCurrent, &likely);
    for (const ZqOrderHints::Group* group : groups) {
        for (const ZqOrderHints::Next& next : group->next) {
            if (next.percent >= MIN_PERCENT) take(known->groups[next.group], nCurrent, &likely);
        }
    }
    return likely;
}

/// What the download has passed wasn't fetched in vain, since it has left that out.
bool ZqOnDemandHints::isInVain(uint64 nCurrent) {
    const uint64 currentIdx = nCurrent / STRETCH;
    for (auto at = states.lower_bound(passedIdx); at != states.end() && at->first < currentIdx; ++at) {
        if (at->second == Begun) --nUnused;
    }
    passedIdx = std::max(passedIdx, currentIdx);
    return nUnused >= FREE + FREE_FOR_EACH * nUsed;
}

void ZqOnDemandHints::take(const ZqOrderHints::Group& group, uint64 nCurrent, SxArray<uint64>* likely) {
    // A list may be long, and each read that waits looks at it: what it has given once it doesn't give again.
    size_t& at = nTaken[group.first];
    while (at < group.hot.size() && likely->getSize() < MAX_TOGETHER) {
        const uint64 idx = group.hot[at++];
        if (idx * STRETCH >= nCurrent && states.try_emplace(idx, Named).second) likely->append(idx * STRETCH);
    }
}

void ZqOnDemandHints::noteBegun(const SxArray<uint64>& offsets) {
    for (const uint64 offset : offsets) {
        states[offset / STRETCH] = Begun;
        ++nBegun;
        ++nUnused;
    }
}
