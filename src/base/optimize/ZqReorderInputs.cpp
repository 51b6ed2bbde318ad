#include "ZqReorderInputs.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "ZqArchiveFile.h"
#include "ZqBlocks.h"
#include "ZqImage.h"
#include "ZqImageFiles.h"
#include "ZqLog.h"
#include "ZqOptimizeFolder.h"
#include "ZqOrderHints.h"
#include "ZqSeekTable.h"

namespace {

constexpr const char* UNIT = "src/base/optimize/ZqReorderInputs";
using Position = ZqMovePlan::Position;
constexpr Position NONE = ZqMovePlan::NONE;

/// One map, of which each entry is looked at once.
class MapReader {
public:
    MapReader(const SxString& file, SxString name_)
        : map(ZqImage::readEntries(file)),
          name(std::move(name_)) {
        if (size() >= NONE) {
            throw SxException("'" + name + "' has more entries than can be re-ordered", UNIT, __LINE__);
        }
        used.resize(size());
    }

    uint64 size() const { return static_cast<uint64>(map.getSize()); }
    bool includes(uint64 rawIdx) const { return map(static_cast<int64>(rawIdx)) != ZqImage::NO_ENTRY; }
    /// After it was taken.
    Position at(uint64 rawIdx) const { return static_cast<Position>(map(static_cast<int64>(rawIdx))); }
    /// Raises where the entry is no position of the image, or one that was named before.
    Position take(uint64 rawIdx) {
        const uint64 zqfIdx = map(static_cast<int64>(rawIdx));
        if (zqfIdx >= size()) {
            throw SxException("'" + name + "' names ZqF block " + SxString(zqfIdx) + " for RAW block " +
                                  SxString(rawIdx) + ", but the image has " + SxString(size()) + " blocks",
                              UNIT, __LINE__);
        }
        if (used[zqfIdx]) {
            throw SxException("'" + name + "' names ZqF block " + SxString(zqfIdx) +
                                  " twice, the second time for RAW block " + SxString(rawIdx),
                              UNIT, __LINE__);
        }
        used[zqfIdx] = true;
        return static_cast<Position>(zqfIdx);
    }

private:
    const SxArray<uint64> map;
    const SxString name;
    std::vector<bool> used; ///< by ZqF index
};

} // namespace

ZqReorderInputs::ZqReorderInputs(const SxString& image_, const SxString& index_, const SxString& indexName_)
    : image(image_),
      index(index_),
      indexName(indexName_),
      oldMap(image_ + ZqImageFiles::IDX) {
}

void ZqReorderInputs::check(bool isTold, bool leavesImage) {
    for (const auto& [folder, name] : {std::pair(image, image), std::pair(index, indexName)}) {
        if (!SxFSAction::test_d(folder)) throw SxException(name + " is not a directory.", UNIT, __LINE__);
    }
    requireMap(index, indexName, isTold);
    oldMap = takeOldMap(leavesImage);
    if (SxFSAction::sizeOf(index + ZqImageFiles::IDX) != SxFSAction::sizeOf(oldMap)) {
        throw SxException("incompatible idx files", UNIT, __LINE__);
    }
    requireFiles();
    requireOwnFile();
    const ZqImageParams oldImage(image);
    ZqImageParams newImage;
    newImage.readText(SxFileIO::readUtf8(index + ZqImageFiles::IMAGE_JSON), shown(ZqImageFiles::IMAGE_JSON));
    if (!(oldImage.guid == newImage.guid)) {
        throw SxException("img.json files do not belong to same RAW image", UNIT, __LINE__);
    }
    const auto shape = [](const ZqImageParams& params) {
        return std::tuple(params.sizeRaw, params.emulatedSectorSize, params.filesystem);
    };
    if (shape(oldImage) != shape(newImage)) {
        throw SxException("'" + shown(ZqImageFiles::IMAGE_JSON) +
                              "' states another size, sector size or file system "
                              "than '" +
                              image + ZqImageFiles::IMAGE_JSON + "'",
                          UNIT, __LINE__);
    }
    guid = oldImage.guid;
    oldApp = ZqAppParams(image);
    newApp.readText(SxFileIO::readUtf8(index + ZqImageFiles::APP_JSON), shown(ZqImageFiles::APP_JSON));
    if (!(oldApp.checksumMnt == newApp.checksumMnt)) {
        throw SxException("app.json files do not belong to same RAW image", UNIT, __LINE__);
    }
    newApp.requireKnownFormat();
    bool isNewStated = false, isOldStated = false;
    newDigest = digestOf(index + ZqImageFiles::IDX, index, indexName, newApp, &isNewStated);
    oldDigest = digestOf(oldMap, image, image, oldApp, &isOldStated);
    if (isOldStated && !isNewStated) {
        throw SxException("'" + shown(ZqImageFiles::APP_JSON) +
                              "' states no digest of the map, without which nothing "
                              "mounts the image",
                          UNIT, __LINE__);
    }
    requireSize();
    dropForeignHints();
    carryVolume(oldImage, newImage);
}

/// An index that was made before this was noted says nothing of it. The index folder is a copy.
void ZqReorderInputs::carryVolume(const ZqImageParams& from, ZqImageParams to) const {
    if (from.volume.isEmpty() || !to.volume.isEmpty()) return;
    to.volume = from.volume;
    to.write(index);
}

/// Hints that no reader takes don't become the image's. The index folder is a copy. A disk that fails raises,
/// since they may be right.
void ZqReorderInputs::dropForeignHints() const {
    const SxString hints = index + ZqImageFiles::HINTS;
    if (SxFSAction::isGone(hints)) return;
    SxArray<char> bytes(ZqOrderHints::MAX_SIZE + 1);
    SxFileIO(hints, "rb").read(&bytes);
    try {
        ZqOrderHints::parse({bytes.data(), static_cast<size_t>(bytes.getSize())}, newApp.checksumIdx,
                            ZqSeekTable::countFrames(newApp.sizeZqf));
    } catch (const SxException& e) {
        zqLogMsg("base", "'" + shown(ZqImageFiles::HINTS) +
                             "' is left out: " + e.toString(SxException::ShowMessage, ": "));
        SxFSAction::rm(hints);
    }
}

SxString ZqReorderInputs::takeOldMap(bool leavesImage) const {
    SxString map = image + ZqImageFiles::IDX;
    if (!leavesImage || SxFSAction::test_f(map) || !SxFSAction::test_f(image + ZqImageFiles::IDX_7Z)) {
        requireMap(image, image, false);
        return map;
    }
    const SxString folder = index + "old/";
    SxFSAction::mkdir_p(folder, 0755);
    ZqArchiveFile::take(image + ZqImageFiles::IDX_7Z, folder, ZqImageFiles::IDX);
    return folder + ZqImageFiles::IDX;
}

void ZqReorderInputs::requireMap(const SxString& folder, const SxString& name, bool isTold) {
    const SxString archive = folder + ZqImageFiles::IDX_7Z;
    if (!SxFSAction::test_f(folder + ZqImageFiles::IDX) && SxFSAction::test_f(archive)) {
        if (isTold) zqLogMsg("base", "Perform extraction of " + archive + " to " + folder);
        ZqArchiveFile::take(archive, folder, ZqImageFiles::IDX);
    }
    if (!SxFSAction::test_f(folder + ZqImageFiles::IDX)) {
        throw SxException(name + ZqImageFiles::IDX + " not found.", UNIT, __LINE__);
    }
}

void ZqReorderInputs::requireFiles() const {
    const auto require = [](const SxString& folder, const SxString& name, const char* file) {
        if (!SxFSAction::test_f(folder + file))
            throw SxException(name + file + " not found.", UNIT, __LINE__);
    };
    for (const char* file : {ZqImageFiles::IMAGE_JSON, ZqImageFiles::APP_JSON}) {
        require(index, indexName, file);
        require(image, image, file);
    }
    require(image, image, ZqImageFiles::ZQF);
}

void ZqReorderInputs::requireOwnFile() const {
    const SxString zqf = image + ZqImageFiles::ZQF;
    const std::optional<SxStat> info = SxFSAction::look(zqf);
    if (!info || info->kind != SxStat::File) {
        throw SxException("'" + zqf + "' is a link, and what it leads to isn't re-ordered", UNIT, __LINE__);
    }
    if (info->nNames > 1) {
        throw SxException("'" + zqf + "' has a second name, under which its blocks would move, too", UNIT,
                          __LINE__);
    }
}

/// A mount asks for the digest that `img.idx.md5` states, or else for that of `app.json`.
SxString ZqReorderInputs::digestOf(const SxString& map, const SxString& folder, const SxString& name,
                                   const ZqAppParams& app, bool* isStated) const {
    SxString digest = SxMd5::file(map);
    SxString stated = app.checksumIdx, by = ZqImageFiles::APP_JSON;
    if (!SxFSAction::isGone(folder + ZqImageFiles::IDX_MD5)) {
        by = ZqImageFiles::IDX_MD5;
        stated = SxFileIO::readUtf8(folder + by);
    }
    *isStated = !stated.isEmpty();
    if (!*isStated || stated == digest) return digest;
    throw SxException("'" + name + ZqImageFiles::IDX + "' has the digest " + digest + ", but '" + name + by +
                          "' states " + stated,
                      UNIT, __LINE__);
}

void ZqReorderInputs::requireSize() const {
    const uint64 size = newApp.sizeZqf;
    const auto nRaw = static_cast<uint64>(SxFSAction::sizeOf(oldMap)) / sizeof(uint64);
    if (newApp.sizeIdx != 0 && newApp.sizeIdx != nRaw * sizeof(uint64)) {
        throw SxException("'" + shown(ZqImageFiles::APP_JSON) + "' states a map of " +
                              SxString(newApp.sizeIdx) + " bytes, but that beside it has " +
                              SxString(nRaw * sizeof(uint64)),
                          UNIT, __LINE__);
    }
    if (newApp.sizeMnt > size) {
        throw SxException("'" + shown(ZqImageFiles::APP_JSON) + "' states more bytes for a mount (" +
                              SxString(newApp.sizeMnt) + ") than img.zqf has (" + SxString(size) + ")",
                          UNIT, __LINE__);
    }
    if (size % ZqBlocks::SIZE == 0 && size / ZqBlocks::SIZE <= nRaw) return;
    throw SxException("'" + shown(ZqImageFiles::APP_JSON) + "' states " + SxString(size) +
                          " bytes for img.zqf, which isn't a file of whole blocks of an image of " +
                          SxString(nRaw) + " blocks",
                      UNIT, __LINE__);
}

std::vector<Position> ZqReorderInputs::makeSource(uint64 sizeNew) const {
    std::vector<Position> source; // at first: RAW index by new position
    std::vector<bool> included;   // by RAW index
    {
        MapReader map(index + ZqImageFiles::IDX, shown(ZqImageFiles::IDX));
        source.assign(map.size(), NONE);
        included.resize(map.size());
        for (uint64 rawIdx = 0; rawIdx < map.size(); ++rawIdx) {
            included[rawIdx] = map.includes(rawIdx);
            if (!included[rawIdx]) continue;
            const Position to = map.take(rawIdx);
            if (to >= sizeNew / ZqBlocks::SIZE) {
                throw SxException("'" + shown(ZqImageFiles::IDX) + "' names ZqF block " + SxString(to) +
                                      " for RAW block " + SxString(rawIdx) + ", beyond the " +
                                      SxString(sizeNew) + " bytes that its app.json states",
                                  UNIT, __LINE__);
            }
            source[to] = static_cast<Position>(rawIdx);
        }
    }
    MapReader map(oldMap, image + ZqImageFiles::IDX);
    if (map.size() != included.size()) throw SxException("incompatible idx files", UNIT, __LINE__);
    for (uint64 rawIdx = 0; rawIdx < map.size(); ++rawIdx) {
        if (map.includes(rawIdx) != included[rawIdx]) {
            throw SxException("'" + shown(ZqImageFiles::IDX) +
                                  (included[rawIdx] ? "' includes RAW block " : "' leaves out RAW block ") +
                                  SxString(rawIdx) + ", but '" + image + ZqImageFiles::IDX +
                                  (included[rawIdx] ? "' doesn't" : "' includes it"),
                              UNIT, __LINE__);
        }
        if (included[rawIdx]) map.take(rawIdx);
    }
    for (Position& from : source) {
        if (from != NONE) from = map.at(from);
    }
    return source;
}
