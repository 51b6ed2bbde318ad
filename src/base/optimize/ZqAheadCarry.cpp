#include "ZqAheadCarry.h"

#include "ZqBlocks.h"
#include "ZqImageFiles.h"
#include "ZqLog.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint64 BLOCK = ZqBlocks::SIZE;
constexpr uint64 PER_STRETCH = ZqBlocks::STRETCH / BLOCK;

SxString keyOf(const ZqAppParams& app) {
    return ZqStretchStore::keyOf(app.checksumZqf, app.checksumIdx, app.checksumMnt);
}

} // namespace

ZqAheadCarry::ZqAheadCarry(const SxString& image, const ZqAppParams& oldApp,
                           const std::vector<ZqMovePlan::Position>& source_)
    : source(source_),
      zqf(image + ZqImageFiles::ZQF, "rb"),
      nInFile(static_cast<uint64>(zqf.getSize()) / BLOCK),
      nInImage(oldApp.sizeZqf / BLOCK),
      kept(source.size() / PER_STRETCH + 1) {
    const SxString key = keyOf(oldApp);
    if (key.isEmpty() || oldApp.sizeZqf == 0) return;
    try {
        old = ZqStretchStore::openToRead(image, key, oldApp.sizeZqf, ZqBlocks::STRETCH);
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqAheadCarry: " + e.toString(SxException::ShowMessage, ": "));
    }
    if (!old) return;
    for (const uint64 stretch : old->list())
        if (stretch < kept.size()) kept[stretch] = true;
}

bool ZqAheadCarry::isThere(ZqMovePlan::Position from) const {
    return from != ZqMovePlan::NONE && (from < nInFile || (from < nInImage && kept[from / PER_STRETCH]));
}

uint64 ZqAheadCarry::countThere() const {
    return static_cast<uint64>(std::count_if(source.begin(), source.end(),
                                             [&](ZqMovePlan::Position from) { return isThere(from); }));
}

bool ZqAheadCarry::read(ZqMovePlan::Position from, char* to) {
    if (from < nInFile) {
        zqf.seek(static_cast<int64>(from * BLOCK));
        return zqf.readBuffer(to, BLOCK) == BLOCK;
    }
    const uint64 stretch = from / PER_STRETCH;
    if (!last || lastIdx != stretch) {
        last = old->read(stretch);
        lastIdx = stretch;
    }
    // What a power cut has torn counts as absent.
    if (!last) return false;
    std::memcpy(to, last->data() + from % PER_STRETCH * BLOCK, BLOCK);
    return true;
}

bool ZqAheadCarry::isWhole(uint64 first, uint64 end) const {
    for (uint64 block = first; block < end; ++block) {
        if (!isThere(source[block])) return false;
    }
    return true;
}

uint64 ZqAheadCarry::countKept(const ZqAppParams& newApp, uint64 nTarget) const {
    const uint64 n = newApp.sizeZqf / BLOCK;
    uint64 nKept = 0;
    for (uint64 first = nTarget / PER_STRETCH * PER_STRETCH; !keyOf(newApp).isEmpty() && first < n;
         first += PER_STRETCH) {
        const uint64 end = std::min(n, first + PER_STRETCH);
        if (isWhole(first, end)) nKept += end - std::max(first, nTarget);
    }
    return nKept;
}

SxPtr<SxArray<char>> ZqAheadCarry::compose(uint64 first, uint64 end) {
    if (!isWhole(first, end)) return nullptr;
    auto bytes = SxPtr<SxArray<char>>::create(static_cast<int64>((end - first) * BLOCK));
    for (uint64 block = first; block < end; ++block) {
        if (!read(source[block], bytes->data() + (block - first) * BLOCK)) return nullptr;
    }
    return bytes;
}

uint64 ZqAheadCarry::write(const SxString& target, const ZqAppParams& newApp, uint64 nTarget,
                           const std::function<bool()>& isStopped) {
    const SxString key = keyOf(newApp);
    if (key.isEmpty()) return 0;
    const uint64 n = newApp.sizeZqf / BLOCK;
    uint64 nWritten = 0;
    std::unique_ptr<ZqStretchStore> store;
    for (uint64 stretch = nTarget / PER_STRETCH; stretch * PER_STRETCH < n && !isStopped(); ++stretch) {
        const uint64 first = stretch * PER_STRETCH, end = std::min(n, first + PER_STRETCH);
        const SxPtr<SxArray<char>> bytes = compose(first, end);
        if (!bytes) continue;
        if (!store) {
            store = std::make_unique<ZqStretchStore>(target, key, newApp.sizeZqf, ZqBlocks::STRETCH,
                                                     nTarget * BLOCK, ZqDiskReserve());
        }
        if (!store->write(stretch, *bytes)) break;
        nWritten += end - std::max(first, nTarget);
    }
    return nWritten;
}
