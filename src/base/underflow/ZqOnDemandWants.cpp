#include "ZqOnDemandWants.h"

#include "SxClock.h"

#include <algorithm>

namespace {

constexpr uint64 BLOCK = ZqBlocks::SIZE;
constexpr uint64 REQUEST_SIZE = ZqOnDemandPass::REQUEST_SIZE;
/// Between two tries of a stretch that can't be had. Meanwhile it counts as an underflow, and the others go
/// on.
constexpr int64 RETRY_MS = 1000;
/// What the drive no longer asks for is no longer wanted. A drive asks ten times a second for what held reads
/// wait for.
constexpr int64 UNWANTED_MS = 300;
/// What was delivered isn't fetched again within that, and is if the drive asks for it later. A count of the
/// drive's reports instead would last the longer, the more seldom the drive is asked.
constexpr int64 AGAIN_MS = 1000;
/// For so long a read at the download's edge, or in the stretch that comes next, is left to the download.
/// Then it is fetched, whatever has come meanwhile: a download that stands, or crawls, may never bring the
/// rest, and the last blocks of a size that doesn't end with a block aren't the drive's yet. Such a read
/// counts as an underflow, from its begin on.
constexpr int64 EDGE_MS = 3000;

} // namespace

void ZqOnDemandWants::begin() {
    deliveredMs.removeAll();
    wants.removeAll();
    edgeWaits.clear();
}

void ZqOnDemandWants::settle() {
    edgeIdx = 0;
    wants.removeAll();
    edgeWaits.clear();
}

void ZqOnDemandWants::add(const ZqOnDemandPass& pass, uint64 byteIdx) {
    const uint64 aligned = byteIdx / REQUEST_SIZE * REQUEST_SIZE;
    resumeIdx = std::max<uint64>(resumeIdx, aligned);
    int64 sinceMs = pass.t0;
    if (aligned < pass.nCurrent) {
        // The ordered download has it, or is about to. One that stands in the middle of a stretch, for want
        // of room on the disk, say, may never bring the rest, and a slow one not before long.
        sinceMs = noteEdgeWait(pass, byteIdx);
        if (pass.t0 - sinceMs < EDGE_MS) return;
    }
    if (wants.containsKey(aligned)) {
        wants(aligned).reportedMs = pass.t0;
    } else if (!isDelivered(pass, aligned)) {
        wants(aligned) = {sinceMs, pass.t0};
    }
}

int64 ZqOnDemandWants::noteEdgeWait(const ZqOnDemandPass& pass, uint64 byteIdx) {
    // The drive has a block only with the next one where what is there doesn't end with a block.
    edgeIdx = std::max(edgeIdx, std::min((byteIdx / BLOCK + 2) * BLOCK, pass.nTotal) - 1);
    EdgeWait& wait = edgeWaits.try_emplace(byteIdx, EdgeWait{pass.t0, 0}).first->second;
    wait.reportedMs = pass.t0;
    return wait.sinceMs;
}

bool ZqOnDemandWants::isDelivered(const ZqOnDemandPass& pass, uint64 offset) {
    const int64* at = deliveredMs.findPos(offset);
    if (!at) return false;
    if (pass.t0 - *at <= AGAIN_MS) return true;
    // The drive has let go of it, as where its disk is full.
    deliveredMs.remove(offset);
    pass.log("On-demand data already fetched: " + SxString(offset / BLOCK) + " rescheduled now");
    return false;
}

void ZqOnDemandWants::dropUnwanted(const ZqOnDemandPass& pass) {
    for (const uint64 offset : wants.getKeys()) {
        if (pass.t0 - wants(offset).reportedMs > UNWANTED_MS) wants.removeKey(offset);
    }
    std::erase_if(edgeWaits,
                  [&](const auto& wait) { return pass.t0 - wait.second.reportedMs > UNWANTED_MS; });
}

std::vector<ZqOnDemandWants::Due> ZqOnDemandWants::findDue(const ZqOnDemandPass& pass) const {
    std::vector<Due> due;
    for (const auto& [offset, want] : wants) {
        if (want.retryMs <= pass.t0) due.push_back({offset, isOverdue(pass, offset, want)});
    }
    return due;
}

std::optional<ZqOnDemandWants::Overdue> ZqOnDemandWants::findOverdue(const ZqOnDemandPass& pass) const {
    for (const auto& [offset, want] : wants) {
        if (!isOverdue(pass, offset, want)) continue;
        const uint64 end = std::max(offset + pass.lengthAt(offset), pass.nCurrent);
        return Overdue{end - pass.nCurrent, want.sinceMs};
    }
    return std::nullopt;
}

bool ZqOnDemandWants::isOverdue(const ZqOnDemandPass& pass, uint64 offset, const Want& want) const {
    return offset <= pass.nCurrent + REQUEST_SIZE && pass.t0 - want.sinceMs >= EDGE_MS;
}

bool ZqOnDemandWants::hasFailed() const {
    return std::any_of(wants.begin(), wants.end(), [](const auto& want) { return want.second.hasFailed; });
}

bool ZqOnDemandWants::isSettledSince(uint64 offset, int64 ms) const {
    const int64* at = deliveredMs.findPos(offset);
    return at && *at >= ms && !wants.containsKey(offset);
}

void ZqOnDemandWants::noteDelivered(uint64 offset) {
    deliveredMs.value(offset) = SxClock::get().steadyMs();
    wants.removeKey(offset);
}

void ZqOnDemandWants::noteFailed(uint64 offset) {
    if (!wants.containsKey(offset)) return;
    wants(offset).hasFailed = true;
    wants(offset).retryMs = SxClock::get().steadyMs() + RETRY_MS;
}

void ZqOnDemandWants::noteResume() {
    uint64 furthest = 0;
    for (const auto& [offset, want] : wants)
        furthest = std::max(furthest, offset);
    resumeIdx = furthest;
}

void ZqOnDemandWants::leaveToDownload() {
    resumeIdx = std::max<uint64>(resumeIdx, edgeIdx);
}
