#include "ZqImageTableLoader.h"

#include "ZqLog.h"
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
            if (!e.hasTag(ZqNetLink::UNREACHABLE)) {
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
    const SxArray<char> tail = fetchTail(ZqSeekTable::maxTail(image->sizeZqf));
    image->setTable(SxPtr<ZqSeekTable>::create(tail.data(), static_cast<uint64>(tail.getSize()),
                                               image->packed->getSize(), image->sizeZqf),
                    Packed::Offered);
}
