#include "ZqBlockMatch.h"

#include "SxException.h"
#include "ZqJobsTogether.h"
#include "ZqTaskMon.h"

#include <algorithm>
#include <cstring>
#include <memory>

namespace {

constexpr const char* UNIT = "src/publish/ZqBlockMatch";
constexpr uint32 NONE = ZqPatchSide::NONE;
constexpr size_t BATCH = 256; ///< blocks that are compared at a time

class Matcher {
public:
    Matcher(const ZqPatchSide& older_, const ZqPatchSide& newer_)
        : older(older_),
          newer(newer_),
          matched(newer.getNItems(), NONE),
          isUsed(older.getNItems()) {}

    std::vector<uint32> run() {
        const std::vector<uint32> oldSorted = older.sortedByHash(), newSorted = newer.sortedByHash();
        eachGroup(oldSorted, newSorted, [&](auto oldGroup, auto newGroup) {
            if (oldGroup.size() == 1 && newGroup.size() == 1) take(oldGroup[0], newGroup[0]);
        });
        extend();
        for (uint32 item = 0; item < newer.getNItems(); ++item)
            tryTake(item, item);
        extend();
        eachGroup(oldSorted, newSorted, [&](auto oldGroup, auto newGroup) { pair(oldGroup, newGroup); });
        return std::move(matched);
    }

private:
    using Group = std::span<const uint32>;

    /// Calls `each` for the items of both sides that share a fingerprint.
    template<class Each>
    void eachGroup(const std::vector<uint32>& oldSorted, const std::vector<uint32>& newSorted, Each each) {
        const auto endOf = [](const ZqPatchSide& side, const std::vector<uint32>& items, size_t at) {
            const uint64 hash = side.hashOf(items[at]);
            while (at < items.size() && side.hashOf(items[at]) == hash)
                ++at;
            return at;
        };
        for (size_t i = 0, j = 0; i < oldSorted.size() && j < newSorted.size();) {
            const uint64 a = older.hashOf(oldSorted[i]), b = newer.hashOf(newSorted[j]);
            const size_t endI = a <= b ? endOf(older, oldSorted, i) : i;
            const size_t endJ = b <= a ? endOf(newer, newSorted, j) : j;
            if (a == b) each(Group(oldSorted).subspan(i, endI - i), Group(newSorted).subspan(j, endJ - j));
            i = endI;
            j = endJ;
        }
    }

    void take(uint32 oldItem, uint32 newItem) {
        matched[newItem] = oldItem;
        isUsed[oldItem] = true;
    }

    bool tryTake(int64 oldItem, uint32 newItem) {
        if (oldItem < 0 || oldItem >= int64{older.getNItems()}) return false;
        const auto item = static_cast<uint32>(oldItem);
        if (matched[newItem] != NONE || !newer.has(newItem) || isUsed[item] || !older.has(item) ||
            older.hashOf(item) != newer.hashOf(newItem))
            return false;
        take(item, newItem);
        return true;
    }

    /// What stands at the distance of the last match before, or of the next one after, is taken, too.
    void extend() {
        const auto pass = [&](uint32 newItem, int64* distance) {
            if (matched[newItem] == NONE) {
                tryTake(newItem + *distance, newItem);
            } else {
                *distance = int64{matched[newItem]} - newItem;
            }
        };
        int64 distance = 0;
        for (uint32 item = 0; item < newer.getNItems(); ++item)
            pass(item, &distance);
        distance = 0;
        for (uint32 item = newer.getNItems(); item-- > 0;)
            pass(item, &distance);
    }

    void pair(Group oldGroup, Group newGroup) {
        size_t at = 0;
        for (const uint32 newItem : newGroup) {
            if (matched[newItem] != NONE) continue;
            while (at < oldGroup.size() && isUsed[oldGroup[at]])
                ++at;
            if (at == oldGroup.size()) return;
            take(oldGroup[at], newItem);
        }
    }

    const ZqPatchSide &older, &newer;
    std::vector<uint32> matched; ///< by new item
    std::vector<bool> isUsed;    ///< by old item
};

/// Compares the new items of one stretch with their old ones.
class Comparison {
public:
    Comparison(const ZqPatchSide& older, const ZqPatchSide& newer, std::span<uint32> matched_, uint32 first_,
               ZqTaskMon* progress_)
        : oldReader(older),
          newReader(newer),
          matched(matched_),
          first(first_),
          progress(progress_) {}

    void run() {
        for (size_t i = 0; i < matched.size(); ++i) {
            if (matched[i] == NONE) continue;
            oldItems.push_back(matched[i]);
            newItems.push_back(first + static_cast<uint32>(i));
            if (oldItems.size() == BATCH) compare();
        }
        compare();
    }

private:
    void compare() {
        if (progress->stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
        oldReader.read(oldItems, oldBytes.data());
        newReader.read(newItems, newBytes.data());
        for (size_t i = 0; i < newItems.size(); ++i) {
            const size_t at = i * ZqPatchSide::BLOCK;
            if (std::memcmp(oldBytes.data() + at, newBytes.data() + at, ZqPatchSide::BLOCK) != 0)
                matched[newItems[i] - first] = NONE;
        }
        progress->addNCurrent(newItems.size() * ZqPatchSide::BLOCK);
        oldItems.clear();
        newItems.clear();
    }

    ZqPatchSide::Reader oldReader, newReader;
    const std::span<uint32> matched;
    const uint32 first;
    ZqTaskMon* progress;
    std::vector<uint32> oldItems, newItems;
    std::vector<char> oldBytes = std::vector<char>(BATCH * ZqPatchSide::BLOCK);
    std::vector<char> newBytes = std::vector<char>(BATCH * ZqPatchSide::BLOCK);
};

} // namespace

std::vector<uint32> ZqBlockMatch::match(const ZqPatchSide& older, const ZqPatchSide& newer) {
    return Matcher(older, newer).run();
}

void ZqBlockMatch::confirm(const ZqPatchSide& older, const ZqPatchSide& newer, std::vector<uint32>* matched,
                           ZqTaskMon* progress) {
    const auto nCores = static_cast<size_t>(SxSystemThread::getNCores());
    const size_t stretch = matched->size() / nCores + 1;
    std::vector<std::unique_ptr<Comparison>> jobs;
    for (size_t at = 0; at < matched->size(); at += stretch) {
        const auto part = std::span(*matched).subspan(at, std::min(stretch, matched->size() - at));
        jobs.push_back(std::make_unique<Comparison>(older, newer, part, static_cast<uint32>(at), progress));
    }
    ZqJobsTogether together;
    for (const auto& job : jobs)
        together.start("patch compare", [&job] { job->run(); });
    together.wait();
}
