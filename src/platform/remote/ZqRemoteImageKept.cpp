#include "SxClock.h"
#include "ZqFrameDecoder.h"
#include "ZqImageFetch.h"
#include "ZqImageStorer.h"
#include "ZqLog.h"
#include "ZqPackedForm.h"
#include "ZqRemoteImage.h"
#include "ZqUrlText.h"

#include <chrono>
#include <cstring>

// What is known to be right, and what is kept of that.

namespace {

constexpr const char* UNIT = "src/platform/remote/ZqRemoteImageKept";
constexpr auto LOOK = std::chrono::milliseconds(20);
/// How long a stretch of the plain form waits for the table that tells whether it is right, from the first
/// request for that on. But for very large images a table comes in less time than a stretch takes: it has a
/// hundredth of a percent of its image. After this time the plain form goes on, unchecked until the table is
/// there.
constexpr int64 TABLE_PATIENCE_NS = 2'000'000'000;
/// Nobody waits for what is stored, and what it takes of the disk is given back at leisure.
constexpr auto STORER_LOOK = std::chrono::seconds(1);
/// Stretches that the stream has brought and that ranges may still ask for though they are written.
constexpr size_t N_RECENT = 4;
/// Stretches that stay in memory though the store has them: 20 MiB.
constexpr uint64 N_CACHED = 100;

bool hasChecksumOf(const SxPtr<ZqSeekTable>& table, uint64 stretchIdx, const SxArray<char>& bytes) {
    return table->getFrame(stretchIdx).checksum == ZqSeekTable::checksumOf(bytes.data(), bytes.getSize());
}

SxException wrong(const SxString& text, int line) {
    return SxException(SxString(ZqNetLink::WRONG), text, UNIT, line);
}

} // namespace

SxString ZqRemoteImage::nameOf(uint64 stretchIdx, bool isFrame) const {
    return isFrame
               ? "Frame " + SxString(stretchIdx) + " of '" + ZqUrlText::of(packed->getUrl()) + "' is damaged"
               : "Stretch " + SxString(stretchIdx) + " of '" + ZqUrlText::of(plain->getUrl()) + "' is wrong";
}

ZqRemoteImage::Bytes ZqRemoteImage::decode(uint64 stretchIdx, const char* frame, uint64 n) const {
    const auto size = static_cast<int64>(stretchSize(stretchIdx));
    auto bytes = Bytes::create(size);
    uint32 checksum = 0;
    try {
        checksum = ZqFrameDecoder::decode(frame, static_cast<int64>(n), bytes->data(), size);
    } catch (const SxException& e) {
        throw wrong(e.toString(SxException::ShowMessage, ": "), __LINE__);
    }
    const SxPtr<ZqSeekTable> known = getKnownTable();
    if (known && known->hasChecksums() && known->getFrame(stretchIdx).checksum != checksum) {
        throw wrong("Its bytes aren't those of the seek table's checksum", __LINE__);
    }
    return bytes;
}

bool ZqRemoteImage::isOfThisImage(const char* bytes, int64 n) const {
    const std::string known = ZqPackedForm::origin(digest);
    if (digest.isEmpty() || n < ZqPackedForm::HEADER_SIZE ||
        std::memcmp(bytes, known.data(), ZqPackedForm::HEADER_SIZE) != 0) {
        return true;
    }
    return isStatedOf(bytes, n);
}

bool ZqRemoteImage::isStatedOf(const char* bytes, int64 n) const {
    const std::string known = ZqPackedForm::origin(digest);
    return !digest.isEmpty() && n >= ZqPackedForm::ORIGIN_SIZE &&
           std::memcmp(bytes, known.data(), known.size()) == 0;
}

void ZqRemoteImage::refusePacked() {
    zqLogMsg("NET",
             "'" + ZqUrlText::of(packed->getUrl()) + "' was packed of another img.zqf; it is left aside");
    setState(Packed::Absent);
}

bool ZqRemoteImage::notePackedAbsent(const SxException& why) {
    const bool mayPass = why.hasTag(ZqNetLink::REFUSED);
    if (mayPass) {
        leavePacked(why);
    } else {
        setState(Packed::Absent);
    }
    return !mayPass;
}

void ZqRemoteImage::forgetAbsence() {
    {
        SxMutexBlock lock(&mutex);
        if (state != Packed::Absent) return;
        state = Packed::Unknown;
        isTableWanted = true;
        tableWaits = false;
        tableBegunNs = SxClock::get().steadyNs();
    }
    changed.notify_all();
}

void ZqRemoteImage::beginTableLook() {
    SxMutexBlock lock(&mutex);
    isTableWanted = false;
}

bool ZqRemoteImage::awaitTableWanted(int64 ms, const ZqStopTest& stop) {
    const int64 endNs = SxClock::get().steadyNs() + ms * 1'000'000;
    SxMutexBlock lock(&mutex);
    while (!isTableWanted && !stop()) {
        const int64 leftNs = endNs - SxClock::get().steadyNs();
        if (leftNs <= 0) break;
        changed.wait_for(mutex, std::chrono::nanoseconds(leftNs));
    }
    return !stop();
}

bool ZqRemoteImage::canCheck(const SxPtr<ZqSeekTable>& ofFrames) const {
    SxMutexBlock lock(&mutex);
    const SxPtr<ZqSeekTable>& known = ofFrames ? ofFrames : table;
    return known && known->hasChecksums();
}

bool ZqRemoteImage::isTableSettled() const {
    return table || tableWaits || state == Packed::Absent || state == Packed::Aside ||
           SxClock::get().steadyNs() - tableBegunNs > TABLE_PATIENCE_NS;
}

SxPtr<ZqSeekTable> ZqRemoteImage::awaitTable(const ZqStopTest& stop) {
    openTable();
    forgetAbsence();
    for (;;) {
        getLink()->checkStop(stop);
        SxMutexBlock lock(&mutex);
        // Unlike a stretch on demand, who asks for it has the time that it takes.
        if (table || tableWaits || state == Packed::Absent || state == Packed::Aside) return table;
        changed.wait_for(mutex, LOOK);
    }
}

bool ZqRemoteImage::isTableDelayed(SxException* why) const {
    SxMutexBlock lock(&mutex);
    if (table || state == Packed::Absent || !(tableWaits || state == Packed::Aside)) return false;
    *why = tableFailure;
    return true;
}

SxPtr<SxArray<char>> ZqRemoteImage::fetchAnew(uint64 stretchIdx, const ZqStopTest& stop) {
    checkRange(stretchIdx * STRETCH, stretchSize(stretchIdx));
    openTable();
    Fetch fetch(this, stretchIdx);
    return takeAgain(&fetch, stop);
}

bool ZqRemoteImage::checkPlain(uint64 stretchIdx, const SxArray<char>& bytes, const ZqStopTest& stop) {
    SxPtr<ZqSeekTable> known;
    for (bool isSettled = false; !isSettled;) {
        getLink()->checkStop(stop);
        SxMutexBlock lock(&mutex);
        known = table;
        isSettled = isTableSettled();
        if (!isSettled) changed.wait_for(mutex, LOOK);
    }
    if (!known || !known->hasChecksums()) return false;
    if (hasChecksumOf(known, stretchIdx, bytes)) return true;
    {
        SxMutexBlock lock(&mutex);
        distrusted.insert(stretchIdx);
    }
    throw wrong("Its bytes aren't those of the seek table's checksum", __LINE__);
}

ZqRemoteImage::Bytes ZqRemoteImage::findStretch(uint64 stretchIdx) const {
    const auto found = kept.find(stretchIdx);
    if (found != kept.end()) return found->second;
    for (const auto& [idx, bytes] : recent) {
        if (idx == stretchIdx) return bytes;
    }
    return nullptr;
}

bool ZqRemoteImage::isKept(uint64 stretchIdx) const {
    return kept.contains(stretchIdx) || findStretch(stretchIdx);
}

void ZqRemoteImage::setStore(std::unique_ptr<ZqStretchStore> store_) {
    store = std::move(store_);
    {
        SxMutexBlock lock(&mutex);
        for (const uint64 idx : store->list()) {
            kept[idx] = nullptr;
            unchecked.insert(idx);
        }
    }
    storer = std::make_unique<Storer>(this);
    storer->start();
}

void ZqRemoteImage::setWritten(uint64 size) {
    written = size;
    isWrittenTold = true;
    SxMutexBlock lock(&mutex);
    shedRecent();
}

void ZqRemoteImage::shedRecent() {
    const uint64 end = written;
    while (recent.size() > N_RECENT) {
        const uint64 idx = recent.back().first;
        const bool isHeld = isWrittenTold && idx * STRETCH + stretchSize(idx) > end;
        if (isHeld && recent.size() * STRETCH <= MAX_HELD) return;
        recent.pop_back();
    }
}

void ZqRemoteImage::keep(uint64 stretchIdx, const Bytes& bytes, uint64 nWire, bool isChecked,
                         uint64 Figures::*figure) {
    SxMutexBlock lock(&mutex);
    figures.*figure += stretchSize(stretchIdx);
    // The stream has brought it meanwhile, or is about to. What is kept is counted where that comes to it.
    if (stretchIdx * STRETCH < streamPos) figures.nTwice += nWire;
    if (isChecked) distrusted.erase(stretchIdx);
    if ((nInMemory + 1) * STRETCH > maxKept) shedStored(0);
    if (stretchIdx * STRETCH < streamPos || (nInMemory + 1) * STRETCH > maxKept) return;
    dropKept(stretchIdx, stretchIdx + 1);
    kept[stretchIdx] = bytes;
    ++nInMemory;
    if (!isChecked) unchecked.insert(stretchIdx);
    if (figure == &Figures::nAhead) unused.insert(stretchIdx);
    if (!store) return;
    unstored.push_back(stretchIdx);
    changed.notify_all();
}

void ZqRemoteImage::noteStored(uint64 stretchIdx) {
    if (std::find(inBoth.begin(), inBoth.end(), stretchIdx) == inBoth.end()) inBoth.push_back(stretchIdx);
    shedStored(N_CACHED);
}

void ZqRemoteImage::shedStored(uint64 nMost) {
    for (; inBoth.size() > nMost; inBoth.pop_front()) {
        kept[inBoth.front()] = nullptr;
        --nInMemory;
    }
}

bool ZqRemoteImage::storeNext() {
    store->pass(written);
    uint64 idx = 0;
    Bytes bytes;
    {
        SxMutexBlock lock(&mutex);
        if (unstored.empty()) return false;
        idx = unstored.front();
        unstored.pop_front();
        const auto found = kept.find(idx);
        if (found != kept.end()) bytes = found->second;
    }
    if (!bytes) return true;
    const bool isWritten = store->write(idx, *bytes);
    bool isWanted = false;
    {
        SxMutexBlock lock(&mutex);
        const auto found = kept.find(idx);
        isWanted = found != kept.end() && found->second.getPtr() == bytes.getPtr();
        if (isWanted && isWritten) noteStored(idx);
        // It has its turn when there is room.
        if (isWanted && !isWritten) unstored.push_back(idx);
    }
    // It was found to be wrong, or passed, while it was written.
    if (!isWanted && isWritten) store->drop(idx);
    return isWritten;
}

void ZqRemoteImage::awaitStorable(const std::atomic<bool>& stopping) {
    SxMutexBlock lock(&mutex);
    if (!stopping) changed.wait_for(mutex, STORER_LOOK);
}

ZqRemoteImage::Bytes ZqRemoteImage::loadKept(uint64 stretchIdx) {
    Bytes bytes = store->read(stretchIdx);
    SxMutexBlock lock(&mutex);
    const auto found = kept.find(stretchIdx);
    // The stream may have passed it, or somebody else have loaded it.
    if (found == kept.end() || found->second) return bytes;
    if (!bytes) {
        dropKept(stretchIdx, stretchIdx + 1);
        return nullptr;
    }
    found->second = bytes;
    ++nInMemory;
    noteStored(stretchIdx);
    return bytes;
}

ZqRemoteImage::Bytes ZqRemoteImage::getKept(uint64 stretchIdx) {
    Bytes bytes;
    SxPtr<ZqSeekTable> known;
    {
        SxMutexBlock lock(&mutex);
        const auto found = kept.find(stretchIdx);
        if (found == kept.end()) return nullptr;
        bytes = found->second;
        if (unchecked.contains(stretchIdx) && table && table->hasChecksums()) known = table;
    }
    if (!bytes) bytes = loadKept(stretchIdx);
    if (!bytes || !known) return bytes;
    const bool isRight = hasChecksumOf(known, stretchIdx, *bytes);
    if (!isRight) {
        zqLogMsg("NET",
                 nameOf(stretchIdx, false) + ", as the seek table has told since; it is fetched again");
        if (store) store->drop(stretchIdx);
    }
    SxMutexBlock lock(&mutex);
    unchecked.erase(stretchIdx);
    if (isRight) return bytes;
    dropKept(stretchIdx, stretchIdx + 1);
    distrusted.insert(stretchIdx);
    return nullptr;
}

void ZqRemoteImage::dropKept(uint64 first, uint64 end) {
    const auto last = kept.lower_bound(end);
    for (auto at = kept.lower_bound(first); at != last; at = kept.erase(at)) {
        if (at->second) --nInMemory;
    }
    inBoth.remove_if([&](uint64 idx) { return idx >= first && idx < end; });
    unused.erase(unused.lower_bound(first), unused.lower_bound(end));
    unchecked.erase(unchecked.lower_bound(first), unchecked.lower_bound(end));
}

void ZqRemoteImage::forget(uint64 offset, uint64 size) {
    checkRange(offset, size);
    const uint64 first = offset / STRETCH, end = ZqSeekTable::countFrames(offset + size);
    {
        SxMutexBlock lock(&mutex);
        dropKept(first, end);
        recent.remove_if([&](const auto& entry) { return entry.first >= first && entry.first < end; });
        for (uint64 idx = first; idx < end; ++idx)
            distrusted.insert(idx);
    }
    for (uint64 idx = first; store && idx < end; ++idx)
        store->drop(idx);
}
