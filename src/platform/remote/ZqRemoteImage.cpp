#include "ZqRemoteImage.h"

#include "ZqImageStream.h"
#include "ZqLog.h"
#include "ZqUrlText.h"

namespace {
constexpr const char* UNIT = "src/platform/remote/ZqRemoteImage";
} // namespace

// Each part has a lock of its own, and no thread holds two of them at once. Where a stretch goes from one
// part to another it is in both for a moment, and never in neither: what a request brings is kept before its
// claim ends (ZqStretchClaims), and what the stream brings is held before the stream moves on (ZqStreamEdge).

ZqRemoteImage::ZqRemoteImage(const SxPtr<ZqNetLink>& link, const SxString& folderUrl, uint64 sizeZqf,
                             const SxArray<SxString>& headers, uint64 maxKept, const SxString& digest)
    : cache(ZqStretchLayout(sizeZqf), maxKept, MAX_HELD,
            [this](uint64 stretchIdx) {
                zqLogMsg("NET", forms.nameOf(stretchIdx, false) +
                                    ", as the seek table has told since; it is fetched again");
                forms.distrust(stretchIdx);
            }),
      forms(link, folderUrl, sizeZqf, headers, digest, [this] { cache.dropStreamed(); }),
      edge(link, forms.getLayout()),
      ranges(&forms, &cache, &edge, &counts) {
}

ZqRemoteImage::Figures ZqRemoteImage::getFigures() const {
    Figures now = counts.get();
    now.isPacked = forms.getChoice().getState() == ZqFormChoice::Packed::Offered;
    now.nStored = cache.getStored();
    return now;
}

uint64 ZqRemoteImage::wireSize(uint64 from, uint64 to) const {
    to = std::min(to, getSize());
    if (from >= to) return 0;
    const uint64 firstIdx = from / STRETCH, endIdx = (to + STRETCH - 1) / STRETCH;
    // What of a stretch lies in the range.
    const auto share = [&](uint64 idx) {
        const uint64 begin = std::max(from, idx * STRETCH), end = std::min(to, forms.getLayout().endOf(idx));
        return static_cast<double>(end - begin) / static_cast<double>(forms.getLayout().sizeOf(idx));
    };
    double size = 0;
    std::function<double(uint64 idx)> sizeOf;
    const ZqFormChoice& choice = forms.getChoice();
    const ZqFormChoice::Table table = choice.getTable();
    if (table) {
        sizeOf = [&](uint64 idx) { return share(idx) * table->getFrame(idx).size; };
        const ZqSeekTable::Frame &first = table->getFrame(firstIdx), &last = table->getFrame(endIdx - 1);
        size = sizeOf(firstIdx);
        if (endIdx - firstIdx > 1)
            size += static_cast<double>(last.offset - first.offset - first.size) + sizeOf(endIdx - 1);
    } else {
        const double ratio = choice.getState() == ZqFormChoice::Packed::Offered ? packedShare() : 1;
        sizeOf = [&, ratio](uint64 idx) {
            return ratio * share(idx) * static_cast<double>(forms.getLayout().sizeOf(idx));
        };
        size = ratio * static_cast<double>(to - from);
    }
    cache.visitKept(firstIdx, endIdx, [&](uint64 idx) { size -= sizeOf(idx); });
    return static_cast<uint64>(std::max(size, 0.0));
}

/// Bytes of the wire for each of the image, as they have come so far.
double ZqRemoteImage::packedShare() const {
    const auto nStreamed = static_cast<double>(counts.get().nStreamed);
    const ZqNetFigures link = getLink()->getFigures();
    const auto nWire = static_cast<double>(link.nBytes - std::min(link.nBytes, link.nOnDemandBytes));
    return nStreamed > 0 ? std::min(nWire / nStreamed, 1.0) : 1;
}

void ZqRemoteImage::open() {
    if (forms.open()) ranges.start();
}

void ZqRemoteImage::checkRange(uint64 offset, uint64 size) const {
    if (offset <= getSize() && size <= getSize() - offset) return;
    throw SxException("Bytes " + SxString(offset) + "-" + SxString(offset + size - 1) + " of '" +
                          ZqUrlText::of(getUrl()) + "' lie beyond its end at " + SxString(getSize()),
                      UNIT, __LINE__);
}

SxArray<uint64> ZqRemoteImage::announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes,
                                        const SxArray<uint64>& likely) {
    open();
    for (int64 i = 0; i < std::min(offsets.getSize(), sizes.getSize()); ++i)
        checkRange(offsets(i), sizes(i));
    return ranges.announce(offsets, sizes, likely);
}

void ZqRemoteImage::read(uint64 offset, uint64 size, char* buffer, const ZqStopTest& stop) {
    checkRange(offset, size);
    open();
    ranges.read(offset, size, buffer, stop);
}

void ZqRemoteImage::forget(uint64 offset, uint64 size) {
    checkRange(offset, size);
    const uint64 first = offset / STRETCH, end = ZqSeekTable::countFrames(offset + size);
    // First, so that whoever finds nothing kept asks past caches.
    for (uint64 idx = first; idx < end; ++idx)
        forms.distrust(idx);
    cache.forget(first, end);
}

SxPtr<ZqSeekTable> ZqRemoteImage::awaitTable(const ZqStopTest& stop) {
    open();
    forms.getChoice().forgetAbsence();
    return forms.getChoice().awaitTable(stop);
}

SxPtr<SxArray<char>> ZqRemoteImage::fetchAnew(uint64 stretchIdx, const ZqStopTest& stop) {
    checkRange(stretchIdx * STRETCH, forms.getLayout().sizeOf(stretchIdx));
    open();
    return ZqStretchRequest(&forms, stretchIdx).takeAgain(stop);
}

bool ZqRemoteImage::stream(uint64 offset, const Sink& sink, const ZqStopTest& stop) {
    checkRange(offset, 0);
    open();
    return ZqImageStream(&forms, &cache, &edge, &ranges, &counts, offset, sink, stop).run();
}
