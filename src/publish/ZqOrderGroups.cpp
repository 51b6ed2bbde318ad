#include "ZqOrderGroups.h"

#include <algorithm>
#include <map>

namespace {

/// A successor that is less likely is of no use to anybody.
constexpr uint64 LEAST_PERCENT = 25;
/// Groups after one in a run's way that count as its successors.
constexpr size_t NEXT_IN_WAY = 3;

using Group = ZqOrderHints::Group;

/// Places of groups, in the order in which a run has come to them first.
std::vector<uint32> groupsOf(const std::vector<uint32>& way, const std::vector<uint32>& groupOf) {
    std::vector<uint32> result;
    std::vector<bool> seen;
    for (const uint32 stretch : way) {
        const uint32 group = groupOf[stretch];
        if (group >= seen.size()) seen.resize(group + size_t{1});
        if (!seen[group]) result.push_back(group);
        seen[group] = true;
    }
    return result;
}

} // namespace

ZqOrderGroups::ZqOrderGroups(uint64 nStretches) : counts(nStretches) {
}

void ZqOrderGroups::add(const std::vector<uint32>& stretches) {
    std::vector<uint32> sorted = stretches;
    std::sort(sorted.begin(), sorted.end());
    for (size_t i = 0; i < sorted.size(); ++i) {
        Counts& of = counts.at(sorted[i]);
        ++of.n;
        for (size_t k = i + 1; k < sorted.size() && sorted[k] - sorted[i] <= REACH; ++k)
            ++of.after[sorted[k] - sorted[i] - 1];
    }
    if (nWays + stretches.size() > MAX_WAYS) return;
    nWays += stretches.size();
    ways.push_back(stretches);
}

bool ZqOrderGroups::joins(size_t stretch, size_t groupFirst) const {
    if (counts[stretch].n == 0) return false;
    for (size_t back = 1; back <= REACH && groupFirst + back <= stretch; ++back) {
        const Counts& of = counts[stretch - back];
        if (!isLikely(of.after[back - 1], of.n)) return false;
    }
    return true;
}

std::vector<Group> ZqOrderGroups::make() const {
    std::vector<Group> groups;
    for (size_t first = 0; first < counts.size();) {
        size_t end = first + 1;
        if (counts[first].n > 0) {
            while (end < counts.size() && joins(end, first))
                ++end;
            Group group;
            group.first = static_cast<uint32>(first);
            group.end = static_cast<uint32>(end);
            for (uint32 stretch = group.first; stretch < group.end; ++stretch)
                group.hot.push_back(stretch);
            groups.push_back(std::move(group));
        }
        first = end;
    }
    addSuccessors(&groups);
    return groups;
}

void ZqOrderGroups::addSuccessors(std::vector<Group>* groups) const {
    std::vector<uint32> groupOf(counts.size());
    for (uint32 place = 0; place < groups->size(); ++place) {
        for (uint32 stretch = (*groups)[place].first; stretch < (*groups)[place].end; ++stretch)
            groupOf[stretch] = place;
    }
    std::vector<uint64> nComing(groups->size());
    std::map<std::pair<uint32, uint32>, uint64> nGoing;
    for (const std::vector<uint32>& way : ways) {
        const std::vector<uint32> places = groupsOf(way, groupOf);
        for (size_t i = 0; i < places.size(); ++i) {
            ++nComing[places[i]];
            for (size_t k = i + 1; k < std::min(places.size(), i + 1 + NEXT_IN_WAY); ++k)
                ++nGoing[{places[i], places[k]}];
        }
    }
    for (const auto& [pair, n] : nGoing) {
        const uint64 percent = 100 * n / (nComing[pair.first] + 1);
        if (percent < LEAST_PERCENT) continue;
        (*groups)[pair.first].next.push_back({pair.second, static_cast<uint32>(percent)});
    }
    for (Group& group : *groups) {
        std::stable_sort(group.next.begin(), group.next.end(),
                         [](const auto& a, const auto& b) { return a.percent > b.percent; });
        group.next.resize(std::min(group.next.size(), ZqOrderHints::MAX_NEXT));
    }
}
