#include "ZqRangeReader.h"

#include "SxClock.h"
#include "ZqNetProgress.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr const char* UNIT = "src/platform/net/ZqRangeReader";
constexpr int64 MS = 1'000'000;
constexpr uint64 UNKNOWN = ZqRemoteFile::UNKNOWN;
/// Tag: the answer is of another version than the bytes of the unit that were taken.
constexpr const char* ELSEWHERE = "Elsewhere";
/// Tag: the unit begins anew, in whatever version comes.
constexpr const char* ANEW = "Anew";

} // namespace

ZqRangeReader::ZqRangeReader(const ZqRemoteFile& file, uint64 first, uint64 end_, ZqTransfer::Kind kind_)
    : link(file.getLink()),
      facts(file.getFacts()),
      requested(kind_),
      pos(first),
      end(end_),
      furthest(first),
      retry(SxPtr<ZqNetRetry>::create(link, kind_ == ZqTransfer::Kind::Ordered
                                                ? link->getSettings().nStreamTries
                                                : link->getSettings().nRangeTries)),
      race(link, kind_, [this] { return makeTransfer(); }) {
}

ZqTransfer::Request ZqRangeReader::makeRequest() const {
    const ZqFileFacts::Address address = facts->getAddress();
    ZqTransfer::Request request;
    request.kind = requested;
    request.url = address.url;
    request.headers = address.headers;
    request.fresh = fresh;
    request.isRepeated = isRepeated;
    request.nSlow = nSlow;
    if (fresh) request.headers.append("Cache-Control: no-cache");
    // The whole file, as each record is, is asked for without a range, so that every cache serves it.
    if (pos > 0 || end != UNKNOWN) {
        request.range = SxString(pos) + "-" + (end == UNKNOWN ? SxString() : SxString(end - 1));
    }
    request.maxBuffered = requested == ZqTransfer::Kind::Ordered ? link->getSettings().maxBuffered
                                                                 : std::numeric_limits<int64>::max();
    return request;
}

/// A request for what is left, and what becomes of its answer.
ZqRacedTransfer::Made ZqRangeReader::makeTransfer() const {
    ZqTransfer::Request request = makeRequest();
    const auto made = SxPtr<ZqRangeAnswer>::create(facts, pos, end, request.url, isVouched);
    request.check = [made](const ZqTransfer::Response& response) { made->check(response); };
    request.part = made->getPart();
    return {SxPtr<ZqTransfer>::create(std::move(request)), made};
}

/// Raises where the answer doesn't go on with the unit.
void ZqRangeReader::noteVersion() {
    const int64 now = race.getAnswer().getVersion();
    if (inUnit && pos != unitBegin && now != version) {
        const SxException broken(ZqNetLink::BROKEN, "the file goes on in another version", UNIT, __LINE__);
        throw SxException(broken, "Another mirror answers", UNIT, __LINE__).tagged(ELSEWHERE);
    }
    version = now;
}

/// Mirrors may take turns, so the one that the unit was begun with is asked for once more; where it doesn't
/// answer the unit begins anew. Of three answers of another version the first is asked again, and the two
/// after it let the unit begin anew: with a plain change from one to the other, mirrors in a fixed order
/// could undo each step.
void ZqRangeReader::goElsewhere(const SxException& e, const ZqStopTest& stop) {
    const bool isAgain = nElsewhere % 3 == 0;
    if (++nElsewhere > 1) retry->failed(e, stop);
    if (!isAgain) throw SxException(ANEW, "The range begins anew", UNIT, __LINE__);
}

/// Where a request ends before all is there, the piece may be empty. False at the end of all.
bool ZqRangeReader::takePiece(SxArray<char>* piece, const ZqStopTest& stop) {
    const ZqTransfer::Next got = race.next(piece, stop);
    if (race.takeFresh()) noteVersion();
    isVouched = false;
    end = race.getAnswer().getWantedEnd();
    if (got == ZqTransfer::Next::Taken) {
        pos += static_cast<uint64>(piece->getSize());
        return true;
    }
    race.end();
    const uint64 takenEnd = race.getAnswer().getTakenEnd();
    if (takenEnd == UNKNOWN) end = pos;
    if (takenEnd != UNKNOWN && pos < takenEnd) {
        throw SxException(ZqNetLink::BROKEN, "the answer ended early", UNIT, __LINE__);
    }
    piece->removeAll();
    return pos < end;
}

/// One that was given up before it had been of use for as long as that took shows that a fresh connection
/// isn't better, so the next one has more time. What it brings shows that all is well only when it is an
/// amount.
void ZqRangeReader::noteSlow(const SxException& e) {
    if (!e.hasTag(ZqTransfer::SLOW)) return;
    const int64 limitNs = ZqNetProgress::getPatience(link->getSettings().stallMs * MS, nSlow);
    nSlow = SxClock::get().steadyNs() - race.getAskedNs() < 2 * limitNs ? nSlow + 1 : 1;
    gainedPos = pos + ZqNetProgress::USEFUL_BYTES;
}

/// Returns where the bytes may be asked for again.
void ZqRangeReader::recover(const SxException& e, const SxString& asked, const ZqStopTest& stop) {
    // What it was given for may have failed for any time.
    isVouched = false;
    noteSlow(e);
    if (e.hasTag(ELSEWHERE)) {
        goElsewhere(e, stop);
        return;
    }
    const bool isSilent = ZqNetLink::isAway(e);
    // The first address may lead elsewhere by now.
    if (isSilent) facts->leave(asked);
    if (e.hasTag(ZqTransfer::AT_ONCE)) {
        isRepeated = true;
        return;
    }
    if (!e.hasTag(ZqFileFacts::DOUBTFUL)) {
        retry->failed(e, stop);
        return;
    }
    try {
        isVouched = facts->settle(stop);
    } catch (const SxException& unsettled) {
        retry->failed(unsettled, stop);
    }
}

/// Bytes that have come before are none: where a unit is begun again and again the tries end, too.
void ZqRangeReader::noteProgress(bool isMore) {
    if ((pos <= furthest || pos < gainedPos) && isMore) return;
    furthest = std::max(furthest, pos);
    nElsewhere = 0;
    isRepeated = false;
    retry->progress();
}

bool ZqRangeReader::next(SxArray<char>* piece, const ZqStopTest& stop) {
    retry->beginWait();
    for (;;) {
        // It may hold bytes of an answer that was of no use after all.
        piece->removeAll();
        link->checkStop(stop);
        // A transfer that has brought its last byte still tells whether it ended well.
        if (pos >= end && !race.isUnderWay()) return false;
        SxString asked;
        try {
            race.begin();
            asked = race.getUrl();
            const bool got = takePiece(piece, stop);
            noteProgress(got);
            if (!got) return false;
            if (piece->getSize() > 0) return true;
        } catch (const SxException& e) {
            race.drop();
            if (e.hasTag(ZqRangeAnswer::AT_END)) {
                end = pos;
                return false;
            }
            if (pos >= end && !e.hasTag(ZqNetLink::WRONG)) return false;
            recover(e, asked, stop);
        }
    }
}

/// Nothing of the unit counts as taken: what was received of it, and waits to be given, is of no use.
void ZqRangeReader::rewind() {
    race.drop();
    rest.removeAll();
    nGiven = 0;
    pos = unitBegin;
}

/// Runs `take` for bytes that must be of one version, from the first on again where they were not, or where
/// it has failed and is called again.
template<class Take>
void ZqRangeReader::asUnit(Take take) {
    unitBegin = pos - static_cast<uint64>(rest.getSize() - nGiven);
    inUnit = !isChecked;
    for (bool isDone = false; !isDone;) {
        try {
            take();
            isDone = true;
        } catch (const SxException& e) {
            rewind();
            if (e.hasTag(ANEW)) continue;
            inUnit = false;
            throw;
        }
    }
    inUnit = false;
}

uint64 ZqRangeReader::read(char* buffer, uint64 size, const ZqStopTest& stop) {
    uint64 n = 0;
    asUnit([&] {
        n = 0;
        while (n < size) {
            if (nGiven == rest.getSize()) {
                rest.removeAll();
                nGiven = 0;
                if (!next(&rest, stop)) break;
            }
            const uint64 nNext = std::min(size - n, static_cast<uint64>(rest.getSize() - nGiven));
            std::memcpy(buffer + n, rest.data() + nGiven, nNext);
            nGiven += static_cast<int64>(nNext);
            n += nNext;
        }
    });
    return n;
}

uint64 ZqRangeReader::readAll(char* buffer, uint64 size, const ZqStopTest& stop) {
    uint64 n = 0;
    takeAll([&] { n = 0; },
            [&](const SxArray<char>& piece) {
                const auto nPiece = static_cast<uint64>(piece.getSize());
                if (nPiece > size - n) {
                    throw SxException(ZqNetLink::WRONG, "The server sends more than it was asked for", UNIT,
                                      __LINE__);
                }
                std::memcpy(buffer + n, piece.data(), nPiece);
                n += nPiece;
            },
            stop);
    return n;
}

void ZqRangeReader::takeAll(const std::function<void()>& atBegin,
                            const std::function<void(const SxArray<char>&)>& take, const ZqStopTest& stop) {
    SxArray<char> piece;
    asUnit([&] {
        atBegin();
        while (next(&piece, stop))
            take(piece);
    });
}
