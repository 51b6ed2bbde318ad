#include "ZqStretchCache.h"

#include "SxClock.h"
#include "ZqLog.h"

#include <chrono>

namespace {

constexpr uint64 STRETCH = ZqStretchLayout::STRETCH;
/// Bytes that came with others and that nobody has asked for yet. The ordered stream is held for such
/// requests, so without a bound an image that is read all over would never be complete.
constexpr uint64 MAX_UNUSED = 32 << 20;
/// Nobody waits for what is stored, and what it takes of the disk is given back at leisure.
constexpr auto STORER_LOOK = std::chrono::seconds(1);
/// What is left at the end is still stored, for as long as this.
constexpr int64 DRAIN_NS = 1'000'000'000;
/// Stretches that the stream has brought and that ranges may still ask for though they are written.
constexpr size_t N_RECENT = 4;
/// Stretches that stay in memory though the store has them: 20 MiB.
constexpr uint64 N_CACHED = 100;

} // namespace

ZqStretchCache::ZqStretchCache(const ZqStretchLayout& layout_, uint64 maxKept_, uint64 maxHeld_,
                               OnWrong onWrong_)
    : layout(layout_),
      maxKept(maxKept_),
      maxHeld(maxHeld_),
      onWrong(std::move(onWrong_)) {
}

ZqStretchCache::~ZqStretchCache() {
    if (!storer) return;
    storer->stop();
    {
        // It has looked for a stop and waits by now.
        SxMutexBlock lock(&mutex);
    }
    changed.notify_all();
    storer->wait();
}

void ZqStretchCache::setStore(std::unique_ptr<ZqStretchStore> store_) {
    store = std::move(store_);
    {
        SxMutexBlock lock(&mutex);
        for (const uint64 idx : store->list())
            kept[idx] = {};
    }
    storer = std::make_unique<ZqStopThread>("zqstore",
                                            [this](const ZqStopTest& isStopped) { runStorer(isStopped); });
    storer->start();
}

void ZqStretchCache::setWritten(uint64 size) {
    SxMutexBlock lock(&mutex);
    written = size;
    isWrittenTold = true;
    shedStreamed();
}

// Ranges

ZqStretchCache::Bytes ZqStretchCache::get(uint64 stretchIdx, const Table& known) {
    Bytes bytes;
    bool isChecked = !known || !known->hasChecksums();
    {
        SxMutexBlock lock(&mutex);
        const auto found = kept.find(stretchIdx);
        if (found == kept.end()) return nullptr;
        bytes = found->second.bytes;
        isChecked = isChecked || found->second.checkedBy == known->getChecksumsId();
    }
    if (!bytes) bytes = load(stretchIdx);
    if (!bytes || isChecked) return bytes;
    const bool isRight = known->isRight(stretchIdx, *bytes);
    if (!isRight) {
        onWrong(stretchIdx);
        if (store) store->drop(stretchIdx);
    }
    SxMutexBlock lock(&mutex);
    if (!isRight) {
        drop(stretchIdx, stretchIdx + 1);
        return nullptr;
    }
    const auto found = kept.find(stretchIdx);
    if (found != kept.end() && found->second.bytes == bytes)
        found->second.checkedBy = known->getChecksumsId();
    return bytes;
}

ZqStretchCache::Bytes ZqStretchCache::load(uint64 stretchIdx) {
    Bytes bytes = store->read(stretchIdx);
    SxMutexBlock lock(&mutex);
    const auto found = kept.find(stretchIdx);
    // The stream may have passed it, or somebody else have loaded it.
    if (found == kept.end() || found->second.bytes) return bytes;
    if (!bytes) {
        drop(stretchIdx, stretchIdx + 1);
        return nullptr;
    }
    found->second.bytes = bytes;
    ++nInMemory;
    noteStored(stretchIdx);
    return bytes;
}

ZqStretchCache::Bytes ZqStretchCache::findStreamed(uint64 stretchIdx) const {
    SxMutexBlock lock(&mutex);
    for (const auto& [idx, bytes] : streamed) {
        if (idx == stretchIdx) return bytes;
    }
    return nullptr;
}

bool ZqStretchCache::has(uint64 stretchIdx) const {
    SxMutexBlock lock(&mutex);
    return kept.contains(stretchIdx) || std::any_of(streamed.begin(), streamed.end(), [&](const auto& entry) {
               return entry.first == stretchIdx;
           });
}

bool ZqStretchCache::keep(uint64 stretchIdx, const Bytes& bytes, const Table& checkedBy, bool isUnasked) {
    {
        SxMutexBlock lock(&mutex);
        if (stretchIdx < nPassed) return false;
        if ((nInMemory + 1) * STRETCH > maxKept) shedStored(0);
        if ((nInMemory + 1) * STRETCH > maxKept) return true;
        drop(stretchIdx, stretchIdx + 1);
        kept[stretchIdx] = {bytes, checkedBy ? checkedBy->getChecksumsId() : 0};
        ++nInMemory;
        if (isUnasked) unused.insert(stretchIdx);
        if (store) unstored.push_back(stretchIdx);
    }
    changed.notify_all();
    return true;
}

bool ZqStretchCache::noteUse(uint64 stretchIdx) {
    SxMutexBlock lock(&mutex);
    return unused.erase(stretchIdx) > 0;
}

bool ZqStretchCache::hasRoomFor(uint64 n) const {
    SxMutexBlock lock(&mutex);
    return (nInMemory - inBoth.size() + n) * STRETCH <= maxKept &&
           (unused.size() + n) * STRETCH <= MAX_UNUSED;
}

void ZqStretchCache::forget(uint64 firstIdx, uint64 endIdx) {
    {
        SxMutexBlock lock(&mutex);
        drop(firstIdx, endIdx);
        streamed.remove_if(
            [&](const auto& entry) { return entry.first >= firstIdx && entry.first < endIdx; });
    }
    for (uint64 idx = firstIdx; store && idx < endIdx; ++idx)
        store->drop(idx);
}

void ZqStretchCache::drop(uint64 firstIdx, uint64 endIdx) {
    const auto last = kept.lower_bound(endIdx);
    for (auto at = kept.lower_bound(firstIdx); at != last; at = kept.erase(at)) {
        if (at->second.bytes) --nInMemory;
    }
    inBoth.remove_if([&](uint64 idx) { return idx >= firstIdx && idx < endIdx; });
    unused.erase(unused.lower_bound(firstIdx), unused.lower_bound(endIdx));
}

void ZqStretchCache::visitKept(uint64 firstIdx, uint64 endIdx,
                               const std::function<void(uint64 stretchIdx)>& visit) const {
    SxMutexBlock lock(&mutex);
    for (auto entry = kept.lower_bound(firstIdx); entry != kept.end() && entry->first < endIdx; ++entry)
        visit(entry->first);
}

uint64 ZqStretchCache::getStored() const {
    if (!store) return 0;
    SxMutexBlock lock(&mutex);
    return std::min((kept.size() - nInMemory + inBoth.size()) * STRETCH, layout.getSizeZqf());
}

// The stream

void ZqStretchCache::beginStream(uint64 offset) {
    SxMutexBlock lock(&mutex);
    nPassed = ZqSeekTable::countFrames(offset);
}

bool ZqStretchCache::takeStreamed(uint64 stretchIdx, const Bytes& bytes) {
    SxMutexBlock lock(&mutex);
    const bool wasKept = kept.contains(stretchIdx);
    drop(0, stretchIdx + 1);
    streamed.remove_if([&](const auto& entry) { return entry.first == stretchIdx; });
    if (bytes) streamed.emplace_front(stretchIdx, bytes);
    shedStreamed();
    nPassed = stretchIdx + 1;
    return wasKept;
}

void ZqStretchCache::dropStreamed() {
    SxMutexBlock lock(&mutex);
    streamed.clear();
}

void ZqStretchCache::shedStreamed() {
    while (streamed.size() > N_RECENT) {
        const bool isHeld = isWrittenTold && layout.endOf(streamed.back().first) > written;
        if (isHeld && streamed.size() * STRETCH <= maxHeld) return;
        streamed.pop_back();
    }
}

uint64 ZqStretchCache::runFrom(uint64 stretchIdx) const {
    uint64 n = 0;
    for (auto at = kept.find(stretchIdx); at != kept.end() && at->first == stretchIdx + n; ++at)
        ++n;
    return n;
}

uint64 ZqStretchCache::countRun(uint64 stretchIdx) const {
    SxMutexBlock lock(&mutex);
    return runFrom(stretchIdx);
}

uint64 ZqStretchCache::findRun(uint64 firstIdx, uint64 endIdx, uint64 n) const {
    SxMutexBlock lock(&mutex);
    auto at = kept.lower_bound(firstIdx);
    while (at != kept.end() && at->first < endIdx) {
        const uint64 nHere = runFrom(at->first);
        if (nHere >= n) return at->first;
        std::advance(at, nHere);
    }
    return endIdx;
}

// The store

void ZqStretchCache::noteStored(uint64 stretchIdx) {
    if (std::find(inBoth.begin(), inBoth.end(), stretchIdx) == inBoth.end()) inBoth.push_back(stretchIdx);
    shedStored(N_CACHED);
}

void ZqStretchCache::shedStored(uint64 nMost) {
    for (; inBoth.size() > nMost; inBoth.pop_front()) {
        kept[inBoth.front()].bytes = nullptr;
        --nInMemory;
    }
}

void ZqStretchCache::runStorer(const ZqStopTest& isStopped) {
    int64 stopNs = 0;
    for (;;) {
        // Before the look, or what came at last would be left out.
        const bool isEnding = isStopped();
        bool isStored = true;
        try {
            isStored = storeNext();
        } catch (const SxException& e) {
            // What the store hasn't got stays in memory.
            zqLogMsg("NET", e.toString(SxException::ShowMessage, ": "));
        }
        if (!isEnding) {
            if (!isStored) awaitStorable(isStopped);
            continue;
        }
        const int64 nowNs = SxClock::get().steadyNs();
        if (stopNs == 0) stopNs = nowNs;
        if (!isStored || nowNs - stopNs > DRAIN_NS) return;
    }
}

bool ZqStretchCache::storeNext() {
    uint64 end = 0;
    {
        SxMutexBlock lock(&mutex);
        end = written;
    }
    store->pass(end);
    uint64 idx = 0;
    Bytes bytes;
    {
        SxMutexBlock lock(&mutex);
        if (unstored.empty()) return false;
        idx = unstored.front();
        unstored.pop_front();
        const auto found = kept.find(idx);
        if (found != kept.end()) bytes = found->second.bytes;
    }
    if (!bytes) return true;
    const bool isWritten = store->write(idx, *bytes);
    bool isWanted = false;
    {
        SxMutexBlock lock(&mutex);
        const auto found = kept.find(idx);
        isWanted = found != kept.end() && found->second.bytes == bytes;
        if (isWanted && isWritten) noteStored(idx);
        // It has its turn when there is room.
        if (isWanted && !isWritten) unstored.push_back(idx);
    }
    // It was found to be wrong, or passed, while it was written.
    if (!isWanted && isWritten) store->drop(idx);
    return isWritten;
}

void ZqStretchCache::awaitStorable(const ZqStopTest& isStopped) {
    SxMutexBlock lock(&mutex);
    if (!isStopped()) changed.wait_for(mutex, STORER_LOOK);
}
