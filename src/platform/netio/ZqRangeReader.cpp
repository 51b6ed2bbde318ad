#include "ZqRangeReader.h"

#include <cstring>

namespace {

constexpr const char* UNIT = "src/platform/netio/ZqRangeReader";
constexpr uint64 UNKNOWN = ZqRemoteFile::UNKNOWN;
/// Tag: a request behind the end of a file whose size wasn't known.
constexpr const char* AT_END = "AtEnd";

SxString rangeText(uint64 first, uint64 end) {
    return SxString(first) + "-" + (end == UNKNOWN ? SxString() : SxString(end - 1));
}

} // namespace

ZqRangeReader::ZqRangeReader(const ZqRemoteFile& file, uint64 first, uint64 end_, ZqTransfer::Kind kind_)
    : link(file.getLink()),
      facts(file.getFacts()),
      requested(kind_),
      kind(kind_),
      pos(first),
      end(end_),
      retry(link, kind_ == ZqTransfer::Kind::Ordered ? link->getSettings().nStreamTries
                                                     : link->getSettings().nRangeTries) {
}

ZqRangeReader::~ZqRangeReader() {
    abandon();
}

void ZqRangeReader::abandon() {
    if (transfer && !transfer->isFinished()) link->drop(transfer);
    setTransfer(nullptr);
}

ZqTransfer::Request ZqRangeReader::makeRequest() const {
    const ZqFileFacts::Address address = facts->getAddress();
    ZqTransfer::Request request;
    request.kind = requested;
    request.url = address.url;
    request.headers = address.headers;
    request.fresh = fresh;
    if (fresh) request.headers.append("Cache-Control: no-cache");
    request.range = rangeText(pos, end);
    request.maxBuffered = requested == ZqTransfer::Kind::Ordered ? link->getSettings().maxBuffered
                                                                 : std::numeric_limits<int64>::max();
    request.check = [file = facts, answer_ = answer, first = pos,
                     end_ = end](const ZqTransfer::Response& response) {
        const auto total = static_cast<uint64>(response.total);
        if (response.status == 416 && response.total >= 0 && end_ == UNKNOWN && first >= total) {
            file->learn(response);
            throw SxException(AT_END, "The file ends there", UNIT, __LINE__);
        }
        file->checkStatus(response, 206);
        if (response.first < 0 || (response.total < 0 && end_ == UNKNOWN)) {
            throw SxException(ZqNetLink::WRONG, "The server doesn't say which bytes it sends", UNIT,
                              __LINE__);
        }
        const uint64 fileEnd = response.total < 0 ? end_ : total;
        const uint64 wanted = first;
        const uint64 wantedEnd = std::min(end_, fileEnd);
        file->learn(response);
        if (static_cast<uint64>(response.first) != wanted ||
            static_cast<uint64>(response.last) + 1 != wantedEnd) {
            throw SxException(
                ZqNetLink::WRONG,
                "The server was asked for bytes " + rangeText(wanted, wantedEnd) + " and sends " +
                    rangeText(static_cast<uint64>(response.first), static_cast<uint64>(response.last) + 1),
                UNIT, __LINE__);
        }
        if (response.length >= 0 && static_cast<uint64>(response.length) != wantedEnd - wanted) {
            throw SxException(ZqNetLink::WRONG,
                              "The server announces " + SxString(response.length) + " bytes for bytes " +
                                  rangeText(wanted, wantedEnd),
                              UNIT, __LINE__);
        }
        answer_->end.store(static_cast<int64>(wantedEnd));
    };
    return request;
}

void ZqRangeReader::begin() {
    if (transfer) return;
    answer = SxPtr<Answer>::create();
    setTransfer(SxPtr<ZqTransfer>::create(makeRequest()));
    link->add(transfer);
}

void ZqRangeReader::setTransfer(const SxPtr<ZqTransfer>& next) {
    const SxMutexBlock lock(&transferMutex);
    transfer = next;
    // It may have been hastened while there was none.
    if (transfer && kind != requested) transfer->become(kind);
}

void ZqRangeReader::become(ZqTransfer::Kind other) {
    const SxMutexBlock lock(&transferMutex);
    if (kind == other) return;
    kind = other;
    if (transfer) transfer->become(kind);
}

/// False at the end of all.
bool ZqRangeReader::takePiece(SxArray<char>* piece, const ZqStopTest& stop) {
    ZqTransfer::Next got = ZqTransfer::Next::Waiting;
    while (got == ZqTransfer::Next::Waiting) {
        link->checkStop(stop);
        got = transfer->next(piece);
    }
    end = static_cast<uint64>(answer->end.load());
    const uint64 n = got == ZqTransfer::Next::Taken ? static_cast<uint64>(piece->getSize()) : 0;
    if (n > end - pos)
        throw SxException(ZqNetLink::WRONG, "The server sends more than it was asked for", UNIT, __LINE__);
    pos += n;
    if (got == ZqTransfer::Next::Taken) return true;
    setTransfer(nullptr);
    if (pos < end) throw SxException(ZqNetLink::BROKEN, "the answer ended early", UNIT, __LINE__);
    return false;
}

bool ZqRangeReader::next(SxArray<char>* piece, const ZqStopTest& stop) {
    for (;;) {
        link->checkStop(stop);
        // A transfer that has brought its last byte still tells whether it ended well.
        if (pos >= end && !transfer) return false;
        try {
            begin();
            const bool got = takePiece(piece, stop);
            retry.progress();
            if (got) return true;
        } catch (const SxException& e) {
            abandon();
            if (e.hasTag(AT_END)) {
                end = pos;
                return false;
            }
            if (pos >= end) return false;
            retry.failed(e, stop);
        }
    }
}

uint64 ZqRangeReader::read(char* buffer, uint64 size, const ZqStopTest& stop) {
    uint64 n = 0;
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
    return n;
}

uint64 ZqRangeReader::readAll(char* buffer, uint64 size, const ZqStopTest& stop) {
    uint64 n = 0;
    SxArray<char> piece;
    while (next(&piece, stop)) {
        const auto nPiece = static_cast<uint64>(piece.getSize());
        if (nPiece > size - n)
            throw SxException(ZqNetLink::WRONG, "The server sends more than it was asked for", UNIT,
                              __LINE__);
        std::memcpy(buffer + n, piece.data(), nPiece);
        n += nPiece;
    }
    return n;
}
