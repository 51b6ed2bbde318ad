#include "ZqPatchPlan.h"

#include "SxException.h"
#include "ZqBlockLikeness.h"
#include "ZqTaskMon.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/publish/ZqPatchPlan";
constexpr uint32 NONE = ZqPatchSide::NONE;
constexpr size_t BATCH = 256; ///< blocks that are read at a time
/// So few blocks between two of a part come along, since matches go on across them.
constexpr uint32 MAX_GAP = 4;

} // namespace

/// The old items of the part that is being made.
class ZqPatchPlan::OldItems {
public:
    explicit OldItems(const ZqPatchSide& older_) : older(older_), isIn(older_.getNItems()) {}

    size_t size() const { return items.size(); }

    void add(uint32 item) {
        if (item >= older.getNItems() || !older.has(item) || isIn[item]) return;
        isIn[item] = true;
        items.push_back(item);
    }

    /// Those of the part, ascending and with the gaps between them; the next one begins empty.
    std::vector<uint32> take() {
        std::sort(items.begin(), items.end());
        std::vector<uint32> all;
        for (const uint32 item : items) {
            isIn[item] = false;
            if (!all.empty() && item - all.back() <= MAX_GAP) {
                for (uint32 between = all.back() + 1; between < item; ++between)
                    if (older.has(between)) all.push_back(between);
            }
            all.push_back(item);
        }
        items.clear();
        return all;
    }

private:
    const ZqPatchSide& older;
    std::vector<bool> isIn;
    std::vector<uint32> items;
};

ZqPatchPlan::ZqPatchPlan(const ZqPatchSide& older_, const ZqPatchSide& newer_,
                         const std::vector<uint32>& matched_)
    : older(older_),
      newer(newer_),
      matched(matched_) {
    for (uint32 item = 0; item < newer.getNItems(); ++item)
        if (newer.has(item) && matched[item] == NONE) changed.push_back({item});
    findPlaces();
    groupCopies();
}

/// What lies between two blocks that are matched lay between their old ones.
void ZqPatchPlan::findPlaces() {
    std::vector<bool> isTaken(older.getNItems());
    for (const uint32 item : matched)
        if (item != NONE) isTaken[item] = true;
    const auto place = [&](uint32 item, int64 distance) {
        const int64 at = item + distance;
        const bool isPlace = at >= 0 && at < int64{older.getNItems()};
        return isPlace && !isTaken[static_cast<size_t>(at)] ? static_cast<uint32>(at) : NONE;
    };
    int64 distance = 0;
    uint32 next = 0;
    for (Changed& each : changed) {
        for (; next < each.item; ++next)
            if (matched[next] != NONE) distance = int64{matched[next]} - next;
        each.fromBefore = place(each.item, distance);
    }
    distance = int64{older.getNItems()} - newer.getNItems();
    next = newer.getNItems();
    for (size_t i = changed.size(); i-- > 0;) {
        for (; next > changed[i].item + 1; --next)
            if (matched[next - 1] != NONE) distance = int64{matched[next - 1]} - (next - 1);
        changed[i].fromAfter = place(changed[i].item, distance);
    }
}

/// Copies of one block follow the first of them, so that they lie in the same part and pack well.
void ZqPatchPlan::groupCopies() {
    std::vector<uint32> byHash(changed.size());
    for (uint32 i = 0; i < byHash.size(); ++i)
        byHash[i] = i;
    const auto hashOf = [&](uint32 i) { return newer.hashOf(changed[i].item); };
    std::sort(byHash.begin(), byHash.end(), [&](uint32 a, uint32 b) {
        const uint64 hashA = hashOf(a), hashB = hashOf(b);
        return hashA != hashB ? hashA < hashB : a < b;
    });
    std::vector<uint32> first(changed.size()), order(changed.size());
    for (uint32 i = 0; i < byHash.size(); ++i) {
        const bool isCopy = i > 0 && hashOf(byHash[i - 1]) == hashOf(byHash[i]);
        first[byHash[i]] = isCopy ? first[byHash[i - 1]] : byHash[i];
        order[i] = i;
    }
    std::sort(order.begin(), order.end(),
              [&](uint32 a, uint32 b) { return first[a] != first[b] ? first[a] < first[b] : a < b; });
    std::vector<Changed> grouped;
    grouped.reserve(changed.size());
    for (const uint32 i : order)
        grouped.push_back(changed[i]);
    changed = std::move(grouped);
}

/// Parts of about one size keep all cores at work.
uint32 ZqPatchPlan::sizeOfPart(const Limits& limits) const {
    const uint32 nParts = (getNChanged() + limits.nNew - 1) / limits.nNew;
    return nParts == 0 ? 1 : (getNChanged() + nParts - 1) / nParts;
}

std::vector<ZqPatchPart> ZqPatchPlan::make(const ZqBlockLikeness& likeness, const Limits& limits,
                                           ZqTaskMon* progress) const {
    const uint32 most = sizeOfPart(limits);
    std::vector<ZqPatchPart> parts;
    OldItems old(older);
    ZqPatchPart part;
    const auto close = [&] {
        part.oldItems = old.take();
        parts.push_back(std::move(part));
        part = {};
    };
    ZqPatchSide::Reader reader(newer);
    std::vector<char> bytes(BATCH * ZqPatchSide::BLOCK);
    std::vector<uint32> items, like;
    for (size_t begin = 0; begin < changed.size(); begin += BATCH) {
        if (progress->stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
        const size_t end = std::min(begin + BATCH, changed.size());
        items.clear();
        for (size_t i = begin; i < end; ++i)
            items.push_back(changed[i].item);
        reader.read(items, bytes.data());
        for (size_t i = begin; i < end; ++i) {
            const Changed& each = changed[i];
            old.add(each.fromBefore);
            old.add(each.fromAfter);
            like.clear();
            const uint32 near = each.fromBefore != NONE ? each.fromBefore : each.item;
            likeness.find(ZqBlockLikeness::of(bytes.data() + (i - begin) * ZqPatchSide::BLOCK), near, &like);
            // Bytes that were shifted lie in two blocks.
            for (const uint32 item : like) {
                if (item > 0) old.add(item - 1);
                old.add(item);
                old.add(item + 1);
            }
            part.newItems.push_back(each.item);
            if (part.newItems.size() >= most || old.size() >= limits.nOld) close();
        }
    }
    if (!part.newItems.empty()) close();
    return parts;
}

std::vector<ZqPatchPart> ZqPatchPlan::makeOfNew(const Limits& limits) const {
    const uint32 most = sizeOfPart(limits);
    std::vector<ZqPatchPart> parts;
    for (const Changed& each : changed) {
        if (parts.empty() || parts.back().newItems.size() >= most) parts.emplace_back();
        parts.back().newItems.push_back(each.item);
    }
    return parts;
}
