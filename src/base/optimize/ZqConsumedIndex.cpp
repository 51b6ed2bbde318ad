#include "ZqConsumedIndex.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "SxOs.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqOptimizeFolder.h"
#include "ZqSysEnv.h"

namespace {
constexpr const char* UNIT = "src/base/optimize/ZqConsumedIndex";
} // namespace

ZqConsumedIndex::ZqConsumedIndex(const SxString& folder) : path(folder) {
}

SxString ZqConsumedIndex::realPath(const SxString& folder) {
    std::string real;
    const bool isThere = SxOs::get().canonical(SxOs::hostPath(folder), &real) == 0;
    return ZqSysEnv::unifySlashes(
        ZqImageFolder::prefix(isThere ? SxString(real) : SxFileInfo(folder).getAbsPath()));
}

SxString ZqConsumedIndex::findImageMark() const {
    for (const char* name : {ZqImageFiles::ZQF, ZqImageFiles::SPLIT_INFO, ZqImageFiles::AHEAD,
                             ZqImageFiles::LAYER_INDEX, ZqImageFiles::TRACES, ZqImageFiles::RUNS,
                             ZqImageFiles::PACKED, ZqImageFiles::IDX_PACKED, ZqImageFiles::REFERENCE,
                             ZqImageFiles::STREAM_JSON, ZqOptimizeFolder::NOTE, ZqOptimizeFolder::PROGRESS}) {
        if (!SxFSAction::isGone(path + name)) return name;
    }
    return {};
}

void ZqConsumedIndex::requireNoImage(const SxString& name) const {
    const SxString mark = findImageMark();
    if (mark.isEmpty()) return;
    throw SxException("'" + name + "' holds an image ('" + mark +
                          "'), and isn't consumed; take the order without that",
                      UNIT, __LINE__);
}

SxString ZqConsumedIndex::remove(const SxString& image) const {
    try {
        if (SxFSAction::isGone(path)) return {};
        removeFiles(image);
        if (!SxFSAction::ls(path).isEmpty()) {
            return "The index folder '" + path +
                   "' stays, since it holds other files than those of this order";
        }
        SxFSAction::rm_r(path);
        // It stays gone, whatever comes: else the same command would be refused for half an index folder.
        SxFSAction::syncDir(SxFileInfo(path).getPath());
        return {};
    } catch (const SxException& e) {
        return "The index folder '" + path + "' can't be removed: " + e.what();
    }
}

void ZqConsumedIndex::removeFiles(const SxString& image) const {
    const SxString records = path + ZqImageFiles::APP_JSON;
    // The path comes from a file.
    const bool isIndex = path.str().starts_with("/") && path.endsWith("/") && findImageMark().isEmpty() &&
                         SxFSAction::test_f(records) &&
                         SxMd5::file(records) == SxMd5::file(image + ZqImageFiles::APP_JSON);
    if (!isIndex) return;
    for (const SxString name : ZqOptimizeFolder::INDEX_FILES) {
        if (SxFSAction::test_f(path + name)) SxFSAction::rm(path + name);
        SxFSAction::syncDir(path);
    }
    // Whoever looked at the folder has left it.
    if (SxFSAction::test_f(path + ZqImageFiles::LOCK)) SxFSAction::rm(path + ZqImageFiles::LOCK);
}
