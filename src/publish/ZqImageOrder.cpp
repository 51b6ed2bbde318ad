#include "ZqImageOrder.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "ZqBlockOrder.h"
#include "ZqBlockWriter.h"
#include "ZqBlocks.h"
#include "ZqDriveFiles.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageLock.h"
#include "ZqImageStaging.h"
#include "ZqLog.h"
#include "ZqNewFolder.h"
#include "ZqSysEnv.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/publish/ZqImageOrder";
constexpr uint64 BLOCK = ZqBlocks::SIZE;

void readAt(SxFileIO* file, int64 offset, char* bytes, int64 n) {
    file->seek(offset);
    if (file->readBuffer(bytes, n) != n) {
        throw SxException(SxFileIO::fileReadErr(file->getFilePath()), UNIT, __LINE__);
    }
}

void removeIndex(const SxString& folder) {
    try {
        for (const char* name :
             {ZqImageFiles::IDX, ZqImageFiles::HINTS, ZqImageFiles::IMAGE_JSON, ZqImageFiles::APP_JSON}) {
            if (SxFSAction::exists(folder + name)) SxFSAction::rm(folder + name);
        }
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqImageOrder : cannot remove what was written so far: " + e.toString(3, "\n"));
    }
}

} // namespace

ZqImageOrder::ZqImageOrder(const SxString& image_, const SxList<SxString>& traces_, const SxString& index_)
    : image(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(image_))),
      index(ZqSysEnv::unifySlashes(ZqImageFolder::prefix(index_))),
      traces(traces_) {
    setThreadName("image order");
}

SxList<SxString> ZqImageOrder::findTraces(const SxString& image) {
    const SxString folder = ZqImageFolder::prefix(image) + ZqImageFiles::TRACES;
    SxList<SxString> result;
    if (!SxFSAction::test_d(folder)) return result;
    for (const SxDir& dir : SxFSAction::getDirs(folder))
        result << dir.getOrig();
    return result;
}

void ZqImageOrder::main() {
    const auto lock = ZqImageLock::take(image, ZqImageLock::Shape, ZqImageLock::Shared, "image order");
    ZqImageStaging::refuseOverlap(index, image);
    for (const SxString& trace : traces)
        ZqImageStaging::refuseOverlap(index, trace);
    if (!ZqImageFolder::isFree(index)) {
        throw SxException("The index folder '" + index + "' isn't empty", UNIT, __LINE__);
    }
    const ZqImageInfo info(image);
    app = info.app;
    const SxArray<uint64> oldMap = ZqImage(image).getMap();
    nRaw = info.nRaw;
    nIncluded = info.nIncluded;
    const bool isWhole = info.state == ZqImageInfo::Complete && !info.storage.joining;
    setNTotal(ZqOrderRuns::countBytes(traces) + (isWhole ? info.sizeComplete + nIncluded * BLOCK : 0));
    if (isWhole) {
        // Before the files are looked for: of a damaged image, or one that programs have written into, they
        // aren't those of its build.
        if (!app.checksumZqf.isEmpty()) checkDigest();
    }
    const ZqBlockOrder order(describe(info, oldMap), traces, [this](uint64 nBytes) {
        refuseStop();
        addNCurrent(nBytes);
    });
    nFront = order.getNFront();
    nCore = order.getNCore();
    nTail = order.getNTail();
    nNear = order.getNNear();
    basis = order.getBasis();
    left = order.getLeft();

    order.apply(&app);
    app.checksumZqf = isWhole ? digestInOrder(order.getOrder(), oldMap) : SxString();
    refuseStop();
    write(order, info.image);
    complete = true;
}

void ZqImageOrder::refuseStop() const {
    if (stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
}

ZqOrderImage ZqImageOrder::describe(const ZqImageInfo& info, const SxArray<uint64>& oldMap) {
    ZqOrderImage result{image, app.checksumMnt, {}, {}, {}};
    result.included.reserve(static_cast<size_t>(oldMap.getSize()));
    for (const uint64 zqfIdx : oldMap)
        result.included.push_back(zqfIdx != ZqImage::NO_ENTRY);
    const SxArray<uint64> oldOrder = ZqImage::getReverseMap(oldMap);
    // What falls out of the inverse is an entry twice, or one beyond the image.
    const auto nHoles = std::count(oldOrder.begin(), oldOrder.end(), ZqImage::NO_ENTRY);
    const auto nOut = std::count(result.included.begin(), result.included.end(), false);
    if (nHoles != nOut) {
        throw SxException("The map '" + image + ZqImageFiles::IDX +
                              "' names a ZqF block twice, or one beyond the image",
                          UNIT, __LINE__);
    }
    const uint64 end = app.sizeMnt / BLOCK + (app.sizeMnt % BLOCK != 0 ? 1 : 0);
    for (uint64 zqfIdx = 0; zqfIdx < std::min(end, static_cast<uint64>(oldOrder.getSize())); ++zqfIdx) {
        const uint64 rawIdx = oldOrder(static_cast<int64>(zqfIdx));
        if (rawIdx != ZqImage::NO_ENTRY) result.front.append(rawIdx);
    }
    if (ZqFileTable::exists(image)) {
        result.files = ZqFileTable::read(image, app.checksumMnt, result.getNRaw());
    } else {
        ZqDriveFiles::Found found = ZqDriveFiles::find(image, info, oldMap);
        result.files = std::move(found.table);
        whyNoFiles = found.why;
        if (result.files) keep(*result.files);
    }
    return result;
}

/// The next order needn't look for the files again. Where the image's folder can't be written to, it does.
void ZqImageOrder::keep(const ZqFileTable& files) const {
    try {
        files.write(image);
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqImageOrder : cannot keep the table of files: " + e.toString(3, "\n"));
    }
}

void ZqImageOrder::checkDigest() {
    // The digest of the new order is taken of this file. If the file is damaged, that digest would fit the
    // damaged image, and go to everybody who has a good one. This pass also brings the file into memory
    // before the one that jumps about in it.
    const SxString file = image + ZqImageFiles::ZQF;
    SxFileIO zqf(file, "rb");
    zqf.adviseSequential();
    ZqDigestPipe pipe("zqf md5");
    for (int64 rest = zqf.getSize(); rest > 0;) {
        refuseStop();
        ZqDigestPipe::Chunk* chunk = pipe.next();
        chunk->used = std::min(rest, ZqDigestPipe::CHUNK);
        if (zqf.readBuffer(chunk->bytes.data(), chunk->used) != chunk->used) {
            throw SxException(SxFileIO::fileReadErr(file), UNIT, __LINE__);
        }
        rest -= chunk->used;
        addNCurrent(static_cast<uint64>(chunk->used));
        pipe.take(chunk);
    }
    if (!(pipe.finish() == app.checksumZqf)) {
        throw SxException("'" + file + "' hasn't the digest that its app.json says", UNIT, __LINE__);
    }
}

SxString ZqImageOrder::digestInOrder(const SxArray<uint64>& order, const SxArray<uint64>& oldMap) {
    SxFileIO zqf(image + ZqImageFiles::ZQF, "rb");
    ZqDigestPipe pipe("zqf md5");
    const auto oldIdx = [&](int64 zqfIdx) { return oldMap(static_cast<int64>(order(zqfIdx))); };
    constexpr auto PER_CHUNK = ZqDigestPipe::CHUNK / static_cast<int64>(BLOCK);
    const int64 n = order.getSize();
    for (int64 zqfIdx = 0; zqfIdx < n;) {
        refuseStop();
        ZqDigestPipe::Chunk* chunk = pipe.next();
        const int64 end = std::min(n, zqfIdx + PER_CHUNK);
        char* to = chunk->bytes.data();
        while (zqfIdx < end) {
            const uint64 first = oldIdx(zqfIdx);
            int64 count = 1;
            while (zqfIdx + count < end && oldIdx(zqfIdx + count) == first + static_cast<uint64>(count))
                ++count;
            const int64 bytes = count * static_cast<int64>(BLOCK);
            readAt(&zqf, static_cast<int64>(first * BLOCK), to, bytes);
            to += bytes;
            zqfIdx += count;
        }
        chunk->used = to - chunk->bytes.data();
        addNCurrent(static_cast<uint64>(chunk->used));
        pipe.take(chunk);
    }
    return pipe.finish();
}

void ZqImageOrder::write(const ZqBlockOrder& order, ZqImageParams record) {
    ZqNewFolder folder(index);
    try {
        ZqMapWriter idx(index);
        for (const uint64 entry : order.makeMap())
            idx.append(entry);
        idx.finish();
        app.checksumIdx = SxMd5::file(index + ZqImageFiles::IDX, nullptr);
        order.writeHints(index, app.checksumIdx);
        record.order = order.getBasis();
        record.write(index);
        // Comes last: a folder without it is no index folder.
        app.write(index);
        folder.sync();
    } catch (...) {
        removeIndex(index);
        throw;
    }
    folder.keep();
}
