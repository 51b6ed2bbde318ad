#include "ZqImageStream.h"

#include "ZqFrameDecoder.h"
#include "ZqLog.h"
#include "ZqPackedForm.h"
#include "ZqRangeReader.h"
#include "ZqUrlText.h"

#include <cmath>
#include <cstring>

namespace {

constexpr const char* UNIT = "src/platform/remote/ZqImageStream";
constexpr uint64 STRETCH = ZqStretchLayout::STRETCH;
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

/// What one form is asked for. Notes what has come of it, also what nobody has taken by its end.
class ZqImageStream::Request {
public:
    Request(ZqImageStream* stream_, bool isPacked_, uint64 first, uint64 end)
        : stream(stream_),
          isPacked(isPacked_),
          counted(first),
          reader(isPacked ? stream->forms->getPacked() : stream->forms->getPlain(), first, end,
                 ZqTransfer::Kind::Ordered) {
        if (stream->isSuspect(stream->stretchIdx())) reader.setFresh();
        // Both forms take turns.
        reader.setRetry(stream->retry);
    }
    ~Request() { note(reader.getReceived()); }
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    bool next(SxArray<char>* piece) {
        const bool isMore = reader.next(piece, stream->stop);
        note(reader.getPos());
        return isMore;
    }

private:
    void note(uint64 to) {
        stream->counts->add(&ZqImageFigures::nTwice, stream->edge->noteReceived(isPacked, counted, to));
        counted = to;
    }

    ZqImageStream* const stream;
    const bool isPacked;
    uint64 counted; ///< up to there it is noted
    ZqRangeReader reader;
};

ZqImageStream::ZqImageStream(ZqImageForms* forms_, ZqStretchCache* cache_, ZqStreamEdge* edge_,
                             ZqImageRanges* ranges_, ZqImageCounts* counts_, uint64 offset, const Sink& sink_,
                             const ZqStopTest& stop_)
    : forms(forms_),
      choice(forms->getChoice()),
      cache(cache_),
      edge(edge_),
      ranges(ranges_),
      counts(counts_),
      sink(sink_),
      stop(stop_),
      pos(offset),
      retry(SxPtr<ZqNetRetry>::create(forms->getLink(), forms->getLink()->getSettings().nStreamTries)) {
    if (!edge->begin(offset)) {
        throw SxException("'" + ZqUrlText::of(forms->getPlain().getUrl()) + "' is being downloaded already",
                          UNIT, __LINE__);
    }
    cache->beginStream(offset);
}

ZqImageStream::~ZqImageStream() {
    edge->end();
}

bool ZqImageStream::run() {
    while (pos < sizeZqf()) {
        forms->getLink()->checkStop(stop);
        // It may be kept, or be about to be.
        const Bytes bytes = ranges->awaitClaimed(stretchIdx(), stop);
        // The first frame stands at the file's begin, and each is followed by the next.
        const bool isPlaced = wireIdx == stretchIdx();
        if (bytes) {
            const uint64 inside = pos % STRETCH, n = forms->getLayout().sizeOf(stretchIdx()) - inside;
            publish(stretchIdx(), bytes, 0);
            counts->add(&ZqImageFigures::nTakenKept, n);
            if (!deliver(bytes->data() + inside, n)) return false;
        } else if (!(choice.awaitPacked(isPlaced, stop) ? runPacked() : runPlain())) {
            return false;
        }
    }
    return true;
}

bool ZqImageStream::runPlain() {
    assembled = nullptr;
    awaitsTable = choice.getState() == ZqFormChoice::Packed::Unknown;
    // A stretch is checked as a whole. Where `img.zqf` ends in the middle of one, all of it is fetched and
    // checked, and its rest handed on. The begin that the file has is the business of the image's digest.
    received = choice.mayCheck() ? stretchIdx() * STRETCH : pos;
    Request request(this, false, received, std::min(endOfRequest() * STRETCH, sizeZqf()));
    // Where the packed form is, or may come, it has its turn.
    retry->beginTurn(choice.getState() == ZqFormChoice::Packed::Absent ? 0 : ZqImageForms::TURN_TRIES,
                     turnMs());
    SxArray<char> piece;
    bool isEnding = false;
    while (!isEnding) {
        try {
            if (!request.next(&piece)) return true;
        } catch (const SxException& e) {
            recoverPlain(e);
            return true;
        }
        choice.notePlainCame();
        if (!takePlain(piece, &isEnding)) return false;
    }
    return true;
}

/// Returns where the other form has its turn.
void ZqImageStream::recoverPlain(const SxException& e) {
    SxException failure(e, "Cannot download '" + ZqUrlText::of(forms->getPlain().getUrl()) + "'", UNIT,
                        __LINE__);
    const bool isTurned = choice.returnToPacked(&failure);
    if (!isTurned && !e.hasTag(ZqNetRetry::TURN_ENDED)) throw SxException(failure);
}

/// Takes bytes of the plain form, up to a kept stretch that is worth skipping, or a wrong one. They are
/// handed on by whole stretches where these can be checked. What was handed on before a late table came isn't
/// looked at again: the digest of the complete file tells of it, and ZqImageRepair mends it.
bool ZqImageStream::takePlain(const SxArray<char>& piece, bool* isEnding) {
    const char* bytes = piece.data();
    auto left = static_cast<uint64>(piece.getSize());
    const bool mayHold = choice.mayCheck();
    while (left > 0 && !*isEnding) {
        const uint64 idx = received / STRETCH, inside = received % STRETCH,
                     size = forms->getLayout().sizeOf(idx);
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
        if (!isWhole) edge->receive(received);
        if (received > pos && (isWhole || !(mayHold && assembled))) {
            const char* end = assembled ? assembled->data() + inside + n : bytes;
            if (!deliver(end - (received - pos), received - pos)) return false;
        }
        const bool mayChange = awaitsTable && choice.getTable();
        *isEnding = isWhole && pos < sizeZqf() && (mayChange || isWorthSkipping());
    }
    return true;
}

/// Whether the stretch that was assembled has the table's checksum, where one is known.
bool ZqImageStream::isRight(uint64 idx) {
    // What began inside of it was handed on as it came.
    if (!assembled) return true;
    try {
        forms->checkPlain(idx, *assembled, stop);
        return true;
    } catch (const SxException& e) {
        if (!e.hasTag(ZqNetLink::WRONG)) throw;
        noteDamage(e, false);
        return false;
    }
}

bool ZqImageStream::runPacked() {
    // One may come while the request lasts, which was made without it, and for one try only.
    const Table known = choice.getTable();
    try {
        return runFrames(known);
    } catch (const SxException& e) {
        const bool isKnown = choice.getState() == ZqFormChoice::Packed::Offered;
        if (e.hasTag(ZqNetLink::NOT_FOUND) && !isKnown) {
            choice.noteAbsent(e);
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
        if (!choice.leaveFor(e)) throw;
        damagedIdx = NOWHERE;
        return true;
    }
}

bool ZqImageStream::runFrames(const Table& known) {
    const uint64 first = stretchIdx(), end = endOfRequest();
    uint64 wireEnd = wirePos + (end - first) * STRETCH;
    if (known) {
        const ZqSeekTable::Frame& last = known->getFrame(end - 1);
        wireIdx = first;
        wirePos = known->getFrame(first).offset;
        wireEnd = last.offset + last.size;
    }
    Request request(this, true, wirePos, wireEnd);
    // The plain form may come where this one doesn't.
    retry->beginTurn(known ? ZqImageForms::TURN_TRIES : 1, turnMs());
    SxArray<char> pending;
    if (!known && wirePos == 0 && !skipOrigin(&request, &pending)) return true;
    while (stretchIdx() < end) {
        Bytes bytes;
        int64 n = 0;
        try {
            n = frameAt(pending, known);
            if (n > 0)
                bytes = forms->decode(stretchIdx(), pending.data(), static_cast<uint64>(n),
                                      choice.getKnownTable());
        } catch (const SxException& e) {
            noteDamage(e, true);
            return true;
        }
        if (bytes) {
            cutFront(&pending, n);
            if (!takeFrame(bytes, static_cast<uint64>(n))) return false;
            if (known && pos < sizeZqf() && isWorthSkipping()) return true;
        } else if (!fill(&request, &pending)) {
            // Without a table a request ends within a frame, but never within its first.
            if (stretchIdx() == first) noteDamage(SxException("It is cut short", UNIT, __LINE__), true);
            return true;
        }
    }
    return true;
}

/// Takes what the file says of its image off its front; false where that is another one.
bool ZqImageStream::skipOrigin(Request* request, SxArray<char>* pending) {
    while (pending->getSize() < ZqPackedForm::ORIGIN_SIZE) {
        if (!fill(request, pending)) break;
    }
    if (!forms->isOfThisImage(*pending)) {
        choice.refuse();
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
int64 ZqImageStream::frameAt(const SxArray<char>& pending, const Table& known) const {
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

bool ZqImageStream::fill(Request* request, SxArray<char>* pending) {
    SxArray<char> piece;
    try {
        if (!request->next(&piece)) return false;
    } catch (const SxException& e) {
        throw SxException(e, "Cannot download '" + ZqUrlText::of(forms->getPacked().getUrl()) + "'", UNIT,
                          __LINE__);
    }
    const int64 old = pending->getSize();
    pending->resize(old + piece.getSize(), true);
    std::memcpy(pending->data() + old, piece.data(), static_cast<size_t>(piece.getSize()));
    edge->noteMoved();
    return true;
}

bool ZqImageStream::takeFrame(const Bytes& bytes, uint64 nWire) {
    const uint64 inside = pos % STRETCH;
    publish(stretchIdx(), bytes, nWire);
    wireIdx = stretchIdx() + 1;
    wirePos += nWire;
    return deliver(bytes->data() + inside, static_cast<uint64>(bytes->getSize()) - inside);
}

/// A damaged stretch is fetched again once.
void ZqImageStream::noteDamage(const SxException& e, bool isFrame) {
    const uint64 idx = stretchIdx();
    const SxString text = forms->nameOf(idx, isFrame) + ": " + e.toString(SxException::ShowMessage, ": ");
    if (damagedIdx == idx) throw SxException(ZqNetLink::WRONG, text, UNIT, __LINE__);
    damagedIdx = idx;
    zqLogMsg("NET", text);
}

/// Whether it came wrong before.
bool ZqImageStream::isSuspect(uint64 idx) const {
    return damagedIdx == idx || forms->isDistrusted(idx);
}

/// The stretch at which the next request of the stream ends: after some time, or where a kept one begins.
uint64 ZqImageStream::endOfRequest() const {
    const double rate = forms->getLink()->getFigures().rate;
    const double nWire = std::max({static_cast<double>(forms->getLink()->getSettings().segmentSize),
                                   rate * SEGMENT_SECONDS, edge->tripBytes(SEGMENT_TRIPS)});
    const double skipped = edge->tripBytes(TRIPS_OF_REQUEST);
    const uint64 first = stretchIdx();
    const double perStretch = edge->getWireShare() * static_cast<double>(STRETCH);
    const uint64 nLeft = forms->getLayout().count() - first;
    const uint64 end =
        first + 1 + std::min(nLeft - 1, static_cast<uint64>(std::min(nWire / perStretch, 1e9)));
    const double nSkipped = std::ceil(std::min(skipped / perStretch, 1e9));
    return cache->findRun(first + 1, end, static_cast<uint64>(nSkipped));
}

bool ZqImageStream::isWorthSkipping() const {
    const double cost = edge->tripBytes(TRIPS_OF_BREAK);
    const uint64 n = cache->countRun(stretchIdx());
    return n > 0 && static_cast<double>(n * STRETCH) * edge->getWireShare() > cost;
}

/// The stretch is there; `nWire` bytes of the wire brought it, 0 where it had been kept.
void ZqImageStream::publish(uint64 idx, const Bytes& bytes, uint64 nWire) {
    if (nWire > 0) edge->noteShare(nWire, forms->getLayout().sizeOf(idx));
    forms->trustBefore(idx + 1);
    // It is to be found before the stream moves on.
    const bool wasKept = cache->takeStreamed(idx, bytes);
    if (wasKept && nWire > 0) counts->add(&ZqImageFigures::nTwice, nWire);
    edge->advance(forms->getLayout().endOf(idx));
    ranges->wake();
}

bool ZqImageStream::deliver(const char* bytes, uint64 n) {
    pos += n;
    counts->add(&ZqImageFigures::nStreamed, n);
    return sink(bytes, static_cast<int64>(n));
}
