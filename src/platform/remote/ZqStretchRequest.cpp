#include "ZqStretchRequest.h"

#include "ZqLog.h"
#include "ZqRangeReader.h"
#include "ZqUrlText.h"

namespace {
constexpr const char* UNIT = "src/platform/remote/ZqStretchRequest";
} // namespace

void ZqStretchRequest::extend(uint64 endIdx_) {
    endIdx = endIdx_;
    isHeld = true;
}

uint64 ZqStretchRequest::wireSize(uint64 stretchIdx) const {
    return table ? table->getFrame(stretchIdx).size : forms->getLayout().sizeOf(stretchIdx);
}

SxPtr<ZqRangeReader> ZqStretchRequest::makeReader(ZqTransfer::Kind kind) const {
    const uint64 lastIdx = endIdx - 1;
    const auto offsetOf = [&](uint64 idx) {
        return table ? table->getFrame(idx).offset : idx * ZqStretchLayout::STRETCH;
    };
    return SxPtr<ZqRangeReader>::create(table ? forms->getPacked() : forms->getPlain(), offsetOf(nextIdx),
                                        offsetOf(lastIdx) + wireSize(lastIdx), kind);
}

void ZqStretchRequest::begin(ZqTransfer::Kind kind) {
    table = forms->getChoice().getTable();
    SxPtr<ZqRangeReader> next = makeReader(isHeld ? ZqTransfer::Kind::Ahead : kind);
    if (isAgain || forms->isDistrusted(nextIdx)) next->setFresh();
    // Where somebody waits one request that is silent to its end is enough: it lasts longer than this turn.
    if (table) next->beginTurn(ZqImageForms::TURN_TRIES, forms->getLink()->getSettings().stallMs / 2);
    // Whether it is sure to be compared with checksums.
    const Table known = table ? table : forms->getChoice().getKnownTable();
    // One that came wrong may have been mixed of two packed forms.
    if (!isAgain && known && known->hasChecksums()) next->setChecked();
    next->begin();
    if (kind == ZqTransfer::Kind::OnDemand) next->hasten();
    // The old one ends after the lock.
    SxMutexBlock lock(&mutex);
    std::swap(reader, next);
}

SxPtr<ZqRangeReader> ZqStretchRequest::getReader() const {
    SxMutexBlock lock(&mutex);
    return reader;
}

void ZqStretchRequest::hasten() const {
    const SxPtr<ZqRangeReader> now = getReader();
    if (now) now->hasten();
}

SxPtr<SxArray<char>> ZqStretchRequest::receive(const ZqStopTest& stop) {
    for (;;) {
        const SxPtr<ZqRangeReader> from = getReader();
        const uint64 size = wireSize(nextIdx);
        const bool isLast = nextIdx + 1 == endIdx;
        const SxString& url = (table ? forms->getPacked() : forms->getPlain()).getUrl();
        auto raw = Bytes::create(static_cast<int64>(size));
        try {
            const uint64 n = from->read(raw->data(), size, stop);
            if (isLast) from->readAll(nullptr, 0, stop);
            if (n != size) throw SxException("It ends before", UNIT, __LINE__);
            if (!table) forms->getChoice().notePlainCame();
            if (!isLast) from->relax();
            return raw;
        } catch (const SxException& e) {
            SxException failure(
                e, "Cannot fetch stretch " + SxString(nextIdx) + " from '" + ZqUrlText::of(url) + "'", UNIT,
                __LINE__);
            const bool mayTurn = table && forms->getChoice().leaveFor(failure);
            if (!table) (void)forms->getChoice().returnToPacked(&failure);
            if (!mayTurn) throw SxException(failure);
        }
        begin(ZqTransfer::Kind::OnDemand);
    }
}

ZqStretchRequest::Bytes ZqStretchRequest::check(uint64 stretchIdx, const Bytes& raw, const ZqStopTest& stop) {
    if (!table) {
        checkedBy = forms->checkPlain(stretchIdx, *raw, stop);
        return raw;
    }
    const Table known = forms->getChoice().getKnownTable();
    Bytes bytes = forms->decode(stretchIdx, raw->data(), static_cast<uint64>(raw->getSize()), known);
    checkedBy = known;
    return bytes;
}

ZqStretchRequest::Bytes ZqStretchRequest::takeNext(const ZqStopTest& stop) {
    const Bytes raw = receive(stop);
    const uint64 idx = nextIdx++;
    try {
        return check(idx, raw, stop);
    } catch (const SxException& e) {
        if (!e.hasTag(ZqNetLink::WRONG)) throw;
        const SxString what = forms->nameOf(idx, static_cast<bool>(table));
        const SxException damage(e, what, UNIT, __LINE__);
        // The plain form may be right; where that is wrong as well, nothing else is left.
        if (isAgain && !table) throw SxException(damage);
        if (isAgain) forms->getChoice().leave(damage);
        if (!isAgain) zqLogMsg("NET", what + ": " + e.toString(SxException::ShowMessage, ": "));
    }
    --nextIdx;
    return takeAgain(stop);
}

ZqStretchRequest::Bytes ZqStretchRequest::takeAgain(const ZqStopTest& stop) {
    ZqStretchRequest again(forms, nextIdx);
    again.isAgain = true;
    again.begin(ZqTransfer::Kind::OnDemand);
    Bytes bytes = again.takeNext(stop);
    checkedBy = again.checkedBy;
    ++nextIdx;
    return bytes;
}
