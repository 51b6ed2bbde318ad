#include "ZqOnDemandHints.h"

#include "ZqBlocks.h"

#include <algorithm>
#include <utility>
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
    std::vector<std::pair<const ZqOrderHints::Group*, uint64>> places;
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
        if (const ZqOrderHints::Group* group = known->find(idx)) places.emplace_back(group, idx);
    }
    SxArray<uint64> likely;
    if (places.empty() || isInVain(nCurrent)) return likely;
    for (const auto& [group, idx] : places) {
        const auto at = std::find(group->hot.begin(), group->hot.end(), idx);
        const bool isHot = at != group->hot.end();
        take(*group, isHot ? static_cast<size_t>(at - group->hot.begin()) + 1 : 0, nCurrent, &likely);
    }
    for (const auto& [group, idx] : places) {
        for (const ZqOrderHints::Next& next : group->next) {
            if (next.percent >= MIN_PERCENT) take(known->groups[next.group], 0, nCurrent, &likely);
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

/// Those that follow each other there: what lies further away is likely only once these are read.
void ZqOnDemandHints::take(const ZqOrderHints::Group& group, size_t from, uint64 nCurrent,
                           SxArray<uint64>* likely) {
    const size_t end = std::min(group.hot.size(), from + size_t{ZqOrderHints::MAX_TOGETHER});
    for (size_t at = from; at < end && likely->getSize() < ZqOrderHints::MAX_TOGETHER; ++at) {
        const uint64 idx = group.hot[at];
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
