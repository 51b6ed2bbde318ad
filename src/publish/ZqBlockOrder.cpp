#include "ZqBlockOrder.h"

#include "SxException.h"
#include "ZqBlockUse.h"
#include "ZqBlocks.h"
#include "ZqImage.h"
#include "ZqOrderTail.h"
#include "ZqReadChance.h"
#include "ZqSessionCount.h"
#include "ZqUnreadOrder.h"

#include <algorithm>
#include <array>
#include <bit>
#include <optional>
#include <span>

namespace {

constexpr uint64 PER_STRETCH = ZqBlocks::STRETCH / ZqBlocks::SIZE;
/// The link that a block must pay on, in nanoseconds: its bytes at 20 Mbit/s, and what a stretch on demand
/// takes, which is a round trip of 20 ms and its bytes.
constexpr uint64 TRANSFER_NS = ZqBlocks::SIZE * 400;
constexpr uint64 DEMAND_NS = 20'000'000 + PER_STRETCH * TRANSFER_NS;
/// Gaps of up to so many blocks are alike; longer ones are classed by doubling lengths, up to LONGEST_GAP.
/// With orders of two games by all of their runs but one, the blocks that this one read beyond them lay after
/// 7,700 and 600 other blocks, instead of the 21,300 and 1,250 of RAW order, in as many stretches as there.
/// By the distance from a read block alone they lie after 11,100 and 950, and in 11 and 4 times as many
/// stretches, each of which is a request.
constexpr uint64 SHORT_GAP = 64, LONGEST_GAP = 4096;
constexpr size_t N_CLASSES = std::bit_width(LONGEST_GAP / SHORT_GAP);

/// 0 for the shortest gaps.
size_t gapClass(uint64 length) {
    return static_cast<size_t>(std::bit_width((length - 1) / SHORT_GAP));
}

/// Whether blocks that `n` runs have read belong in the core, where `nTogether` of them are read together.
bool paysInCore(const ZqReadChance& chance, uint64 n, uint64 nTogether) {
    const uint64 demandNs = DEMAND_NS / std::min(nTogether, PER_STRETCH);
    return chance.of(n) * demandNs / ZqReadChance::CERTAIN > TRANSFER_NS;
}

/// Moves the blocks that belong in the core to the front of `blocks`, where those that are read together lie
/// together; gives how many. The others stay in their order. In place, since they may be as many as the disk
/// has.
size_t moveCore(const ZqReadChance& chance, const ZqBlockUse& use, std::span<uint64> blocks) {
    size_t nCore = blocks.size();
    for (size_t end = blocks.size(), first = 0; end > 0; end = first) {
        first = end - 1;
        while (first > 0 && use.isTogether(blocks[first - 1], blocks[end - 1]))
            --first;
        if (paysInCore(chance, use.getN(blocks[first]), end - first)) continue;
        for (size_t i = end; i-- > first;)
            std::swap(blocks[i], blocks[--nCore]);
    }
    return nCore;
}

} // namespace

ZqBlockOrder::ZqBlockOrder(const ZqOrderImage& image, const SxList<SxString>& traces,
                           const ZqOrderRuns::Pace& pace)
    : placed(image.included),
      nRaw(image.getNRaw()) {
    placed.flip();
    order.reserve(std::count(image.included.begin(), image.included.end(), true));
    for (const uint64 rawIdx : image.front)
        place(rawIdx);
    nFront = static_cast<uint64>(order.getSize());
    if (traces.isEmpty()) {
        placeRest(image);
        return;
    }

    ZqOrderRuns runs(traces, image, pace);
    {
        ZqBlockUse use(nRaw);
        runs.read([&](size_t number, const ZqOrderRuns::Blocks& blocks) { use.add(number, blocks); });
        placeRead(image, use);
        placeUnread(image, use);
        placeRest(image);
    }
    left = runs.getLeft();
    judge(runs);
}

void ZqBlockOrder::place(uint64 rawIdx) {
    placed[rawIdx] = true;
    order.append(rawIdx);
}

void ZqBlockOrder::placeRead(const ZqOrderImage& image, const ZqBlockUse& use) {
    const int64 first = order.getSize();
    for (uint64 rawIdx = 0; rawIdx < nRaw; ++rawIdx) {
        if (use.getN(rawIdx) > 0) place(rawIdx);
    }
    const std::span<uint64> blocks(order.data() + first, static_cast<size_t>(order.getSize() - first));
    zqOrderTail(use, blocks);
    nCore = moveCore(ZqReadChance(use.countByN(image)), use, blocks);
    nTail = blocks.size() - nCore;
    std::sort(blocks.begin(), blocks.begin() + static_cast<std::ptrdiff_t>(nCore),
              [&](uint64 a, uint64 b) { return use.isEarlier(a, b); });
}

void ZqBlockOrder::placeUnread(const ZqOrderImage& image, const ZqBlockUse& use) {
    if (!image.files) return placeGaps(image);
    zqUnreadOrder(
        image, use, [this](uint64 rawIdx) { return !placed[rawIdx]; },
        [this](uint64 rawIdx) { place(rawIdx); });
}

void ZqBlockOrder::placeGaps(const ZqOrderImage& image) {
    struct Gap {
        uint64 first, end; ///< RAW indices
    };
    // What isn't included is in nobody's place, and makes a gap longer.
    const auto isRead = [&](uint64 rawIdx) { return placed[rawIdx] && image.included[rawIdx]; };
    const auto next = [&](uint64 from, bool value) {
        while (from < nRaw && isRead(from) != value)
            ++from;
        return from;
    };
    // Gaps stay whole: what is fetched on demand are neighbours in the ZqF file, and should be ones on the
    // disk.
    std::array<std::vector<Gap>, N_CLASSES> gaps;
    for (uint64 first = next(next(0, true), false); first < nRaw;) {
        const uint64 end = next(first, true);
        if (end < nRaw && end - first <= LONGEST_GAP) gaps.at(gapClass(end - first)).push_back({first, end});
        first = next(end, false);
    }
    const auto nBefore = order.getSize();
    for (const std::vector<Gap>& alike : gaps) {
        for (const Gap& gap : alike) {
            for (uint64 rawIdx = gap.first; rawIdx < gap.end; ++rawIdx) {
                if (!placed[rawIdx]) place(rawIdx);
            }
        }
    }
    nNear = static_cast<uint64>(order.getSize() - nBefore);
}

void ZqBlockOrder::placeRest(const ZqOrderImage& image) {
    for (uint64 rawIdx = 0; rawIdx < image.getNRaw(); ++rawIdx) {
        if (!placed[rawIdx]) place(rawIdx);
    }
    placed = {};
}

SxArray<uint64> ZqBlockOrder::makeMap() const {
    SxArray<uint64> map(static_cast<int64>(nRaw));
    std::fill(map.begin(), map.end(), ZqImage::NO_ENTRY);
    uint64 zqfIdx = 0;
    for (const uint64 rawIdx : order)
        map(static_cast<int64>(rawIdx)) = zqfIdx++;
    return map;
}

void ZqBlockOrder::judge(const ZqOrderRuns& runs) {
    const SxArray<uint64> map = makeMap();
    const auto nBlocks = static_cast<uint64>(order.getSize());
    ZqOrderProfiles profiles(nFront, nFront + nCore, nBlocks);
    ZqOrderGroups together((nBlocks + PER_STRETCH - 1) / PER_STRETCH);
    ZqSessionCount sessions;
    for (size_t number = 0; number < runs.getN(); ++number) {
        // The application's start is its first read of content: a trace begins with the mount, which may be
        // long before.
        std::optional<int64> start;
        const auto look = [&](std::span<const ZqTraceItem> items) {
            // Entries lie far apart in memory, and half of the time goes for waiting for them.
            for (const ZqTraceItem& item : items) {
                if (item.block < nRaw) __builtin_prefetch(&map(static_cast<int64>(item.block)));
            }
            for (const ZqTraceItem& item : items) {
                const uint64 zqfIdx =
                    item.block < nRaw ? map(static_cast<int64>(item.block)) : ZqImage::NO_ENTRY;
                if (zqfIdx == ZqImage::NO_ENTRY) continue;
                if (zqfIdx >= nFront && !start) start = static_cast<int64>(item.time);
                profiles.add(zqfIdx, start ? static_cast<int64>(item.time) - *start : 0);
            }
        };
        runs.walk(number, look);
        const std::vector<uint32> stretches = profiles.endRun();
        together.add(stretches);
        sessions.add(stretches);
    }
    profile = profiles.getWorst();
    groups = together.make();
    basis.emplace();
    basis->nRuns = runs.getN();
    basis->nSessions = sessions.get();
    basis->nCore = nCore;
    basis->nTail = nTail;
    basis->nGroups = groups.size();
    basis->median = profiles.getMedian();
}

void ZqBlockOrder::apply(ZqAppParams* app) const {
    app->sizeZqf = static_cast<uint64>(order.getSize()) * ZqBlocks::SIZE;
    app->sizeIdx = nRaw * sizeof(uint64);
    app->sizeMnt = nFront * ZqBlocks::SIZE;
    app->loadprofile = profile;
}

void ZqBlockOrder::writeHints(const SxString& folder, const SxString& checksumIdx) const {
    if (groups.empty()) return;
    ZqOrderHints hints(checksumIdx);
    hints.groups = groups;
    hints.write(folder);
}
