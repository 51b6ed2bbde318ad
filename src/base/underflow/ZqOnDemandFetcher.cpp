#include "ZqOnDemandFetcher.h"

#include "BlockIdx.h"
#include "SxClock.h"
#include "SxTime.h"
#include "ZqImageProgress.h"
#include "ZqRangeFetch.h"
#include "ZqRangeSource.h"
#include "ZqUnderflowDrive.h"
#include "ZqUnderflowFigures.h"

#include <algorithm>
#include <utility>

namespace {

constexpr const char *CALLBACK_FAILED = "On demand callback failed",
                     *INVALID_VALUE = "Invalid On demand callback return value";
constexpr uint64 MAX_INDICES = 1000; ///< taken from the queue in one pass
constexpr int64 MAX_HANDOVER = 409600;
constexpr int64 CALLBACK_LOOK_MS = 1; ///< a reader waits for its end
/// So long after a fetch the drive is looked at each millisecond: who has got a block mostly asks for the
/// next one at once, and 10 ms are a fifth of what a request takes on a fast link.
constexpr int64 BUSY_MS = 100;

ZqfIdx blockAt(uint64 byteIdx) {
    return {byteIdx / ZqBlocks::SIZE};
}

} // namespace

ZqOnDemandFetcher::ZqOnDemandFetcher(ZqUnderflowDrive* drive_, ZqUnderflowFigures* figures_,
                                     ZqOnDemandSource* source_, const SxPtr<ZqImageProgress>& progress,
                                     uint64 sizeZqf_, const std::atomic<bool>& isStopped_)
    : drive(*drive_),
      figures(*figures_),
      source(*source_),
      imageProgress(progress),
      sizeZqf(sizeZqf_),
      isStopped(isStopped_) {
}

ZqOnDemandFetcher::~ZqOnDemandFetcher() {
    fetches.end(isStopped);
    if (!callback) return;
    if (callback->isRunning()) zqLogMsg("base", "ERROR : Callback not released.");
    callback->wait();
}

void ZqOnDemandFetcher::begin(const SxString& path) {
    wants.begin();
    reference.open(path);
}

void ZqOnDemandFetcher::end() {
    fetches.end(isStopped);
    reference.close();
}

void ZqOnDemandFetcher::settle() {
    wants.settle();
    if (std::exchange(isEdgeCounted, false)) figures.end();
}

void ZqOnDemandFetcher::pause() const {
    const bool isBusy = fetchedMs != 0 && SxClock::get().steadyMs() - fetchedMs < BUSY_MS;
    SxTime::msleep(isBusy ? 1 : ZqUnderflowDrive::POLL_MS);
}

ZqOnDemandFetcher::Outcome ZqOnDemandFetcher::runPass() {
    const ZqOnDemandPass pass{++nPasses, imageProgress ? imageProgress->getNTotal() : sizeZqf,
                              imageProgress ? imageProgress->getNCurrent() : 0};
    const ZqOnDemandSource::Choice from = source.get();
    const Work work{pass, from};
    Outcome outcome;
    if (!isPossible(work)) return outcome;
    collect(pass);
    countOverdue(pass);
    if (edgeCall && wants.isAtEdge(pass)) edgeCall();
    if (from.ranges) {
        beginFetches(work);
        if (!wants.hasFailed()) fetches.await(isStopped);
        outcome.nDelivered = deliverFetches(work);
    } else {
        outcome.nDelivered = fetchByCallback(work);
    }
    outcome.isPossible = !isStopped;
    if (isStopped) return outcome;
    // The download has to come up to what is still wanted.
    if (outcome.nDelivered > 0) wants.noteResume();
    outcome.hasFailed = wants.hasFailed();
    outcome.isWanted = !wants.isEmpty();
    outcome.isUnderWay = !fetches.isEmpty();
    return outcome;
}

bool ZqOnDemandFetcher::isPossible(const Work& work) const {
    if (!work.from.callback && !work.from.ranges) {
        work.pass.log("No underflow callback configured");
        return false;
    }
    if (callback && callback->isRunning()) {
        work.pass.log("ERROR : Callback not released. Ondemand underflow  management not possible");
        return false;
    }
    return true;
}

void ZqOnDemandFetcher::collect(const ZqOnDemandPass& pass) {
    figures.noteQueue(drive.getQueueLength());
    for (const uint64 byteIdx : drive.pop(MAX_INDICES)) {
        if (byteIdx / ZqOnDemandPass::REQUEST_SIZE * ZqOnDemandPass::REQUEST_SIZE > pass.nTotal) {
            pass.log("Reached end of on demand queue");
            break;
        }
        // A block at or beyond the image's end has no bytes, so nothing could resolve it.
        if (byteIdx < pass.nTotal) wants.add(pass, byteIdx);
    }
    wants.dropUnwanted(pass);
}

void ZqOnDemandFetcher::countOverdue(const ZqOnDemandPass& pass) {
    const auto overdue = wants.findOverdue(pass);
    if (!overdue) return;
    figures.begin(static_cast<int64>(overdue->nMissing), overdue->sinceMs);
    isEdgeCounted = true;
}

int64 ZqOnDemandFetcher::fetchByCallback(const Work& work) {
    int64 n = 0;
    for (const ZqOnDemandWants::Due& due : wants.findDue(work.pass)) {
        // Before the call, since that raises where the driver refuses what it got.
        wants.noteFailed(due.offset);
        const bool isDelivered = callBack(work, due.offset);
        if (isStopped) return n;
        if (isDelivered) {
            noteDelivered(due.offset);
            ++n;
        } else {
            // The pause counts from the end of the call.
            wants.noteFailed(due.offset);
        }
    }
    if (n > 0) notePass(n, work.pass.t0);
    return n;
}

bool ZqOnDemandFetcher::callBack(const Work& work, uint64 offset) {
    const uint64 length = work.pass.lengthAt(offset);
    if (callback) callback->wait();
    callback = SxPtr<ZqOnDemandCallback>::create(work.from.callback, offset, length, work.from.callbackData);
    callback->start(6);
    const SxArray<char> expected = reference.read(work.pass, offset, length);
    // A callback has no limit; a stop leaves it to itself.
    while (callback->isRunning()) {
        if (isStopped) return false;
        SxTime::msleep(CALLBACK_LOOK_MS);
    }
    callback->wait();
    if (const int code = callback->getReturnCode(); code != 0) {
        work.pass.log(code == 1 ? CALLBACK_FAILED : INVALID_VALUE);
        return false;
    }
    const SxArray<char>& data = *callback->getBuffer();
    if (!ZqReferenceImage::matches(work.pass, offset, data, expected)) return false;
    figures.noteSize(data.getSize());
    for (int64 done = 0; done < data.getSize(); done += MAX_HANDOVER) {
        SxArray<char> piece(std::min(MAX_HANDOVER, data.getSize() - done));
        std::copy_n(data.begin() + done, piece.getSize(), piece.begin());
        drive.deliver(piece, blockAt(offset + static_cast<uint64>(done)));
    }
    return true;
}

void ZqOnDemandFetcher::beginFetches(const Work& work) {
    const int64 nFree = fetches.nFree(work.pass.t0);
    SxArray<uint64> group, lengths;
    for (const ZqOnDemandWants::Due& due : wants.findDue(work.pass)) {
        const uint64 length = work.pass.lengthAt(due.offset);
        if (due.isOverdue) {
            if (!fetches.isUnderWayApart(due.offset)) {
                fetches.begin(work.from.ranges, due.offset, length, true);
            }
        } else if (group.getSize() < nFree && !fetches.isUnderWay(due.offset)) {
            group.append(due.offset);
            lengths.append(length);
        }
    }
    if (group.getSize() == 0) return;
    const SxArray<uint64> likely = hints.findLikely(group, work.pass.nCurrent);
    // All are on the wire together, so that the round trip is paid once.
    if ((group.getSize() > 1 || likely.getSize() > 0) && !isStopped)
        hints.noteBegun(work.from.ranges->announce(group, lengths, likely));
    figures.noteHints(hints.getNBegun(), hints.getNUsed());
    for (int64 i = 0; i < group.getSize(); ++i)
        fetches.begin(work.from.ranges, group(i), lengths(i), false);
}

int64 ZqOnDemandFetcher::deliverFetches(const Work& work) {
    int64 n = 0, beginMs = work.pass.t0;
    while (!isStopped) {
        // What the drive refuses is dropped here, too: the network's side keeps it.
        const SxPtr<ZqRangeFetch> fetch = fetches.takeEnded();
        if (!fetch) break;
        // The same stretch may have come in the other way, apart from the ordered download or not.
        if (wants.isSettledSince(fetch->offset, fetch->beginMs)) continue;
        wants.noteFailed(fetch->offset);
        if (!deliver(work, *fetch)) continue;
        noteDelivered(fetch->offset);
        beginMs = std::min(beginMs, fetch->beginMs);
        ++n;
    }
    if (n > 0) notePass(n, beginMs);
    return n;
}

bool ZqOnDemandFetcher::deliver(const Work& work, const ZqRangeFetch& fetch) {
    if (!fetch.hasCome) {
        const SxString failure = CALLBACK_FAILED + SxString(": ") + fetch.failure;
        if (!isStopped) work.pass.log(fetch.isInvalid ? SxString(INVALID_VALUE) : failure);
        return false;
    }
    figures.noteSize(fetch.data.getSize());
    const SxArray<char> expected = reference.read(work.pass, fetch.offset, fetch.length);
    if (!ZqReferenceImage::matches(work.pass, fetch.offset, fetch.data, expected)) {
        // Else it would come again from what is kept, and get into the image with the ordered stream.
        work.from.ranges->forget(fetch.offset, fetch.length);
        return false;
    }
    if (fetch.data.getSize() > MAX_HANDOVER) {
        work.pass.log("Too much data for driver");
        return false;
    }
    drive.deliver(fetch.data, blockAt(fetch.offset));
    return true;
}

void ZqOnDemandFetcher::noteDelivered(uint64 offset) {
    figures.noteRequest(offset);
    wants.noteDelivered(offset);
}

void ZqOnDemandFetcher::notePass(int64 nDelivered, int64 beginMs) {
    fetchedMs = SxClock::get().steadyMs();
    figures.noteFetches(nDelivered, fetchedMs - beginMs);
}
