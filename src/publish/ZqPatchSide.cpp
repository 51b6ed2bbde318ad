#include "ZqPatchSide.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "SxXxh64.h"
#include "ZqBlockLikeness.h"
#include "ZqBlockWriter.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageInfo.h"
#include "ZqPatchFiles.h"
#include "ZqStreamRecord.h"
#include "ZqSysEnv.h"
#include "ZqTaskMon.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/publish/ZqPatchSide";
constexpr uint64 MOST_ITEMS = uint64{1} << 31; ///< 8 TiB; an index takes 4 bytes

} // namespace

static_assert(ZqPatchSide::BLOCK == ZqBlocks::SIZE);

/// A patch folder has records like those of an image, and must not get the lock of one.
SxString ZqPatchSide::requireImage(const SxString& path) {
    if (SxFSAction::isGone(path + ZqPatchFiles::RECORD)) return path;
    throw SxException("'" + path + "' holds no image", UNIT, __LINE__);
}

ZqPatchSide::ZqPatchSide(const SxString& image, const SxString& job)
    : folder(requireImage(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(image)))),
      lock(ZqImageLock::take(folder, ZqImageLock::Shape, ZqImageLock::Shared, job)) {
    const ZqImageInfo info(folder);
    info.requireComplete(folder);
    app = info.app;
    params = info.image;
    size = info.sizeZqf;
    ZqStreamRecord record;
    record.read(folder);
    if (record.isWritten) {
        throw SxException("Programs have written into '" + folder + ZqImageFiles::ZQF +
                              "', so it is no version that anybody else has",
                          UNIT, __LINE__);
    }
    readMap();
}

void ZqPatchSide::readMap() {
    const SxString file = folder + ZqImageFiles::IDX;
    const SxArray<uint64> map = ZqImage(folder).getMap();
    const auto n = static_cast<uint64>(map.getSize());
    if (n > MOST_ITEMS || size / BLOCK > MOST_ITEMS)
        throw SxException("Image '" + folder + "' is too large for a patch", UNIT, __LINE__);
    if (n * sizeof(uint64) != app.sizeIdx) {
        throw SxException("'" + file + "' hasn't the size that its app.json says", UNIT, __LINE__);
    }
    if (!app.checksumIdx.isEmpty() && !(SxMd5::file(file) == app.checksumIdx)) {
        throw SxException("'" + file + "' hasn't the digest that its app.json says", UNIT, __LINE__);
    }
    std::vector<bool> isUsed(size / BLOCK);
    slots.reserve(n);
    for (const uint64 slot : map) {
        if (slot == ZqImage::NO_ENTRY) {
            slots.push_back(NONE);
            continue;
        }
        // Who applies a patch takes no slot beyond the number of items.
        if (slot >= isUsed.size() || slot >= n || isUsed[slot]) {
            throw SxException("'" + file +
                                  "' names a ZqF block twice, or one beyond the image: " + SxString(slot),
                              UNIT, __LINE__);
        }
        isUsed[slot] = true;
        slots.push_back(static_cast<uint32>(slot));
        ++nIncluded;
    }
}

std::vector<uint32> ZqPatchSide::sortedByHash() const {
    std::vector<uint32> items;
    items.reserve(nIncluded);
    for (uint32 item = 0; item < getNItems(); ++item)
        if (has(item)) items.push_back(item);
    std::sort(items.begin(), items.end(), [&](uint32 a, uint32 b) {
        const uint64 hashA = hashOf(a), hashB = hashOf(b);
        return hashA != hashB ? hashA < hashB : a < b;
    });
    return items;
}

void ZqPatchSide::scan(ZqBlockLikeness* likeness, ZqTaskMon* progress) {
    const SxString path = folder + ZqImageFiles::ZQF;
    SxFileIO file(path, "rb");
    file.adviseSequential();
    hashes.resize(getNSlots());
    if (likeness) likeness->begin(getNSlots());
    ZqDigestPipe pipe("patch md5");
    uint32 slot = 0;
    for (uint64 rest = size; rest > 0;) {
        if (progress->stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
        ZqDigestPipe::Chunk* chunk = pipe.next();
        chunk->used = static_cast<int64>(std::min<uint64>(rest, ZqDigestPipe::CHUNK));
        if (file.readBuffer(chunk->bytes.data(), chunk->used) != chunk->used)
            throw SxException(SxFileIO::fileReadErr(path), UNIT, __LINE__);
        for (int64 at = 0; at + BLOCK <= chunk->used; at += BLOCK, ++slot) {
            const char* block = chunk->bytes.data() + at;
            hashes[slot] = SxXxh64::of(block, BLOCK);
            if (likeness) likeness->take(slot, block);
        }
        rest -= static_cast<uint64>(chunk->used);
        progress->addNCurrent(static_cast<uint64>(chunk->used));
        pipe.take(chunk);
    }
    const SxString digest = pipe.finish();
    if (!app.checksumZqf.isEmpty() && !(digest == app.checksumZqf))
        throw SxException("'" + path + "' hasn't the digest that its app.json says", UNIT, __LINE__);
}

ZqPatchSide::Reader::Reader(const ZqPatchSide& side_)
    : side(side_),
      file(side_.folder + ZqImageFiles::ZQF, "rb") {
}

void ZqPatchSide::Reader::read(std::span<const uint32> items, char* bytes) {
    for (size_t i = 0; i < items.size();) {
        const uint32 first = side.slotOf(items[i]);
        size_t n = 1;
        while (i + n < items.size() && side.slotOf(items[i + n]) == first + n)
            ++n;
        const auto count = static_cast<int64>(n) * BLOCK;
        file.seek(int64{first} * BLOCK);
        if (file.readBuffer(bytes, count) != count)
            throw SxException(SxFileIO::fileReadErr(file.getFilePath()), UNIT, __LINE__);
        bytes += count;
        i += n;
    }
}
