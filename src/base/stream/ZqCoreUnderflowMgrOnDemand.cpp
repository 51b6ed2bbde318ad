#include "SxClock.h"
#include "SxTime.h"
#include "ZqAddressSource.h"
#include "ZqBlocks.h"
#include "ZqCoreUnderflowMgr.h"
#include "ZqImage.h"
#include "ZqImageProgress.h"
#include "ZqLog.h"
#include "ZqRangeSource.h"

#include <algorithm>
#include <utility>

namespace {

constexpr const char* UNIT = "src/base/ZqUnderflowMgr";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
constexpr uint64 MAX_INDICES = 1000; ///< taken from the queue in one pass
constexpr int64 MS = 1'000'000;
constexpr const char *CALLBACK_FAILED = "On demand callback failed",
                     *INVALID_VALUE = "Invalid On demand callback return value";
constexpr int64 SLOW_MS = 3000;    ///< one that lasts longer takes the place of no other
constexpr int64 MAX_FETCHES = 128; ///< at once, slow ones included
/// From one look for the end of a fetch, which a reader waits for, to the next.
constexpr int64 FETCH_LOOK_NS = MS / 4;
/// Between two tries of a stretch that can't be had. Meanwhile it counts as an underflow, and the others go
/// on.
constexpr int64 RETRY_MS = 1000;
/// What the drive no longer asks for is no longer wanted. A drive asks ten times a second for what held reads
/// wait for.
constexpr int64 UNWANTED_MS = 300;
constexpr int64 MAX_HANDOVER = 409600;
/// What was delivered isn't fetched again within that, and is if the drive asks for it later. A count of the
/// drive's reports instead would last the longer, the more seldom the drive is asked.
constexpr int64 AGAIN_MS = 1000;
constexpr int64 CALLBACK_LOOK_MS = 1; ///< a reader waits for its end
/// For so long a read at the download's edge, or in the stretch that comes next, is left to the download.
/// Then it is fetched, whatever has come meanwhile: a download that stands, or crawls, may never bring the
/// rest, and the last blocks of a size that doesn't end with a block aren't the drive's yet. Such a read
/// counts as an underflow, from its begin on.
constexpr int64 EDGE_MS = 3000;

int64 whole(double value) {
    return static_cast<int64>(value);
}

} // namespace

struct ZqCoreUnderflowMgr::Pass {
    SxString prefix; ///< of its log lines
    int64 t0 = 0;    ///< of the steady clock
    uint64 nTotal = 0, nCurrent = 0;

    void log(const SxString& text) const { zqLogMsg("base", prefix + text); }
    uint64 lengthAt(uint64 offset) const { return std::min(REQUEST_SIZE, nTotal - offset); }
    /// Whether the bytes are those of the reference image, where that is known; says in the log where not.
    bool matches(uint64 offset, const SxArray<char>& data, const SxArray<char>& expected) const;
};

// One call of a callback.

ZqCoreUnderflowMgr::AsyncCallback::AsyncCallback(Callback callback_, uint64 offset_, uint64 size_,
                                                 void* callbackData_)
    : callback(callback_),
      callbackData(callbackData_),
      offset(offset_),
      size(size_) {
    setThreadName("on demand");
}

ZqCoreUnderflowMgr::AsyncCallback::~AsyncCallback() {
    if (isRunning()) {
        zqLogMsg("base", "AsyncCallback::~AsyncCallback : External framework did not return callback. "
                         "Waiting...");
    }
    wait();
}

void ZqCoreUnderflowMgr::AsyncCallback::main() {
    buffer = SxPtr<SxArray<char>>::create(static_cast<int64>(size));
    char* data = buffer->data();
    try {
        const int result = callback(offset, size, &data, callbackData);
        const SxMutexBlock lock(&resultMutex);
        returnCode = result;
        finishedFlag = true;
    } catch (...) {
        {
            const SxMutexBlock lock(&resultMutex);
            finishedFlag = true;
        }
        throw SxException("External framework returned an exception", UNIT, __LINE__);
    }
}

int ZqCoreUnderflowMgr::AsyncCallback::getReturnCode() const {
    const SxMutexBlock lock(&resultMutex);
    return returnCode;
}

bool ZqCoreUnderflowMgr::AsyncCallback::isFinished() const {
    const SxMutexBlock lock(&resultMutex);
    return finishedFlag;
}

// One download.

/// A stretch on its way, on a thread of its own: one that the server is silent about holds up no other.
class ZqCoreUnderflowMgr::Fetch : public SxSystemThread {
public:
    /// `isApart`: it isn't left to the ordered download on the network's side either.
    Fetch(const SxPtr<ZqRangeSource>& from_, uint64 offset_, uint64 length_, bool isApart_)
        : offset(offset_),
          isApart(isApart_),
          beginMs(SxClock::get().steadyMs()),
          from(from_),
          length(length_) {
        setThreadName("on demand");
    }
    ~Fetch() override { wait(); }

    const uint64 offset;
    const bool isApart;
    const int64 beginMs; ///< of the steady clock
    const SxPtr<ZqRangeSource> from;

    // Once it has ended.
    bool hasCome = false;
    SxArray<char> data;
    SxString failure; ///< its line in the log, where the bytes haven't come

protected:
    void main() override {
        try {
            data.resize(static_cast<int64>(length));
            from->read(offset, length, data.data(), isApart);
            hasCome = true;
        } catch (const SxException& e) {
            failure = e.hasTag(ZqAddressSource::INVALID)
                          ? SxString(INVALID_VALUE)
                          : CALLBACK_FAILED + SxString(": ") + e.toString(SxException::ShowMessage, ": ");
        } catch (const std::exception& e) {
            failure = CALLBACK_FAILED + SxString(": ") + e.what();
        }
    }

private:
    const uint64 length;
};

// Sources.

void ZqCoreUnderflowMgr::requireNoCallback() const {
    if (callback || callbackData)
        throw SxException("Only one underflow callback method supported.", UNIT, __LINE__);
}

void ZqCoreUnderflowMgr::setRangeSource(const SxPtr<ZqRangeSource>& source) {
    const SxMutexBlock lock(&downloadMutex);
    requireNoCallback();
    if (!source) throw SxException("There is no source of ranges", UNIT, __LINE__);
    ranges = source;
    address = nullptr;
}

void ZqCoreUnderflowMgr::setDownloadParams(const SxString& url, const SxList<SxString>& headers) {
    try {
        const SxMutexBlock lock(&downloadMutex);
        requireNoCallback();
        const SxPtr<ZqAddressSource> source = address ? address : SxPtr<ZqAddressSource>::create();
        source->setAddress(url, headers);
        ranges = address = source;
    } catch (const SxException& e) {
        throw SxException(e, "Cannot set ondemand download params", UNIT, __LINE__);
    }
}

bool ZqCoreUnderflowMgr::canFetch() const {
    const SxMutexBlock lock(&downloadMutex);
    return callback || ranges;
}

ZqCoreUnderflowMgr::Source ZqCoreUnderflowMgr::getSource() const {
    const SxMutexBlock lock(&downloadMutex);
    return {callback, callbackData, ranges};
}

// The drive's queue.

uint64 ZqCoreUnderflowMgr::byteIdxOf(uint64 zqfIdx) const {
    if (zqfIdx == ZqImage::NO_ENTRY) return 0;
    // The image's last block may be a part of one.
    return zqfIdx <= appParams.sizeZqf / BLOCK ? zqfIdx * BLOCK : appParams.sizeZqf;
}

uint64 ZqCoreUnderflowMgr::popOnDemandZqFByteIdx() {
    return mountMgr.isUnderflow(path) ? byteIdxOf(mountMgr.popUnderflowZqFBlock(path)) : 0;
}

SxArray<uint64> ZqCoreUnderflowMgr::popOnDemandZqFByteIndices(uint64 count) {
    return mountMgr.isUnderflow(path) ? popQueue(count) : SxArray<uint64>();
}

SxArray<uint64> ZqCoreUnderflowMgr::popQueue(uint64 count) const {
    SxArray<uint64> indices = patiently([&] { return mountMgr.popUnderflowZqFBlocks(path, count); });
    for (uint64& index : indices)
        index = byteIdxOf(index);
    return indices;
}

// Passes.

bool ZqCoreUnderflowMgr::onDemand() {
    try {
        while (isReadWaiting()) {
            if (stopRequested() || !runPass()) return false;
        }
        edgeIdx = 0;
        wants.removeAll();
        edgeWaits.clear();
        if (std::exchange(isEdgeCounted, false)) timeUnderflow();
        return true;
    } catch (const SxException& e) {
        zqLogMsg("base", e.toString(SxException::ShowMessage, "\n"));
        return false;
    }
}

bool ZqCoreUnderflowMgr::runPassBetween() {
    try {
        runPass();
        return true;
    } catch (const SxException& e) {
        zqLogMsg("base", e.toString(SxException::ShowMessage, "\n"));
        return false;
    }
}

bool ZqCoreUnderflowMgr::runPass() {
    Pass pass{"ZqCoreUnderflowMgr::onDemand (" + SxString(++passCount) + "): ", SxClock::get().steadyMs(),
              imageProgress ? imageProgress->getNTotal() : appParams.sizeZqf, nDownloaded()};
    const Source source = getSource();
    if (!source.callback && !source.ranges) {
        pass.log("No underflow callback configured");
        return false;
    }
    if (asyncCallback && asyncCallback->isRunning()) {
        pass.log("ERROR : Callback not released. Ondemand underflow  management not possible");
        return false;
    }
    noteQueue();
    collect(pass);
    countOverdue(pass);
    if (edgeCall && edgeIdx >= pass.nCurrent) edgeCall();
    int64 n = 0;
    if (source.ranges) {
        beginFetches(pass, source.ranges);
        if (!hasFailedWant()) awaitFetch();
        n = deliverFetches(pass, source.ranges.getPtr());
    } else {
        n = fetchByCallback(pass, source);
    }
    if (stopRequested()) return false;
    if (n > 0) noteResume();
    if (hasFailedWant() || (entered && n == 0) || (wants.getSize() == 0 && n == 0 && isMinimized())) {
        resumeIdx = std::max<uint64>(resumeIdx, edgeIdx);
        return false;
    }
    // A pass that has found nothing to fetch must not begin anew at once.
    if (n == 0 && fetches.empty()) SxTime::msleep(SxWait::LOOK_MS);
    return true;
}

void ZqCoreUnderflowMgr::noteResume() {
    uint64 furthest = 0;
    for (const auto& [offset, want] : wants)
        furthest = std::max(furthest, offset);
    resumeIdx = furthest;
}

void ZqCoreUnderflowMgr::noteQueue() {
    queueLen = patiently([this] { return mountMgr.getUnderflowQueueLen(path); });
    queueLens.update(queueLen);
    const SxMutexBlock lock(&infoMutex);
    runtimeInfo.avgOnDemandQueue = whole(queueLens.getAverage());
    runtimeInfo.maxOnDemandQueue = whole(queueLens.getMax());
}

void ZqCoreUnderflowMgr::collect(const Pass& pass) {
    for (const uint64 byteIdx : popQueue(MAX_INDICES)) {
        const uint64 aligned = byteIdx / REQUEST_SIZE * REQUEST_SIZE;
        if (aligned > pass.nTotal) {
            pass.log("Reached end of on demand queue");
            break;
        }
        // A block at or beyond the image's end has no bytes, so nothing could resolve it.
        if (byteIdx >= pass.nTotal) continue;
        resumeIdx = std::max<uint64>(resumeIdx, aligned);
        int64 sinceMs = pass.t0;
        if (aligned < pass.nCurrent) {
            // The ordered download has it, or is about to. One that stands in the middle of a stretch, for
            // want of room on the disk, say, may never bring the rest, and a slow one not before long.
            sinceMs = noteEdgeWait(pass, byteIdx);
            if (pass.t0 - sinceMs < EDGE_MS) continue;
        }
        if (wants.containsKey(aligned)) {
            wants(aligned).reportedMs = pass.t0;
        } else if (!isDelivered(pass, aligned)) {
            wants(aligned) = {sinceMs, pass.t0};
        }
    }
    dropUnwanted(pass);
}

void ZqCoreUnderflowMgr::dropUnwanted(const Pass& pass) {
    for (const uint64 offset : wants.getKeys()) {
        if (pass.t0 - wants(offset).reportedMs > UNWANTED_MS) wants.removeKey(offset);
    }
    std::erase_if(edgeWaits,
                  [&](const auto& wait) { return pass.t0 - wait.second.reportedMs > UNWANTED_MS; });
}

bool ZqCoreUnderflowMgr::hasFailedWant() const {
    return std::any_of(wants.begin(), wants.end(), [](const auto& want) { return want.second.hasFailed; });
}

int64 ZqCoreUnderflowMgr::noteEdgeWait(const Pass& pass, uint64 byteIdx) {
    // The drive has a block only with the next one where what is there doesn't end with a block.
    edgeIdx = std::max(edgeIdx, std::min((byteIdx / BLOCK + 2) * BLOCK, pass.nTotal) - 1);
    EdgeWait& wait = edgeWaits.try_emplace(byteIdx, EdgeWait{pass.t0, 0}).first->second;
    wait.reportedMs = pass.t0;
    return wait.sinceMs;
}

bool ZqCoreUnderflowMgr::isOverdue(const Pass& pass, uint64 offset, const Want& want) const {
    return offset <= pass.nCurrent + REQUEST_SIZE && pass.t0 - want.sinceMs >= EDGE_MS;
}

void ZqCoreUnderflowMgr::countOverdue(const Pass& pass) {
    for (const auto& [offset, want] : wants) {
        if (!isOverdue(pass, offset, want)) continue;
        const uint64 end = std::max(offset + pass.lengthAt(offset), pass.nCurrent);
        countUnderflow(static_cast<int64>(end - pass.nCurrent), want.sinceMs);
        isEdgeCounted = true;
    }
}

bool ZqCoreUnderflowMgr::isDelivered(const Pass& pass, uint64 offset) {
    const int64* at = deliveredMs.findPos(offset);
    if (!at) return false;
    if (pass.t0 - *at <= AGAIN_MS) return true;
    // The drive has let go of it, as where its disk is full.
    deliveredMs.remove(offset);
    pass.log("On-demand data already fetched: " + SxString(offset / BLOCK) + " rescheduled now");
    return false;
}

int64 ZqCoreUnderflowMgr::fetchByCallback(const Pass& pass, const Source& source) {
    int64 n = 0;
    for (const uint64 offset : wants.getKeys()) {
        if (wants(offset).retryMs > pass.t0) continue;
        // Before the call, since that raises where the driver refuses what it got.
        noteFailed(offset);
        const bool isDelivered = callBack(pass, source, offset);
        if (stopRequested()) return n;
        if (isDelivered) {
            noteFetched(offset);
            ++n;
        } else {
            // The pause counts from the end of the call.
            noteFailed(offset);
        }
    }
    if (n == 0) return 0;
    fetchedMs = SxClock::get().steadyMs();
    noteFetches(n, fetchedMs - pass.t0);
    return n;
}

bool ZqCoreUnderflowMgr::callBack(const Pass& pass, const Source& source, uint64 offset) {
    const uint64 length = pass.lengthAt(offset);
    if (asyncCallback) asyncCallback->wait();
    asyncCallback = SxPtr<AsyncCallback>::create(source.callback, offset, length, source.callbackData);
    asyncCallback->start(6);
    const SxArray<char> expected = readExpected(pass, offset, length);
    // A callback has no limit; a stop leaves it to itself.
    while (asyncCallback->isRunning()) {
        if (stopRequested()) return false;
        SxTime::msleep(CALLBACK_LOOK_MS);
    }
    asyncCallback->wait();
    if (const int code = asyncCallback->getReturnCode(); code != 0) {
        pass.log(code == 1 ? CALLBACK_FAILED : INVALID_VALUE);
        return false;
    }
    const SxArray<char>& data = *asyncCallback->getBuffer();
    if (!pass.matches(offset, data, expected)) return false;
    fetchSizes.update(data.getSize());
    for (int64 done = 0; done < data.getSize(); done += MAX_HANDOVER) {
        SxArray<char> piece(std::min(MAX_HANDOVER, data.getSize() - done));
        std::copy_n(data.begin() + done, piece.getSize(), piece.begin());
        const uint64 zqfIdx = (offset + static_cast<uint64>(done)) / BLOCK;
        patiently([&] { mountMgr.sendBlockToUFLayer(path, piece, zqfIdx); });
    }
    return true;
}

bool ZqCoreUnderflowMgr::isUnderWay(uint64 offset) const {
    return std::any_of(fetches.begin(), fetches.end(),
                       [&](const SxPtr<Fetch>& fetch) { return fetch->offset == offset; });
}

bool ZqCoreUnderflowMgr::isUnderWayApart(uint64 offset) const {
    return std::any_of(fetches.begin(), fetches.end(),
                       [&](const SxPtr<Fetch>& fetch) { return fetch->offset == offset && fetch->isApart; });
}

void ZqCoreUnderflowMgr::beginFetches(const Pass& pass, const SxPtr<ZqRangeSource>& from) {
    // One that the server has been silent about takes the place of no other.
    const int64 nFresh = std::count_if(fetches.begin(), fetches.end(), [&](const SxPtr<Fetch>& fetch) {
        return pass.t0 - fetch->beginMs < SLOW_MS;
    });
    const int64 nFree =
        std::min(ZqRangeSource::GROUP - nFresh, MAX_FETCHES - static_cast<int64>(fetches.size()));
    SxArray<uint64> group, lengths;
    for (const auto& [offset, want] : wants) {
        if (want.retryMs > pass.t0) continue;
        if (isOverdue(pass, offset, want)) {
            if (!isUnderWayApart(offset)) beginFetch(pass, from, offset, true);
        } else if (group.getSize() < nFree && !isUnderWay(offset)) {
            group.append(offset);
            lengths.append(pass.lengthAt(offset));
        }
    }
    // All are on the wire together, so that the round trip is paid once.
    if (group.getSize() > 1) from->announce(group, lengths);
    for (const uint64 offset : group)
        beginFetch(pass, from, offset, false);
}

void ZqCoreUnderflowMgr::beginFetch(const Pass& pass, const SxPtr<ZqRangeSource>& from, uint64 offset,
                                    bool isApart) {
    const auto fetch = SxPtr<Fetch>::create(from, offset, pass.lengthAt(offset), isApart);
    fetch->start();
    fetches.push_back(fetch);
}

void ZqCoreUnderflowMgr::awaitFetch() const {
    const int64 endNs = SxClock::get().steadyNs() + SxWait::LOOK_MS * MS;
    const auto hasEnded = [this] {
        return std::any_of(fetches.begin(), fetches.end(),
                           [](const SxPtr<Fetch>& fetch) { return !fetch->isRunning(); });
    };
    while (!fetches.empty() && !hasEnded() && !stopRequested() && SxClock::get().steadyNs() < endNs)
        SxClock::get().sleepNs(FETCH_LOOK_NS);
}

int64 ZqCoreUnderflowMgr::deliverFetches(const Pass& pass, ZqRangeSource* from) {
    int64 n = 0, beginMs = pass.t0;
    for (auto at = fetches.begin(); at != fetches.end() && !stopRequested();) {
        const SxPtr<Fetch> fetch = *at;
        if (fetch->isRunning()) {
            ++at;
            continue;
        }
        fetch->wait();
        // What the drive has refused is dropped here, too: the network's side keeps it.
        at = fetches.erase(at);
        // The same stretch may have come in the other way, apart from the ordered download or not.
        const int64* deliveredAt = deliveredMs.findPos(fetch->offset);
        if (deliveredAt && *deliveredAt >= fetch->beginMs && !wants.containsKey(fetch->offset)) continue;
        noteFailed(fetch->offset);
        if (!deliver(pass, from, *fetch)) continue;
        noteFetched(fetch->offset);
        beginMs = std::min(beginMs, fetch->beginMs);
        ++n;
    }
    if (n == 0) return 0;
    fetchedMs = SxClock::get().steadyMs();
    noteFetches(n, fetchedMs - beginMs);
    return n;
}

bool ZqCoreUnderflowMgr::deliver(const Pass& pass, ZqRangeSource* from, const Fetch& fetch) {
    if (!fetch.hasCome) {
        if (!stopRequested()) pass.log(fetch.failure);
        return false;
    }
    fetchSizes.update(fetch.data.getSize());
    const auto length = static_cast<uint64>(fetch.data.getSize());
    if (!pass.matches(fetch.offset, fetch.data, readExpected(pass, fetch.offset, length))) {
        // Else it would come again from what is kept, and get into the image with the ordered stream.
        from->forget(fetch.offset, length);
        return false;
    }
    if (fetch.data.getSize() > MAX_HANDOVER) {
        pass.log("Too much data for driver");
        return false;
    }
    patiently([&] { mountMgr.sendBlockToUFLayer(path, fetch.data, fetch.offset / BLOCK); });
    return true;
}

void ZqCoreUnderflowMgr::endFetches() {
    // A fetch ends with the source that it was begun with, which may have been another one.
    std::vector<SxPtr<ZqRangeSource>> sources;
    for (const SxPtr<Fetch>& fetch : fetches) {
        const auto isSame = [&](const SxPtr<ZqRangeSource>& source) { return source == fetch->from; };
        if (std::none_of(sources.begin(), sources.end(), isSame)) sources.push_back(fetch->from);
    }
    for (const SxPtr<ZqRangeSource>& source : sources)
        source->cancel(true);
    fetches.clear();
    if (stopRequested()) return;
    for (const SxPtr<ZqRangeSource>& source : sources)
        source->cancel(false);
}

SxArray<char> ZqCoreUnderflowMgr::readExpected(const Pass& pass, uint64 offset, uint64 length) {
    SxArray<char> expected;
    if (!refFile.isOpen()) return expected;
    try {
        expected.resize(static_cast<int64>(length));
        refFile.seek(static_cast<int64>(offset));
        if (refFile.readBuffer(expected.data(), expected.getSize()) != expected.getSize()) {
            throw SxException(SxFileIO::fileReadErr(refFile.getFilePath()), UNIT, __LINE__);
        }
    } catch (const SxException& e) {
        zqLogMsg("base", e.toString(SxException::ShowMessage, "\n"));
        pass.log("Cannot read validation data. Validation cancelled");
        expected.removeAll();
    }
    return expected;
}

bool ZqCoreUnderflowMgr::Pass::matches(uint64 offset, const SxArray<char>& data,
                                       const SxArray<char>& expected) const {
    if (expected.getSize() == 0 || data == expected) return true;
    log("On Demand Buffer does not pass data validation: Data corrupt");
    log("ZqF byte index: " + SxString(offset));
    log("Data fetched:");
    blockPrint(data);
    log("Data expected:");
    blockPrint(expected);
    return false;
}

void ZqCoreUnderflowMgr::noteFetched(uint64 offset) {
    deliveredMs.value(offset) = SxClock::get().steadyMs();
    requestIndices.update(offset);
    wants.removeKey(offset);
}

void ZqCoreUnderflowMgr::noteFailed(uint64 offset) {
    if (!wants.containsKey(offset)) return;
    wants(offset).hasFailed = true;
    wants(offset).retryMs = SxClock::get().steadyMs() + RETRY_MS;
}

void ZqCoreUnderflowMgr::noteFetches(int64 n, int64 elapsedMs) {
    const double each = static_cast<double>(elapsedMs) / static_cast<double>(n);
    if (n < batchTimes.getSize()) batchTimes(n - 1).update(each);
    for (int64 i = 0; i < n; ++i)
        fetchTimes.update(each);
    const SxMutexBlock lock(&infoMutex);
    runtimeInfo.nOnDemandFetches = fetchTimes.getN();
    runtimeInfo.avgOnDemandTime = whole(fetchTimes.getAverage());
    runtimeInfo.maxOnDemandTime = whole(fetchTimes.getMax());
    runtimeInfo.avgOnDemandSize = whole(fetchSizes.getAverage());
    runtimeInfo.sumOnDemandSize = whole(static_cast<double>(fetchSizes.getN()) * fetchSizes.getAverage());
}

void blockPrint(const SxArray<char>& data) {
    constexpr int64 ROW = 16, MAX_ROWS = 256;
    const int64 end = std::min(data.getSize(), ROW * MAX_ROWS);
    for (int64 first = 0; first < end; first += ROW) {
        SxString line = SxString::sprintf("%08X", static_cast<unsigned>(first)), text;
        for (int64 i = first; i < std::min(end, first + ROW); ++i) {
            const auto byte = static_cast<unsigned char>(data(i));
            line += SxString::sprintf(i % 8 == 0 ? "  %02X" : " %02X", static_cast<unsigned>(byte));
            text += byte < 32 || byte >= 128 ? '.' : static_cast<char>(byte);
        }
        zqLogMsg("base", line + "   [ " + text + " ]");
    }
}
