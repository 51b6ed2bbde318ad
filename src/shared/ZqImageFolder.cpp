#include "ZqImageFolder.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqImageFiles.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace {

constexpr const char* UNIT = "src/shared/ZqImageFolder";
constexpr size_t LAYER_RECORD = 16; ///< bytes
/// What the indices of write layers begin with, and how many records' places that takes.
constexpr std::pair<std::string_view, size_t> LAYER_HEADERS[] = {
    {"ZLAYER03", 2}, {"ZLAYER02", 2}, {"ZLAYER01", 1}};

} // namespace

SxString ZqImageFolder::prefix(const SxString& path) {
    return path.endsWith("/") ? path : path + "/";
}

void ZqImageFolder::requireNoLink(const SxString& path, const SxString& name) {
    const SxString folder = prefix(path) + name.left("/");
    if (!SxFileInfo(folder).isLink()) return;
    throw SxException("'" + folder + "' is a link, and only the image's own folder is written into", UNIT,
                      __LINE__);
}

bool ZqImageFolder::holdsImage(const SxString& path) {
    for (const char* name :
         {ZqImageFiles::APP_JSON, ZqImageFiles::IMAGE_JSON, ZqImageFiles::IDX, ZqImageFiles::ZQF,
          ZqImageFiles::SPLIT_INFO, ZqImageFiles::STREAM_JSON, ZqImageFiles::LOCK}) {
        if (SxFSAction::exists(prefix(path) + name)) return true;
    }
    return false;
}

bool ZqImageFolder::isFree(const SxString& path) {
    return !SxFSAction::exists(path) || (SxFSAction::test_d(path) && SxFSAction::ls(path).isEmpty());
}

bool ZqImageFolder::hasWrittenLayer(const SxString& path) {
    const SxString file = prefix(path) + ZqImageFiles::LAYER_INDEX;
    const auto info = SxFSAction::look(file);
    if (!info) return false;
    if (info->kind != SxStat::File) return true;
    std::array<char, 3 * LAYER_RECORD> bytes{};
    SxFileIO index(file, "rb");
    const auto n = static_cast<size_t>(index.readBuffer(bytes.data(), static_cast<int64>(bytes.size())));
    const std::string_view begin(bytes.data(), n);
    for (const auto& [magic, nPlaces] : LAYER_HEADERS) {
        if (begin.starts_with(magic)) return n >= (nPlaces + 1) * LAYER_RECORD;
    }
    // Zeros are what a power cut has left of one that was never synced.
    return std::any_of(begin.begin(), begin.end(), [](char c) { return c != 0; });
}

void ZqImageFolder::requireSpace(const SxString& path, uint64 need) {
    const auto free = static_cast<uint64>(SxFSAction::freeSpace(path));
    if (free >= need) return;
    throw SxException("Folder '" + path + "' lies on a disk with " + free + " bytes free, " + need +
                          " are needed",
                      UNIT, __LINE__);
}
