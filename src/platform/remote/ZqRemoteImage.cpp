#include "ZqRemoteImage.h"

#include "SxClock.h"
#include "ZqImageAheadLoader.h"
#include "ZqImageFetch.h"
#include "ZqImageStorer.h"
#include "ZqImageTableLoader.h"
#include "ZqLog.h"
#include "ZqUrlText.h"

#include <chrono>
#include <cstring>
#include <vector>

namespace {

constexpr const char* UNIT = "src/platform/remote/ZqRemoteImage";
constexpr auto LOOK = std::chrono::milliseconds(20);
/// Loaders are woken for work and for a stop.
constexpr auto LOADER_LOOK = std::chrono::seconds(1);
constexpr size_t N_LOADERS = 4;
/// Bytes that came with others and that nobody has asked for yet. The ordered stream is held for such
/// requests, so without a bound an image that is read all over would never be complete.
constexpr uint64 MAX_UNUSED = 32 << 20;
/// Stretches are fetched together where a round trip carries so much of one: so many round trips' worth, and
/// never more than the last. See countTogether().
constexpr double MIN_IN_TRIP = 0.5, TRIPS_TOGETHER = 4., MAX_TOGETHER = 8.;
/// A stream that has made no progress for two round trips, and at least for so long, reaches no stretch soon.
constexpr int64 MIN_PATIENCE_NS = 100'000'000;

} // namespace

/// The end of a claim on a stretch that somebody waits for.
class ZqRemoteImage::Demand {
public:
    Demand(ZqRemoteImage* image_, uint64 stretchIdx_) : image(image_), stretchIdx(stretchIdx_) {}
    ~Demand() {
        SxMutexBlock lock(&image->mutex);
        image->demanded.extract(stretchIdx);
    }
    Demand(const Demand&) = delete;
    Demand& operator=(const Demand&) = delete;

private:
    ZqRemoteImage* const image;
    const uint64 stretchIdx;
};

ZqRemoteImage::ZqRemoteImage(const SxPtr<ZqNetLink>& link_, const SxString& folderUrl, uint64 sizeZqf_,
                             const SxArray<SxString>& headers, uint64 maxKept_, const SxString& digest_)
    : plain(SxPtr<ZqRemoteFile>::create(link_, ZqRemoteFile::urlIn(folderUrl, "img.zqf"), headers, sizeZqf_)),
      packed(SxPtr<ZqRemoteFile>::create(link_, ZqRemoteFile::urlIn(folderUrl, "img.zqf.zst"), headers)),
      sizeZqf(sizeZqf_),
      maxKept(maxKept_),
      digest(digest_),
      tableLoader(std::make_unique<TableLoader>(this)),
      aheadLoaders(N_LOADERS) {
    packed->getFacts()->allowAbsence();
    for (auto& loader : aheadLoaders)
        loader = std::make_unique<AheadLoader>(this);
}

ZqRemoteImage::~ZqRemoteImage() {
    tableLoader->stop();
    for (const auto& loader : aheadLoaders)
        loader->stop();
    {
        // Who has looked for a stop and not found it waits by now.
        SxMutexBlock lock(&mutex);
    }
    changed.notify_all();
    tableLoader->wait();
    for (const auto& loader : aheadLoaders)
        loader->wait();
    if (storer) storer->stop();
    { SxMutexBlock lock(&mutex); }
    changed.notify_all();
    if (storer) storer->wait();
    // What is left lets go of its claims, which takes the mutex.
    std::map<uint64, SxPtr<Fetch>> untaken;
    std::deque<SxPtr<Fetch>> unloaded;
    SxMutexBlock lock(&mutex);
    untaken.swap(announced);
    unloaded.swap(following);
}

void ZqRemoteImage::setHeaders(const SxArray<SxString>& headers) {
    plain->setHeaders(headers);
    packed->setHeaders(headers);
}

void ZqRemoteImage::setSameTest(const ZqFileFacts::SameTest& test) {
    plain->getFacts()->setSameTest(test);
    packed->getFacts()->setSameTest(test);
}

void ZqRemoteImage::doubtServer() {
    plain->getFacts()->doubtFirst();
    packed->getFacts()->doubtFirst();
}

void ZqRemoteImage::requireRanges(const ZqStopTest& stop) {
    if (!plain->getFacts()->mayLackRanges()) return;
    // Beside the stream, which brings what a start waits for.
    ZqRangeReader reader(*plain, sizeZqf - 1, sizeZqf, ZqTransfer::Kind::Ahead);
    reader.setTries(1);
    char last = 0;
    try {
        plain->finish(&reader, 1, &last, stop);
    } catch (const SxException& e) {
        // A server that is away tells nothing, and the stream waits for it.
        if (!e.hasTag(ZqNetLink::UNREACHABLE) && !e.hasTag(ZqNetLink::BROKEN)) throw;
    }
}

void ZqRemoteImage::forgetServer() {
    plain->getFacts()->forget();
    packed->getFacts()->forget();
    forgetAbsence();
}

ZqRemoteImage::Figures ZqRemoteImage::getFigures() const {
    SxMutexBlock lock(&mutex);
    Figures now = figures;
    now.isPacked = state == Packed::Offered;
    if (store) now.nStored = std::min((kept.size() - nInMemory + inBoth.size()) * STRETCH, sizeZqf);
    return now;
}

uint64 ZqRemoteImage::stretchSize(uint64 stretchIdx) const {
    return std::min(STRETCH, sizeZqf - stretchIdx * STRETCH);
}

void ZqRemoteImage::checkRange(uint64 offset, uint64 size) const {
    if (offset <= sizeZqf && size <= sizeZqf - offset) return;
    throw SxException("Bytes " + SxString(offset) + "-" + SxString(offset + size - 1) + " of '" +
                          ZqUrlText::of(getUrl()) + "' lie beyond its end at " + SxString(sizeZqf),
                      UNIT, __LINE__);
}

// Ranges

void ZqRemoteImage::announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes) {
    openTable();
    std::map<uint64, SxPtr<Fetch>> group, unwanted;
    std::vector<uint64> missing;
    for (int64 i = 0; i < std::min(offsets.getSize(), sizes.getSize()); ++i) {
        checkRange(offsets(i), sizes(i));
        if (sizes(i) == 0) continue;
        for (uint64 idx = offsets(i) / STRETCH; idx <= (offsets(i) + sizes(i) - 1) / STRETCH; ++idx) {
            if (static_cast<int64>(group.size()) < GROUP) group[idx] = nullptr;
        }
    }
    {
        SxMutexBlock lock(&mutex);
        unwanted.swap(announced);
        for (auto& [idx, fetch] : group) {
            const auto old = unwanted.find(idx);
            if (old != unwanted.end()) {
                fetch = old->second;
                unwanted.erase(old);
            } else if (ahead.contains(idx)) {
                handOver(&unwanted, idx);
            } else if (!isKept(idx) && !isReachedSoon(idx)) {
                missing.push_back(idx);
            }
        }
    }
    // Several stretches fill the link by themselves, so none of them brings others with it.
    for (const uint64 idx : missing)
        group[idx] = beginDemand(idx, missing.size() > 1);
    SxMutexBlock lock(&mutex);
    for (auto& [idx, fetch] : group) {
        // One of another group goes with this group, after the lock.
        if (fetch) std::swap(announced[idx], fetch);
    }
}

void ZqRemoteImage::read(uint64 offset, uint64 size, char* buffer, const ZqStopTest& stop) {
    checkRange(offset, size);
    openTable();
    const uint64 end = offset + size;
    while (offset < end) {
        const uint64 idx = offset / STRETCH, inside = offset % STRETCH;
        const Bytes bytes = getStretch(idx, stop);
        try {
            follow(idx);
        } catch (const SxException& e) {
            // What is there is good; whoever needs the others asks for them, and is told.
            zqLogMsg("NET", e.toString(SxException::ShowMessage, ": "));
        }
        const uint64 n = std::min(end - offset, stretchSize(idx) - inside);
        std::memcpy(buffer, bytes->data() + inside, n);
        buffer += n;
        offset += n;
    }
}

ZqRemoteImage::Bytes ZqRemoteImage::getStretch(uint64 stretchIdx, const ZqStopTest& stop) {
    SxPtr<Fetch> fetch;
    bool isLeft = false;
    for (;;) {
        if (Bytes bytes = awaitAhead(stretchIdx, stop)) {
            noteUse(stretchIdx);
            return bytes;
        }
        SxMutexBlock lock(&mutex);
        if (ahead.contains(stretchIdx) || kept.contains(stretchIdx)) continue;
        if (Bytes bytes = findStretch(stretchIdx)) return bytes;
        const auto found = announced.find(stretchIdx);
        if (found != announced.end()) {
            fetch = found->second;
            announced.erase(found);
        } else {
            isLeft = isReachedSoon(stretchIdx);
        }
        demanded.insert(stretchIdx);
        break;
    }
    const Demand demand(this, stretchIdx);
    if (isLeft) {
        if (Bytes bytes = awaitStream(stretchIdx, stop)) return bytes;
    }
    if (!fetch) fetch = beginDemand(stretchIdx, false);
    Bytes bytes = takeNext(fetch.getPtr(), stop);
    passOn(fetch);
    keep(stretchIdx, bytes, fetch->wireSize(stretchIdx), fetch->isChecked, &Figures::nOnDemand);
    return bytes;
}

double ZqRemoteImage::tripBytes(double nTrips) const {
    const ZqNetLink::Figures link = getLink()->getFigures();
    return link.rate * static_cast<double>(link.roundTripUs) / 1e6 * nTrips;
}

int64 ZqRemoteImage::patienceNs() const {
    return std::max(MIN_PATIENCE_NS, getLink()->getFigures().roundTripUs * 2'000);
}

bool ZqRemoteImage::isReachedSoon(uint64 stretchIdx) const {
    const uint64 begin = stretchIdx * STRETCH;
    if (!streaming || begin + stretchSize(stretchIdx) <= streamPos) return false;
    if (SxClock::get().steadyNs() - streamMovedNs > patienceNs()) return false;
    if (begin <= streamPos) return true;
    return static_cast<double>(begin - streamPos) * wireShare <= tripBytes(1);
}

ZqRemoteImage::Bytes ZqRemoteImage::awaitStream(uint64 stretchIdx, const ZqStopTest& stop) {
    for (;;) {
        getLink()->checkStop(stop);
        SxMutexBlock lock(&mutex);
        if (Bytes bytes = findStretch(stretchIdx)) {
            figures.nLeft += stretchSize(stretchIdx);
            return bytes;
        }
        if (!isReachedSoon(stretchIdx)) return nullptr;
        getLink()->hastenStreams();
        changed.wait_for(mutex, LOOK);
    }
}

SxPtr<ZqRemoteImage::Fetch> ZqRemoteImage::beginDemand(uint64 stretchIdx, bool isAlone) {
    auto fetch = SxPtr<Fetch>::create(this, stretchIdx);
    const uint64 n = isAlone ? 1 : countTogether();
    const bool isSure = isGoneThrough(stretchIdx);
    if (n > 1 && (isSure || isFollowerOfUse())) {
        claimFollowing(fetch.getPtr(), stretchIdx + 1, n - 1);
        if (!isSure && fetch->endIdx > stretchIdx + 1) noteTry();
    }
    begin(fetch.getPtr(), ZqTransfer::Kind::OnDemand);
    return fetch;
}

void ZqRemoteImage::begin(Fetch* fetch, ZqTransfer::Kind kind) {
    fetch->table = getTable();
    const uint64 lastIdx = fetch->endIdx - 1;
    bool isDistrusted = fetch->isAgain;
    {
        SxMutexBlock lock(&mutex);
        isDistrusted = isDistrusted || distrusted.contains(fetch->nextIdx);
    }
    const auto offsetOf = [&](uint64 idx) {
        return fetch->table ? fetch->table->getFrame(idx).offset : idx * STRETCH;
    };
    // Of several only the first is waited for, so the request must be one that can be held.
    const bool isAlone = fetch->claimedIdx == fetch->endIdx;
    fetch->reader = SxPtr<ZqRangeReader>::create(fetch->table ? *packed : *plain, offsetOf(fetch->nextIdx),
                                                 offsetOf(lastIdx) + fetch->wireSize(lastIdx),
                                                 isAlone ? kind : ZqTransfer::Kind::Ahead);
    if (isDistrusted) fetch->reader->setFresh();
    // Where somebody waits one request that is silent to its end is enough: it lasts longer than this turn.
    if (fetch->table) fetch->reader->beginTurn(TURN_TRIES, getLink()->getSettings().stallMs / 2);
    // One that came wrong may have been mixed of two packed forms.
    if (!fetch->isAgain && canCheck(fetch->table)) fetch->reader->setChecked();
    fetch->reader->begin();
    if (kind == ZqTransfer::Kind::OnDemand) fetch->reader->hasten();
    SxMutexBlock lock(&mutex);
    for (uint64 idx = fetch->claimedIdx; idx < fetch->endIdx; ++idx)
        ahead[idx] = fetch->reader;
}

void ZqRemoteImage::passOn(const SxPtr<Fetch>& fetch) {
    if (fetch->nextIdx < fetch->endIdx) {
        SxMutexBlock lock(&mutex);
        following.push_back(fetch);
    }
    changed.notify_all();
}

ZqRemoteImage::Bytes ZqRemoteImage::takeNext(Fetch* fetch, const ZqStopTest& stop) {
    const uint64 idx = fetch->nextIdx, size = fetch->wireSize(idx);
    const bool isLast = idx + 1 == fetch->endIdx;
    const SxString& url = (fetch->table ? packed : plain)->getUrl();
    auto raw = Bytes::create(static_cast<int64>(size));
    try {
        const uint64 n = fetch->reader->read(raw->data(), size, stop);
        if (isLast) fetch->reader->readAll(nullptr, 0, stop);
        if (n != size) throw SxException("It ends before", UNIT, __LINE__);
    } catch (const SxException& e) {
        SxException failure(e, "Cannot fetch stretch " + SxString(idx) + " from '" + ZqUrlText::of(url) + "'",
                            UNIT, __LINE__);
        const bool mayTurn = fetch->table && leavePackedFor(failure);
        if (!fetch->table) (void)returnToPacked(&failure);
        if (!mayTurn) throw SxException(failure);
        begin(fetch, ZqTransfer::Kind::OnDemand);
        return takeNext(fetch, stop);
    }
    if (!fetch->table) notePlainCame();
    ++fetch->nextIdx;
    if (!isLast) fetch->reader->relax();
    try {
        if (fetch->table) {
            Bytes bytes = decode(idx, raw->data(), size);
            fetch->isChecked = true;
            return bytes;
        }
        fetch->isChecked = checkPlain(idx, *raw, stop);
        return raw;
    } catch (const SxException& e) {
        if (!e.hasTag(ZqNetLink::WRONG)) throw;
        const SxString what = nameOf(idx, fetch->table.getPtr() != nullptr);
        const SxException damage(e, what, UNIT, __LINE__);
        // The plain form may be right; where that is wrong as well, nothing else is left.
        if (fetch->isAgain && !fetch->table) throw SxException(damage);
        if (fetch->isAgain) leavePacked(damage);
        if (!fetch->isAgain) zqLogMsg("NET", what + ": " + e.toString(SxException::ShowMessage, ": "));
    }
    --fetch->nextIdx;
    return takeAgain(fetch, stop);
}

/// The stretch that comes next, by a request of its own, of the plain form where the packed one was left.
ZqRemoteImage::Bytes ZqRemoteImage::takeAgain(Fetch* fetch, const ZqStopTest& stop) {
    Fetch again(this, fetch->nextIdx);
    again.isAgain = true;
    begin(&again, ZqTransfer::Kind::OnDemand);
    Bytes bytes = takeNext(&again, stop);
    fetch->isChecked = again.isChecked;
    ++fetch->nextIdx;
    return bytes;
}

// What follows

bool ZqRemoteImage::isGoneThrough(uint64 stretchIdx) const {
    SxMutexBlock lock(&mutex);
    return (stretchIdx >= 1 && isThere(stretchIdx - 1)) || (stretchIdx >= 2 && isThere(stretchIdx - 2));
}

bool ZqRemoteImage::isThere(uint64 stretchIdx) const {
    return (stretchIdx + 1) * STRETCH <= streamPos || isKept(stretchIdx);
}

uint64 ZqRemoteImage::countTogether() const {
    const double trip = getLink()->getFigures().tripBytes;
    const SxPtr<ZqSeekTable> known = getTable();
    const uint64 lastIdx = ZqSeekTable::countFrames(sizeZqf) - 1;
    const double nWire =
        known ? static_cast<double>(known->getFrame(lastIdx).offset + known->getFrame(lastIdx).size)
              : static_cast<double>(sizeZqf);
    const double inTrip = trip / nWire * static_cast<double>(lastIdx + 1);
    if (inTrip < MIN_IN_TRIP) return 1;
    return static_cast<uint64>(std::clamp(inTrip * TRIPS_TOGETHER, 2., MAX_TOGETHER));
}

bool ZqRemoteImage::isFollowerOfUse() const {
    SxMutexBlock lock(&mutex);
    return nTogetherLeft > 0;
}

void ZqRemoteImage::noteTry() {
    SxMutexBlock lock(&mutex);
    if (nTogetherLeft > 0) --nTogetherLeft;
}

void ZqRemoteImage::noteUse(uint64 stretchIdx) {
    SxMutexBlock lock(&mutex);
    if (unused.erase(stretchIdx) > 0) nTogetherLeft = std::min(nTogetherLeft + 2, 2 * FIRST_TOGETHER);
}

void ZqRemoteImage::follow(uint64 stretchIdx) {
    const uint64 n = countTogether();
    if (n < 2 || !isGoneThrough(stretchIdx)) return;
    uint64 first = stretchIdx + 1;
    {
        SxMutexBlock lock(&mutex);
        while (first <= stretchIdx + n && (isThere(first) || ahead.contains(first)))
            ++first;
    }
    if (first > stretchIdx + 1 + n / 2) return;
    const auto fetch = SxPtr<Fetch>::create(this, first);
    fetch->endIdx = first;
    claimFollowing(fetch.getPtr(), first, n);
    if (fetch->endIdx == first) return;
    begin(fetch.getPtr(), ZqTransfer::Kind::Ahead);
    passOn(fetch);
}

void ZqRemoteImage::claimFollowing(Fetch* fetch, uint64 first, uint64 n) {
    const uint64 end = std::min(first + n, ZqSeekTable::countFrames(sizeZqf));
    SxMutexBlock lock(&mutex);
    for (uint64 idx = first; idx < end; ++idx) {
        const bool isPassed = idx * STRETCH < streamPos;
        const bool hasRoom = (nInMemory - inBoth.size() + ahead.size() + 1) * STRETCH <= maxKept &&
                             (unused.size() + ahead.size() + 1) * STRETCH <= MAX_UNUSED;
        if (isPassed || !hasRoom || isKept(idx) || announced.contains(idx) || demanded.contains(idx) ||
            isReachedSoon(idx) || !ahead.try_emplace(idx).second) {
            return;
        }
        fetch->endIdx = idx + 1;
        if (idx == first) fetch->claimedIdx = first;
    }
}

void ZqRemoteImage::forgetAhead(uint64 stretchIdx) noexcept {
    {
        SxMutexBlock lock(&mutex);
        ahead.erase(stretchIdx);
    }
    changed.notify_all();
}

SxPtr<ZqRemoteImage::Fetch> ZqRemoteImage::takeFollowing() {
    SxMutexBlock lock(&mutex);
    if (following.empty()) changed.wait_for(mutex, LOADER_LOOK);
    if (following.empty()) return nullptr;
    SxPtr<Fetch> fetch = following.front();
    following.pop_front();
    return fetch;
}

void ZqRemoteImage::handOver(std::map<uint64, SxPtr<Fetch>>* fetches, uint64 stretchIdx) {
    for (auto at = fetches->begin(); at != fetches->end(); ++at) {
        const SxPtr<Fetch> fetch = at->second;
        if (stretchIdx < fetch->claimedIdx || stretchIdx >= fetch->endIdx) continue;
        fetch->claimedIdx = fetch->nextIdx;
        ahead[fetch->nextIdx] = fetch->reader;
        following.push_back(fetch);
        fetches->erase(at);
        changed.notify_all();
        return;
    }
}

void ZqRemoteImage::takeUpTo(Fetch* fetch, uint64 endIdx, const ZqStopTest& stop) {
    while (fetch->nextIdx < endIdx) {
        const uint64 idx = fetch->nextIdx;
        const Bytes bytes = takeNext(fetch, stop);
        keep(idx, bytes, fetch->wireSize(idx), fetch->isChecked, &Figures::nAhead);
        ++fetch->claimedIdx;
        forgetAhead(idx);
    }
}

SxPtr<ZqRemoteImage::Fetch> ZqRemoteImage::takeFollowing(uint64 stretchIdx) {
    for (auto at = following.begin(); at != following.end(); ++at) {
        SxPtr<Fetch> fetch = *at;
        if (stretchIdx < fetch->nextIdx || stretchIdx >= fetch->endIdx) continue;
        following.erase(at);
        return fetch;
    }
    return nullptr;
}

ZqRemoteImage::Bytes ZqRemoteImage::awaitAhead(uint64 stretchIdx, const ZqStopTest& stop) {
    for (;;) {
        getLink()->checkStop(stop);
        if (Bytes bytes = getKept(stretchIdx)) return bytes;
        SxPtr<Fetch> fetch;
        {
            SxMutexBlock lock(&mutex);
            if (kept.contains(stretchIdx)) continue;
            if (Bytes bytes = findStretch(stretchIdx)) return bytes;
            const auto found = ahead.find(stretchIdx);
            if (found == ahead.end()) return nullptr;
            // From now on somebody waits for it.
            if (found->second) found->second->hasten();
            handOver(&announced, stretchIdx);
            fetch = takeFollowing(stretchIdx);
            if (!fetch) changed.wait_for(mutex, LOOK);
        }
        if (!fetch) continue;
        // The loaders may all have others, which are held now.
        try {
            takeUpTo(fetch.getPtr(), stretchIdx + 1, stop);
            passOn(fetch);
        } catch (const SxException& e) {
            if (e.hasTag(SxException::STOPPED)) throw;
            zqLogMsg("NET", e.toString(SxException::ShowMessage, ": "));
        }
    }
}
