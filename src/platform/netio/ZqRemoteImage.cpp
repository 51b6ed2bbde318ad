#include "ZqRemoteImage.h"

#include "SxClock.h"
#include "ZqFrameDecoder.h"
#include "ZqImageAheadLoader.h"
#include "ZqImageFetch.h"
#include "ZqImageTableLoader.h"
#include "ZqLog.h"
#include "ZqPackedForm.h"

#include <chrono>
#include <cstring>
#include <vector>

namespace {

constexpr const char* UNIT = "src/platform/netio/ZqRemoteImage";
constexpr auto LOOK = std::chrono::milliseconds(20);
constexpr int64 MIN_PATIENCE_NS = 100'000'000;

SxString fileUrl(const SxString& folderUrl, const char* name) {
    return folderUrl.endsWith("/") ? folderUrl + name : folderUrl + "/" + name;
}

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
    : plain(SxPtr<ZqRemoteFile>::create(link_, fileUrl(folderUrl, "img.zqf"), headers, sizeZqf_)),
      packed(SxPtr<ZqRemoteFile>::create(link_, fileUrl(folderUrl, "img.zqf.zst"), headers)),
      sizeZqf(sizeZqf_),
      maxKept(maxKept_),
      digest(digest_),
      tableLoader(std::make_unique<TableLoader>(this)),
      aheadLoader(std::make_unique<AheadLoader>(this)) {
}

ZqRemoteImage::~ZqRemoteImage() {
    tableLoader->stop();
    aheadLoader->stop();
    tableLoader->wait();
    aheadLoader->wait();
}

void ZqRemoteImage::setHeaders(const SxArray<SxString>& headers) {
    plain->setHeaders(headers);
    packed->setHeaders(headers);
}

ZqRemoteImage::Figures ZqRemoteImage::getFigures() const {
    SxMutexBlock lock(&mutex);
    Figures now = figures;
    now.isPacked = state == Packed::Offered;
    return now;
}

uint64 ZqRemoteImage::stretchSize(uint64 stretchIdx) const {
    return std::min(STRETCH, sizeZqf - stretchIdx * STRETCH);
}

void ZqRemoteImage::checkRange(uint64 offset, uint64 size) const {
    if (offset <= sizeZqf && size <= sizeZqf - offset) return;
    throw SxException("Bytes " + SxString(offset) + "-" + SxString(offset + size - 1) + " of '" + getUrl() +
                          "' lie behind its end at " + SxString(sizeZqf),
                      UNIT, __LINE__);
}

// The seek table

void ZqRemoteImage::openTable() {
    {
        SxMutexBlock lock(&mutex);
        if (tableBegun) return;
        tableBegun = true;
    }
    tableLoader->start();
    aheadLoader->start();
}

void ZqRemoteImage::setTable(const SxPtr<ZqSeekTable>& table_, Packed state_) {
    {
        SxMutexBlock lock(&mutex);
        table = table_;
        state = state_;
    }
    changed.notify_all();
}

void ZqRemoteImage::setTableFailure(const SxException& e) {
    {
        SxMutexBlock lock(&mutex);
        tableFailure = e;
        tableFailed = true;
    }
    changed.notify_all();
}

bool ZqRemoteImage::isOfThisImage(const char* bytes, int64 n) const {
    const std::string known = ZqPackedForm::origin(digest);
    if (digest.isEmpty() || n < ZqPackedForm::HEADER_SIZE ||
        std::memcmp(bytes, known.data(), ZqPackedForm::HEADER_SIZE) != 0) {
        return true;
    }
    return n >= ZqPackedForm::ORIGIN_SIZE && std::memcmp(bytes, known.data(), known.size()) == 0;
}

void ZqRemoteImage::refusePacked() {
    zqLogMsg("NET",
             "'" + packed->getUrl().makeVisible() + "' was packed of another img.zqf; it is left aside");
    setTable(nullptr, Packed::Absent);
}

SxPtr<ZqSeekTable> ZqRemoteImage::getTable() const {
    SxMutexBlock lock(&mutex);
    if (tableFailed) throw tableFailure;
    return table;
}

ZqRemoteImage::Packed ZqRemoteImage::getState() const {
    SxMutexBlock lock(&mutex);
    return state;
}

ZqRemoteImage::Bytes ZqRemoteImage::decode(uint64 stretchIdx, const char* frame, uint64 n) const {
    const auto size = static_cast<int64>(stretchSize(stretchIdx));
    auto bytes = Bytes::create(size);
    const uint32 checksum = ZqFrameDecoder::decode(frame, static_cast<int64>(n), bytes->data(), size);
    const SxPtr<ZqSeekTable> known = getTable();
    if (known && known->hasChecksums() && known->getFrame(stretchIdx).checksum != checksum) {
        throw SxException("Its bytes aren't those of the seek table's checksum", UNIT, __LINE__);
    }
    return bytes;
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
            } else if (!findStretch(idx) && !ahead.contains(idx) && !isReachedSoon(idx)) {
                missing.push_back(idx);
            }
        }
    }
    for (const uint64 idx : missing)
        group[idx] = beginFetch(idx);
    SxMutexBlock lock(&mutex);
    for (auto& [idx, fetch] : group) {
        if (fetch) announced[idx] = std::move(fetch);
    }
}

void ZqRemoteImage::read(uint64 offset, uint64 size, char* buffer, const ZqStopTest& stop) {
    checkRange(offset, size);
    openTable();
    const uint64 end = offset + size;
    while (offset < end) {
        const uint64 idx = offset / STRETCH, inside = offset % STRETCH;
        const Bytes bytes = getStretch(idx, stop);
        const uint64 nAtOnce = countAtOnce();
        if (nAtOnce > 1 && isGoneThrough(idx)) aheadLoader->follow(idx, nAtOnce);
        const uint64 n = std::min(end - offset, stretchSize(idx) - inside);
        std::memcpy(buffer, bytes->data() + inside, n);
        buffer += n;
        offset += n;
    }
}

ZqRemoteImage::Bytes ZqRemoteImage::findStretch(uint64 stretchIdx) const {
    const auto found = kept.find(stretchIdx);
    if (found != kept.end()) return found->second;
    for (const auto& [idx, bytes] : recent) {
        if (idx == stretchIdx) return bytes;
    }
    return nullptr;
}

ZqRemoteImage::Bytes ZqRemoteImage::getStretch(uint64 stretchIdx, const ZqStopTest& stop) {
    if (Bytes bytes = awaitAhead(stretchIdx, stop)) return bytes;
    SxPtr<Fetch> fetch;
    bool isLeft = false;
    {
        SxMutexBlock lock(&mutex);
        if (Bytes bytes = findStretch(stretchIdx)) return bytes;
        const auto found = announced.find(stretchIdx);
        if (found != announced.end()) {
            fetch = found->second;
            announced.erase(found);
        } else {
            isLeft = isReachedSoon(stretchIdx);
        }
        demanded.insert(stretchIdx);
    }
    const Demand demand(this, stretchIdx);
    if (isLeft) {
        if (Bytes bytes = awaitStream(stretchIdx, stop)) return bytes;
    }
    if (!fetch) fetch = beginFetch(stretchIdx);
    Bytes bytes = finishFetch(std::move(fetch), stop);
    keep(stretchIdx, bytes, &Figures::nOnDemand);
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
        changed.wait_for(mutex, LOOK);
    }
}

SxPtr<ZqRemoteImage::Fetch> ZqRemoteImage::beginFetch(uint64 stretchIdx, ZqTransfer::Kind kind) {
    const SxPtr<ZqSeekTable> known = getTable();
    auto fetch = SxPtr<Fetch>::create();
    fetch->stretchIdx = stretchIdx;
    fetch->isPacked = static_cast<bool>(known);
    fetch->size = known ? known->getFrame(stretchIdx).size : stretchSize(stretchIdx);
    const uint64 offset = known ? known->getFrame(stretchIdx).offset : stretchIdx * STRETCH;
    fetch->reader =
        std::make_unique<ZqRangeReader>(known ? *packed : *plain, offset, offset + fetch->size, kind);
    fetch->reader->begin();
    return fetch;
}

ZqRemoteImage::Bytes ZqRemoteImage::finishFetch(SxPtr<Fetch> fetch, const ZqStopTest& stop) {
    const uint64 idx = fetch->stretchIdx;
    const SxString& url = (fetch->isPacked ? packed : plain)->getUrl();
    bool isAgain = false;
    for (;;) {
        auto raw = Bytes::create(static_cast<int64>(fetch->size));
        try {
            if (fetch->reader->readAll(raw->data(), fetch->size, stop) != fetch->size) {
                throw SxException("It ends before", UNIT, __LINE__);
            }
        } catch (const SxException& e) {
            throw SxException(e,
                              "Cannot fetch stretch " + SxString(idx) + " from '" + url.makeVisible() + "'",
                              UNIT, __LINE__);
        }
        if (!fetch->isPacked) return raw;
        try {
            return decode(idx, raw->data(), fetch->size);
        } catch (const SxException& e) {
            const SxString what = "Frame " + SxString(idx) + " of '" + url.makeVisible() + "' is damaged";
            if (isAgain) throw SxException(e, what, UNIT, __LINE__);
            zqLogMsg("NET", what + ": " + e.toString(SxException::ShowMessage, ": "));
        }
        isAgain = true;
        fetch = beginFetch(idx);
    }
}

void ZqRemoteImage::keep(uint64 stretchIdx, const Bytes& bytes, uint64 Figures::*figure) {
    SxMutexBlock lock(&mutex);
    figures.*figure += stretchSize(stretchIdx);
    if (stretchIdx * STRETCH < streamPos || (kept.size() + 1) * STRETCH > maxKept) return;
    kept[stretchIdx] = bytes;
}

// What follows

bool ZqRemoteImage::isGoneThrough(uint64 stretchIdx) const {
    SxMutexBlock lock(&mutex);
    return (stretchIdx >= 1 && isThere(stretchIdx - 1)) || (stretchIdx >= 2 && isThere(stretchIdx - 2));
}

bool ZqRemoteImage::isThere(uint64 stretchIdx) const {
    return (stretchIdx + 1) * STRETCH <= streamPos || findStretch(stretchIdx);
}

uint64 ZqRemoteImage::countAtOnce() const {
    const double trip = getLink()->getFigures().tripBytes;
    SxMutexBlock lock(&mutex);
    return 1 + static_cast<uint64>(std::min(trip / wireShare / static_cast<double>(STRETCH) + 0.5, 3.));
}

bool ZqRemoteImage::claimAhead(uint64 stretchIdx) {
    SxMutexBlock lock(&mutex);
    const bool isPassed = stretchIdx * STRETCH < streamPos;
    const bool hasRoom = (kept.size() + 1) * STRETCH <= maxKept;
    if (isPassed || !hasRoom || findStretch(stretchIdx) || announced.contains(stretchIdx) ||
        demanded.contains(stretchIdx) || isReachedSoon(stretchIdx)) {
        return false;
    }
    return ahead.try_emplace(stretchIdx).second;
}

void ZqRemoteImage::noteAhead(const SxPtr<Fetch>& fetch) {
    SxMutexBlock lock(&mutex);
    ahead[fetch->stretchIdx] = fetch;
}

void ZqRemoteImage::forgetAhead(uint64 stretchIdx) {
    {
        SxMutexBlock lock(&mutex);
        ahead.erase(stretchIdx);
    }
    changed.notify_all();
}

ZqRemoteImage::Bytes ZqRemoteImage::awaitAhead(uint64 stretchIdx, const ZqStopTest& stop) {
    for (;;) {
        getLink()->checkStop(stop);
        SxMutexBlock lock(&mutex);
        if (Bytes bytes = findStretch(stretchIdx)) return bytes;
        const auto found = ahead.find(stretchIdx);
        if (found == ahead.end()) return nullptr;
        // From now on somebody waits for it.
        if (found->second) found->second->reader->hasten();
        changed.wait_for(mutex, LOOK);
    }
}
