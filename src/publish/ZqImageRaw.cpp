#include "ZqImageRaw.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqBlocks.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageInfo.h"
#include "ZqImageLock.h"
#include "ZqImageStaging.h"
#include "ZqRawFile.h"
#include "ZqSysEnv.h"

namespace {
constexpr const char* UNIT = "src/publish/ZqImageRaw";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
constexpr uint64 MAX_RUN = 256; ///< blocks that are copied at once
} // namespace

ZqImageRaw::ZqImageRaw(const SxString& image_, const SxString& dir_)
    : image(ZqImageFolder::prefix(image_)),
      dir(ZqImageFolder::prefix(dir_)) {
    setThreadName("image raw");
}

void ZqImageRaw::main() {
    const auto lock = ZqImageLock::take(image, ZqImageLock::Shape, ZqImageLock::Shared, "image raw");
    if (ZqImageStaging::liesIn(dir, image)) {
        throw SxException("The RAW image can't be written to '" + dir + "', which lies in the image '" +
                              image + "'",
                          UNIT, __LINE__);
    }
    // Otherwise what was written to the drive and has no place in img.zqf would be missing, and nobody would
    // be told.
    if (ZqImageFolder::hasWrittenLayer(image)) {
        throw SxException("Image '" + image + "' has a write layer (" + ZqImageFiles::LAYER_INDEX +
                              "): its RAW image would lack what that holds",
                          UNIT, __LINE__);
    }
    const SxArray<uint64> map = readMap();
    try {
        ZqRawFile file(dir);
        ZqImageFolder::requireSpace(dir, getNTotal());
        write(map, file.getPath());
        file.commit();
    } catch (const SxException& e) {
        if (stopRequested()) throw;
        throw SxException(e, "Cannot write " + dir + ZqRawFile::NAME, UNIT, __LINE__);
    }
}

SxArray<uint64> ZqImageRaw::readMap() {
    const ZqImageInfo info(image);
    info.requireComplete(image);
    SxArray<uint64> map = ZqImage(image).getMap();
    sizeRaw = static_cast<uint64>(info.image.sizeRaw);
    const auto nRaw = static_cast<uint64>(map.getSize());
    if (sizeRaw / BLOCK + (sizeRaw % BLOCK != 0 ? 1 : 0) != nRaw) {
        throw SxException(SxString("The map of '") + image + "' has " + nRaw +
                              " entries, which doesn't fit a RAW image of " + sizeRaw + " bytes",
                          UNIT, __LINE__);
    }
    const uint64 nZqf = info.sizeZqf / BLOCK;
    for (uint64 rawIdx = 0; rawIdx < nRaw; ++rawIdx) {
        const uint64 zqfIdx = map(static_cast<int64>(rawIdx));
        if (zqfIdx == ZqImage::NO_ENTRY) continue;
        if (zqfIdx >= nZqf) {
            throw SxException(SxString("The entry of RAW block ") + rawIdx + " is " + zqfIdx +
                                  ", beyond the end of '" + image + ZqImageFiles::ZQF + "'",
                              UNIT, __LINE__);
        }
        sizeWritten += BLOCK;
    }
    setNTotal(sizeWritten);
    return map;
}

void ZqImageRaw::write(const SxArray<uint64>& map, const SxString& path) {
    const int64 t0 = ZqSysEnv::getSysTime();
    SxFileIO zqf(image + ZqImageFiles::ZQF, "rb"), raw(path, "r+b");
    SxArray<char> buffer(static_cast<int64>(MAX_RUN * BLOCK));
    const auto nRaw = static_cast<uint64>(map.getSize());
    for (uint64 rawIdx = 0, count = 1; rawIdx < nRaw; rawIdx += count) {
        const uint64 zqfIdx = map(static_cast<int64>(rawIdx));
        count = 1;
        if (zqfIdx == ZqImage::NO_ENTRY) continue;
        while (count < MAX_RUN && rawIdx + count < nRaw &&
               map(static_cast<int64>(rawIdx + count)) == zqfIdx + count)
            ++count;
        if (stopRequested()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
        const auto n = static_cast<int64>(count * BLOCK);
        zqf.seek(static_cast<int64>(zqfIdx * BLOCK));
        if (zqf.readBuffer(buffer.data(), n) != n) {
            throw SxException(SxFileIO::fileReadErr(zqf.getFilePath()), UNIT, __LINE__);
        }
        raw.seek(static_cast<int64>(rawIdx * BLOCK));
        raw.writeBuffer(buffer.data(), n);
        addNCurrent(static_cast<uint64>(n));
        updateSpeed(t0);
    }
    raw.truncate(static_cast<int64>(sizeRaw));
    raw.sync();
    raw.close();
}
