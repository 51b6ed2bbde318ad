#include "ZqImageTableLoader.h"

#include "ZqLog.h"
#include "ZqPackedForm.h"
#include "ZqRangeReader.h"

#include <cstring>

namespace {
constexpr const char* UNIT = "src/platform/netio/ZqImageTableLoader";
}

void ZqRemoteImage::TableLoader::main() {
    const ZqStopTest stop = [this] { return stopping.load(); };
    for (;;) {
        try {
            load();
            return;
        } catch (const SxException& e) {
            if (e.hasTag(SxException::STOPPED)) return;
            if (e.hasTag(ZqNetLink::NOT_FOUND)) {
                image->setTable(nullptr, Packed::Absent);
                return;
            }
            // Whether a server that breaks off its answers is waited for is the stream's affair.
            if (!e.hasTag(ZqNetLink::UNREACHABLE) && !e.hasTag(ZqNetLink::BROKEN)) {
                image->setTableFailure(SxException(
                    e, "Cannot use '" + image->packed->getUrl().makeVisible() + "'", UNIT, __LINE__));
                return;
            }
            zqLogMsg("NET", "The seek table has to wait: " + e.toString(SxException::ShowMessage, ": "));
        }
        try {
            image->getLink()->sleep(image->getLink()->getSettings().maxBackOffMs, stop);
        } catch (const SxException&) {
            return;
        }
    }
}

SxArray<char> ZqRemoteImage::TableLoader::fetchTail(uint64 maxTail) {
    ZqRangeReader reader(*image->packed, maxTail, ZqTransfer::Kind::Small);
    const ZqStopTest stop = [this] { return stopping.load(); };
    SxArray<char> tail, piece;
    while (reader.next(&piece, stop)) {
        const int64 old = tail.getSize();
        tail.resize(old + piece.getSize(), true);
        std::memcpy(tail.data() + old, piece.data(), static_cast<size_t>(piece.getSize()));
    }
    return tail;
}

void ZqRemoteImage::TableLoader::load() {
    ZqRangeReader origin(*image->packed, 0, ZqPackedForm::ORIGIN_SIZE, ZqTransfer::Kind::Small);
    origin.begin();
    const SxArray<char> tail = fetchTail(ZqSeekTable::maxTail(image->sizeZqf));
    SxArray<char> front(ZqPackedForm::ORIGIN_SIZE);
    const uint64 n = origin.readAll(front.data(), static_cast<uint64>(front.getSize()),
                                    [this] { return stopping.load(); });
    if (!image->isOfThisImage(front.data(), static_cast<int64>(n))) {
        image->refusePacked();
        return;
    }
    image->setTable(SxPtr<ZqSeekTable>::create(tail.data(), static_cast<uint64>(tail.getSize()),
                                               image->packed->getSize(), image->sizeZqf),
                    Packed::Offered);
}
