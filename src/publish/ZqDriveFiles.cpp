#include "ZqDriveFiles.h"

#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqDriveMaker.h"
#include "ZqDriveMeans.h"
#include "ZqDriveRows.h"
#include "ZqErofsWalk.h"
#include "ZqExt4Walk.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"

#include <algorithm>
#include <memory>

namespace {

constexpr const char* UNIT = "src/publish/ZqDriveFiles";
constexpr uint64 BLOCK = ZqBlocks::SIZE;
constexpr size_t MD5_TEXT = 32;

/// Reads the drive of an image as far as `map` goes. Blocks that aren't included are zeros.
class ImageReader : public ZqBlockReader {
public:
    ImageReader(const SxString& folder, const SxArray<uint64>& map_)
        : ZqBlockReader(folder),
          map(map_),
          zqf(folder + ZqImageFiles::ZQF, "rb") {
        size = static_cast<uint64>(map.getSize()) * BLOCK;
    }

protected:
    void fetchBlock(uint64 rawIdx, uint64 inBlock, char* bytes, uint64 n) override {
        const uint64 zqfIdx = map(static_cast<int64>(rawIdx));
        if (zqfIdx == ZqImage::NO_ENTRY) {
            std::fill_n(bytes, n, '\0');
            return;
        }
        // A wild entry must not overflow the offset.
        const bool isThere = zqfIdx < static_cast<uint64>(zqf.getSize()) / BLOCK;
        if (isThere) zqf.seek(static_cast<int64>(zqfIdx * BLOCK + inBlock));
        if (isThere && zqf.readBuffer(bytes, static_cast<int64>(n)) == static_cast<int64>(n)) return;
        throw SxException("'" + zqf.getFilePath() + "' ends before block " + zqfIdx, UNIT, __LINE__);
    }

private:
    const SxArray<uint64>& map;
    SxFileIO zqf;
};

SxString whyNotState(const ZqImageInfo& info) {
    if (info.state == ZqImageInfo::Optimizing || info.state == ZqImageInfo::Patching) {
        return "the image is being changed";
    }
    if (info.storage.split || info.storage.joining) return "the image is split";
    if (info.state != ZqImageInfo::Complete) return "the image isn't complete";
    if (info.app.checksumMnt.str().size() != MD5_TEXT) return "app.json names no build (checksums.mnt)";
    return {};
}

ImageReader readFirst(const SxString& folder, SxArray<uint64>* map) {
    SxFileIO(folder + ZqImageFiles::IDX, "rb").read(map, 1);
    return {folder, *map};
}

SxString typeOf(ZqDriveReader* reader) {
    return ZqDriveMeans::typeOf(reader->read(0, std::min<uint64>(reader->getSize(), ZqBlocks::SIZE)));
}

SxString whyNotDrive(ZqDriveReader* reader) {
    const SxString type = typeOf(reader);
    if (type.isEmpty()) return "the image holds no file system that is known";
    if (type == ZqDriveMaker::typeToString(ZqDriveMaker::Squashfs))
        return "squashfs packs several files into a block";
    return {};
}

std::unique_ptr<ZqDriveWalk> walkOf(ZqDriveReader* reader) {
    if (ZqErofsWalk::isThat(reader)) return std::make_unique<ZqErofsWalk>(reader);
    return std::make_unique<ZqExt4Walk>(reader);
}

} // namespace

ZqDriveFiles::Found ZqDriveFiles::find(const SxString& image) {
    return find(image, ZqImageInfo(image), ZqImage(ZqImageFolder::prefix(image)).getMap());
}

ZqDriveFiles::Found ZqDriveFiles::find(const SxString& image, const ZqImageInfo& info,
                                       const SxArray<uint64>& map) {
    Found found{std::nullopt, whyNotState(info)};
    if (!found.why.isEmpty()) return found;
    try {
        ImageReader reader(ZqImageFolder::prefix(image), map);
        found.why = whyNotDrive(&reader);
        if (!found.why.isEmpty()) return found;
        std::vector<ZqFileTable::Row> rows;
        const std::unique_ptr<ZqDriveWalk> walk = walkOf(&reader);
        walk->findNames();
        walk->visitFiles([&](const ZqDriveWalk::File& file) { ZqDriveRows::append(file, &rows); });
        found.table = ZqFileTable(info.app.checksumMnt, info.nRaw, std::move(rows));
    } catch (const SxException& e) {
        found.why = e.what();
    }
    return found;
}

SxString ZqDriveFiles::whyNot(const SxString& image, const ZqImageInfo& info) {
    SxString state = whyNotState(info);
    if (!state.isEmpty()) return state;
    const SxString folder = ZqImageFolder::prefix(image);
    try {
        SxArray<uint64> first;
        ImageReader reader = readFirst(folder, &first);
        return whyNotDrive(&reader);
    } catch (const SxException& e) {
        return e.what();
    }
}

SxString ZqDriveFiles::volumeOf(const SxString& image, const ZqImageInfo& info) {
    if (!info.image.volume.isEmpty()) return info.image.volume;
    // Then the map may be of other blocks than those that are there.
    if (info.state == ZqImageInfo::Optimizing || info.state == ZqImageInfo::Patching) return {};
    try {
        SxArray<uint64> first;
        ImageReader reader = readFirst(ZqImageFolder::prefix(image), &first);
        return typeOf(&reader);
    } catch (const SxException&) {
        return {}; // the block isn't there
    }
}
