#include "SxClock.h"
#include "ZqFrameDecoder.h"
#include "ZqLog.h"
#include "ZqPackedForm.h"
#include "ZqRangeReader.h"
#include "ZqRemoteImage.h"
#include "ZqUrlText.h"

#include <chrono>
#include <cstring>

namespace {

constexpr const char* UNIT = "src/platform/remote/ZqRemoteImageStream";
constexpr auto LOOK = std::chrono::milliseconds(20);
constexpr uint64 NOWHERE = ~uint64{0};
/// A request of the stream lasts so long, so that its round trip costs a hundredth at most.
constexpr double SEGMENT_SECONDS = 2., SEGMENT_TRIPS = 100.;
/// Round trips that it costs to break a request off and begin after a kept stretch: what is on the way is
/// lost, a connection made, the new request answered. Where a request ends anyway it is one. What is kept is
/// skipped where that costs less than to receive it once more. So on a link whose round trip carries more
/// than a stretch, single ones still come twice.
constexpr double TRIPS_OF_BREAK = 3., TRIPS_OF_REQUEST = 1.;

void cutFront(SxArray<char>* bytes, int64 n) {
    const int64 left = bytes->getSize() - n;
    std::memmove(bytes->data(), bytes->data() + n, static_cast<size_t>(left));
    bytes->resize(left, true);
}

} // namespace

/// One run of the ordered stream.
class ZqRemoteImage::StreamRun {
public:
    StreamRun(ZqRemoteImage* image_, uint64 offset, const Sink& sink_, const ZqStopTest& stop_);
    ~StreamRun();
    StreamRun(const StreamRun&) = delete;
    StreamRun& operator=(const StreamRun&) = delete;

    /// False where the sink ended it.
    bool run();

private:
    uint64 stretchIdx() const { return pos / STRETCH; }
    /// Longer than one request that is silent to its end: a single dead connection is no reason to turn to
    /// the other form.
    int64 turnMs() const { return image->getLink()->getSettings().stallMs * 3 / 2; }
    bool usesPacked();
    bool runPlain();
    void recoverPlain(const SxException& e);
    bool takePlain(const SxArray<char>& piece, bool* isEnding);
    bool isRight(uint64 idx);
    bool isSuspect(uint64 idx) const;
    bool mayCheck() const;
    bool runPacked();
    bool runFrames(const SxPtr<ZqSeekTable>& known);
    bool skipOrigin(ZqRangeReader* reader, SxArray<char>* pending);
    bool fill(ZqRangeReader* reader, SxArray<char>* pending);
    int64 frameAt(const SxArray<char>& pending, const SxPtr<ZqSeekTable>& known) const;
    bool takeFrame(const Bytes& bytes, uint64 nWire);
    void noteDamage(const SxException& e, bool isFrame);
    uint64 lengthOfKept(uint64 idx) const SX_REQUIRES(image->mutex);
    uint64 endOfRequest() const;
    bool isWorthSkipping() const;
    void advance(uint64 to);
    void publish(uint64 idx, const Bytes& bytes, uint64 nWire);
    bool deliver(const char* bytes, uint64 n);

    ZqRemoteImage* const image;
    const Sink& sink;
    const ZqStopTest& stop;
    uint64 pos;               ///< the decoded byte that the sink gets next
    uint64 received = 0;      ///< the byte of the plain form that comes next; before `pos` or beyond it
    bool awaitsTable = false; ///< the plain form is taken until the packed one can be
    Bytes assembled;          ///< the stretch at `received` so far, in the plain form; null without its begin
    uint64 wireIdx = 0, wirePos = 0; ///< a stretch, and where its frame begins
    uint64 damagedIdx = NOWHERE;     ///< the stretch that was damaged last, in either form
    const SxPtr<ZqNetRetry> retry;   ///< of both forms, which take turns where neither comes
};

bool ZqRemoteImage::stream(uint64 offset, const Sink& sink, const ZqStopTest& stop) {
    checkRange(offset, 0);
    openTable();
    return StreamRun(this, offset, sink, stop).run();
}

ZqRemoteImage::StreamRun::StreamRun(ZqRemoteImage* image_, uint64 offset, const Sink& sink_,
                                    const ZqStopTest& stop_)
    : image(image_),
      sink(sink_),
      stop(stop_),
      pos(offset),
      retry(SxPtr<ZqNetRetry>::create(image->getLink(), image->getLink()->getSettings().nStreamTries)) {
    SxMutexBlock lock(&image->mutex);
    if (image->streaming) {
        throw SxException("'" + ZqUrlText::of(image->getUrl()) + "' is being downloaded already", UNIT,
                          __LINE__);
    }
    image->streaming = true;
    image->streamPos = offset;
    image->streamMovedNs = SxClock::get().steadyNs();
}

ZqRemoteImage::StreamRun::~StreamRun() {
    SxMutexBlock lock(&image->mutex);
    image->streaming = false;
}

bool ZqRemoteImage::StreamRun::run() {
    while (pos < image->sizeZqf) {
        image->getLink()->checkStop(stop);
        // It may be kept, or be about to be.
        const Bytes bytes = image->awaitAhead(stretchIdx(), stop);
        if (bytes) {
            const uint64 inside = pos % STRETCH, n = image->stretchSize(stretchIdx()) - inside;
            publish(stretchIdx(), bytes, 0);
            {
                SxMutexBlock lock(&image->mutex);
                image->figures.nTakenKept += n;
            }
            if (!deliver(bytes->data() + inside, n)) return false;
        } else if (!(usesPacked() ? runPacked() : runPlain())) {
            return false;
        }
    }
    return true;
}

/// Whether the frame at the stream's position can be taken from the packed file. Waits for the table where
/// nothing else tells.
bool ZqRemoteImage::StreamRun::usesPacked() {
    for (;;) {
        image->getLink()->checkStop(stop);
        if (image->getTable()) return true;
        SxMutexBlock lock(&image->mutex);
        if (image->state == Packed::Absent || image->state == Packed::Aside) return false;
        // The first frame stands at the file's begin, and each frame is followed by the next.
        if (image->state == Packed::Unknown && wireIdx == stretchIdx()) return true;
        // A table that doesn't come holds up nobody.
        if (image->isTableSettled()) return false;
        image->changed.wait_for(image->mutex, LOOK);
    }
}

/// Whether there are checksums, or may still be.
bool ZqRemoteImage::StreamRun::mayCheck() const {
    SxMutexBlock lock(&image->mutex);
    return image->table ? image->table->hasChecksums() : !image->isTableSettled();
}

bool ZqRemoteImage::StreamRun::runPlain() {
    assembled = nullptr;
    awaitsTable = image->getState() == Packed::Unknown;
    // A stretch is checked as a whole. Where `img.zqf` ends in the middle of one, all of it is fetched and
    // checked, and its rest handed on. The begin that the file has is the business of the image's digest.
    received = mayCheck() ? stretchIdx() * STRETCH : pos;
    ZqRangeReader reader(*image->plain, received, std::min(endOfRequest() * STRETCH, image->sizeZqf),
                         ZqTransfer::Kind::Ordered);
    if (isSuspect(stretchIdx())) reader.setFresh();
    reader.setRetry(retry);
    // Where the packed form is, or may come, it has its turn.
    retry->beginTurn(image->getState() == Packed::Absent ? 0 : TURN_TRIES, turnMs());
    SxArray<char> piece;
    bool isEnding = false;
    while (!isEnding) {
        try {
            if (!reader.next(&piece, stop)) return true;
        } catch (const SxException& e) {
            recoverPlain(e);
            return true;
        }
        image->notePlainCame();
        if (!takePlain(piece, &isEnding)) return false;
    }
    return true;
}

/// Returns where the other form has its turn.
void ZqRemoteImage::StreamRun::recoverPlain(const SxException& e) {
    SxException failure(e, "Cannot download '" + ZqUrlText::of(image->getUrl()) + "'", UNIT, __LINE__);
    const bool isTurned = image->returnToPacked(&failure);
    if (!isTurned && !e.hasTag(ZqNetRetry::TURN_ENDED)) throw SxException(failure);
}

/// Takes bytes of the plain form, up to a kept stretch that is worth skipping, or a wrong one. They are
/// handed on by whole stretches where these can be checked. What was handed on before a late table came isn't
/// looked at again: the digest of the complete file tells of it, and ZqImageRepair mends it.
bool ZqRemoteImage::StreamRun::takePlain(const SxArray<char>& piece, bool* isEnding) {
    const char* bytes = piece.data();
    auto left = static_cast<uint64>(piece.getSize());
    const bool mayHold = mayCheck();
    while (left > 0 && !*isEnding) {
        const uint64 idx = received / STRETCH, inside = received % STRETCH, size = image->stretchSize(idx);
        const uint64 n = std::min(left, size - inside);
        if (inside == 0) assembled = Bytes::create(static_cast<int64>(size));
        if (assembled) std::memcpy(assembled->data() + inside, bytes, n);
        received += n;
        bytes += n;
        left -= n;
        const bool isWhole = inside + n == size;
        if (isWhole && !isRight(idx)) {
            *isEnding = true;
            return true;
        }
        if (isWhole) publish(idx, assembled, size);
        if (!isWhole) advance(received);
        if (received > pos && (isWhole || !(mayHold && assembled))) {
            const char* end = assembled ? assembled->data() + inside + n : bytes;
            if (!deliver(end - (received - pos), received - pos)) return false;
        }
        const bool mayChange = awaitsTable && image->getTable();
        *isEnding = isWhole && pos < image->sizeZqf && (mayChange || isWorthSkipping());
    }
    return true;
}

/// Whether the stretch that was assembled has the table's checksum, where one is known.
bool ZqRemoteImage::StreamRun::isRight(uint64 idx) {
    // What began inside of it was handed on as it came.
    if (!assembled) return true;
    try {
        image->checkPlain(idx, *assembled, stop);
        return true;
    } catch (const SxException& e) {
        if (!e.hasTag(ZqNetLink::WRONG)) throw;
        noteDamage(e, false);
        return false;
    }
}

bool ZqRemoteImage::StreamRun::runPacked() {
    // One may come while the request lasts, which was made without it, and for one try only.
    const SxPtr<ZqSeekTable> known = image->getTable();
    try {
        return runFrames(known);
    } catch (const SxException& e) {
        const bool isKnown = image->getState() == Packed::Offered;
        if (e.hasTag(ZqNetLink::NOT_FOUND) && !isKnown) {
            image->notePackedAbsent(e);
            return true;
        }
        const bool isAway = ZqNetLink::isAway(e);
        // Both forms have been tried as often as may be.
        if (isAway && !e.hasTag(ZqNetRetry::TURN_ENDED)) throw;
        if (isAway && !known) {
            // Nothing depends on this form. A table that comes later brings it back.
            wireIdx = NOWHERE;
            return true;
        }
        if (!image->leavePackedFor(e)) throw;
        damagedIdx = NOWHERE;
        return true;
    }
}

bool ZqRemoteImage::StreamRun::runFrames(const SxPtr<ZqSeekTable>& known) {
    const uint64 first = stretchIdx(), end = endOfRequest();
    uint64 wireEnd = wirePos + (end - first) * STRETCH;
    if (known) {
        const ZqSeekTable::Frame& last = known->getFrame(end - 1);
        wireIdx = first;
        wirePos = known->getFrame(first).offset;
        wireEnd = last.offset + last.size;
    }
    ZqRangeReader reader(*image->packed, wirePos, wireEnd, ZqTransfer::Kind::Ordered);
    if (isSuspect(first)) reader.setFresh();
    // The plain form may come where this one doesn't.
    reader.setRetry(retry);
    retry->beginTurn(known ? TURN_TRIES : 1, turnMs());
    SxArray<char> pending;
    if (!known && wirePos == 0 && !skipOrigin(&reader, &pending)) return true;
    while (stretchIdx() < end) {
        Bytes bytes;
        int64 n = 0;
        try {
            n = frameAt(pending, known);
            if (n > 0) bytes = image->decode(stretchIdx(), pending.data(), static_cast<uint64>(n));
        } catch (const SxException& e) {
            noteDamage(e, true);
            return true;
        }
        if (bytes) {
            cutFront(&pending, n);
            if (!takeFrame(bytes, static_cast<uint64>(n))) return false;
            if (known && pos < image->sizeZqf && isWorthSkipping()) return true;
        } else if (!fill(&reader, &pending)) {
            // Without a table a request ends within a frame, but never within its first.
            if (stretchIdx() == first) noteDamage(SxException("It is cut short", UNIT, __LINE__), true);
            return true;
        }
    }
    return true;
}

/// Takes what the file says of its image off its front; false where that is another one.
bool ZqRemoteImage::StreamRun::skipOrigin(ZqRangeReader* reader, SxArray<char>* pending) {
    while (pending->getSize() < ZqPackedForm::ORIGIN_SIZE) {
        if (!fill(reader, pending)) break;
    }
    if (!image->isOfThisImage(pending->data(), pending->getSize())) {
        image->refusePacked();
        return false;
    }
    uint32 magic = 0;
    if (pending->getSize() < ZqPackedForm::ORIGIN_SIZE) return true;
    std::memcpy(&magic, pending->data(), sizeof magic);
    if (magic != ZqPackedForm::ORIGIN_MAGIC) return true;
    cutFront(pending, ZqPackedForm::ORIGIN_SIZE);
    wirePos = ZqPackedForm::ORIGIN_SIZE;
    return true;
}

/// Bytes of the frame that `pending` begins with; 0 where it isn't all there.
int64 ZqRemoteImage::StreamRun::frameAt(const SxArray<char>& pending, const SxPtr<ZqSeekTable>& known) const {
    if (known) {
        const int64 n = known->getFrame(stretchIdx()).size;
        return pending.getSize() >= n ? n : 0;
    }
    const int64 n = ZqFrameDecoder::findSize(pending.data(), pending.getSize());
    if (n == 0 && pending.getSize() > static_cast<int64>(ZqSeekTable::MAX_PACKED)) {
        throw SxException("It has no end", UNIT, __LINE__);
    }
    return n;
}

bool ZqRemoteImage::StreamRun::fill(ZqRangeReader* reader, SxArray<char>* pending) {
    SxArray<char> piece;
    try {
        if (!reader->next(&piece, stop)) return false;
    } catch (const SxException& e) {
        throw SxException(e, "Cannot download '" + ZqUrlText::of(image->packed->getUrl()) + "'", UNIT,
                          __LINE__);
    }
    const int64 old = pending->getSize();
    pending->resize(old + piece.getSize(), true);
    std::memcpy(pending->data() + old, piece.data(), static_cast<size_t>(piece.getSize()));
    SxMutexBlock lock(&image->mutex);
    image->streamMovedNs = SxClock::get().steadyNs();
    return true;
}

bool ZqRemoteImage::StreamRun::takeFrame(const Bytes& bytes, uint64 nWire) {
    const uint64 inside = pos % STRETCH;
    publish(stretchIdx(), bytes, nWire);
    wireIdx = stretchIdx() + 1;
    wirePos += nWire;
    return deliver(bytes->data() + inside, static_cast<uint64>(bytes->getSize()) - inside);
}

/// A damaged stretch is fetched again once.
void ZqRemoteImage::StreamRun::noteDamage(const SxException& e, bool isFrame) {
    const uint64 idx = stretchIdx();
    const SxString text = image->nameOf(idx, isFrame) + ": " + e.toString(SxException::ShowMessage, ": ");
    if (damagedIdx == idx) throw SxException(ZqNetLink::WRONG, text, UNIT, __LINE__);
    damagedIdx = idx;
    zqLogMsg("NET", text);
}

/// Whether it came wrong before.
bool ZqRemoteImage::StreamRun::isSuspect(uint64 idx) const {
    SxMutexBlock lock(&image->mutex);
    return damagedIdx == idx || image->distrusted.contains(idx);
}

uint64 ZqRemoteImage::StreamRun::lengthOfKept(uint64 idx) const {
    uint64 n = 0;
    for (auto at = image->kept.find(idx); at != image->kept.end() && at->first == idx + n; ++at)
        ++n;
    return n;
}

/// The stretch at which the next request of the stream ends: after some time, or where a kept one begins.
uint64 ZqRemoteImage::StreamRun::endOfRequest() const {
    const double rate = image->getLink()->getFigures().rate;
    const double nWire = std::max({static_cast<double>(image->getLink()->getSettings().segmentSize),
                                   rate * SEGMENT_SECONDS, image->tripBytes(SEGMENT_TRIPS)});
    const double skipped = image->tripBytes(TRIPS_OF_REQUEST);
    const uint64 first = stretchIdx();
    SxMutexBlock lock(&image->mutex);
    const double nStretches = nWire / image->wireShare / static_cast<double>(STRETCH);
    const uint64 nLeft = ZqSeekTable::countFrames(image->sizeZqf) - first;
    const uint64 end = first + 1 + std::min(nLeft - 1, static_cast<uint64>(std::min(nStretches, 1e9)));
    auto at = image->kept.upper_bound(first);
    while (at != image->kept.end() && at->first < end) {
        const uint64 n = lengthOfKept(at->first);
        if (static_cast<double>(n * STRETCH) * image->wireShare >= skipped) return at->first;
        std::advance(at, n);
    }
    return end;
}

bool ZqRemoteImage::StreamRun::isWorthSkipping() const {
    const double cost = image->tripBytes(TRIPS_OF_BREAK);
    SxMutexBlock lock(&image->mutex);
    const uint64 n = lengthOfKept(stretchIdx());
    return n > 0 && static_cast<double>(n * STRETCH) * image->wireShare > cost;
}

void ZqRemoteImage::StreamRun::advance(uint64 to) {
    SxMutexBlock lock(&image->mutex);
    image->streamPos = to;
    image->streamMovedNs = SxClock::get().steadyNs();
}

/// The stretch is there; `nWire` bytes of the wire brought it, 0 where it had been kept.
void ZqRemoteImage::StreamRun::publish(uint64 idx, const Bytes& bytes, uint64 nWire) {
    const uint64 size = image->stretchSize(idx);
    {
        SxMutexBlock lock(&image->mutex);
        if (nWire > 0) {
            if (image->kept.contains(idx)) image->figures.nTwice += nWire;
            image->wireShare =
                0.9 * image->wireShare + 0.1 * static_cast<double>(nWire) / static_cast<double>(size);
        }
        image->dropKept(0, idx + 1);
        image->distrusted.erase(image->distrusted.begin(), image->distrusted.upper_bound(idx));
        image->recent.remove_if([&](const auto& entry) { return entry.first == idx; });
        if (bytes) image->recent.emplace_front(idx, bytes);
        image->shedRecent();
        image->streamPos = idx * STRETCH + size;
        image->streamMovedNs = SxClock::get().steadyNs();
    }
    image->changed.notify_all();
}

bool ZqRemoteImage::StreamRun::deliver(const char* bytes, uint64 n) {
    pos += n;
    {
        SxMutexBlock lock(&image->mutex);
        image->figures.nStreamed += n;
    }
    return sink(bytes, static_cast<int64>(n));
}
