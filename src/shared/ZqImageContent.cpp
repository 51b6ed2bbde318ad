#include "ZqImageContent.h"

#include "SxFSAction.h"
#include "SxTemporaryFile.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqTraceFiles.h"

#include <algorithm>
#include <string_view>

namespace {

/// Files of the image folder by their whole names.
constexpr std::string_view FILES[] = {ZqImageFiles::ZQF,
                                      ZqImageFiles::PACKED,
                                      ZqImageFiles::AHEAD,
                                      ZqImageFiles::AHEAD_IDX,
                                      ZqImageFiles::IDX,
                                      ZqImageFiles::IDX_PACKED,
                                      ZqImageFiles::IDX_7Z,
                                      ZqImageFiles::IDX_MD5,
                                      ZqImageFiles::FILES,
                                      ZqImageFiles::HINTS,
                                      ZqImageFiles::IMAGE_JSON,
                                      ZqImageFiles::APP_JSON,
                                      ZqImageFiles::RUNTIME_JSON,
                                      ZqImageFiles::STREAM_JSON,
                                      ZqImageFiles::TRACES_NOTE,
                                      ZqImageFiles::SPLIT_INFO,
                                      ZqImageFiles::SPLIT_JOURNAL,
                                      ZqImageFiles::JOIN_INFO,
                                      ZqImageFiles::LAYER_INDEX,
                                      ZqImageFiles::LAYER_DATA,
                                      ZqImageFiles::LOCK,
                                      ZqImageFiles::REFERENCE,
                                      ZqImageFiles::OPTIMIZE_LOCK,
                                      ZqImageFiles::PATCH_PROGRESS,
                                      ZqImageFiles::EXTRACT_JSON,
                                      "onDemand.dat",
                                      "write.log"};
/// Folders that hold nothing else.
constexpr std::string_view FOLDERS[] = {ZqImageFiles::STAGING, ZqImageFiles::OPTIMIZE_WORK,
                                        ZqImageFiles::OPTIMIZE_INDEX, ZqImageFiles::PATCH_WORK, "patching/"};
/// Folders in which others may keep something, too.
constexpr std::string_view MIXED[] = {ZqImageFiles::TRACES, ZqImageFiles::RUNS};
/// What a file that is on its way has after its name.
constexpr std::string_view ENDS[] = {ZqImageFiles::SYNCED, ".new"};

bool holds(const auto& list, std::string_view name) {
    return std::find(std::begin(list), std::end(list), name) != std::end(list);
}

/// The name of a file that takes the place of another once it is written, without what it has for that.
std::string_view withoutTemporary(std::string_view name) {
    constexpr size_t N_ADDED = sizeof ".01234567.tmp" - 1;
    if (name.size() <= N_ADDED) return name;
    const std::string_view begin = name.substr(0, name.size() - N_ADDED);
    return SxTemporaryFile::isName(SxString(name), SxString(begin)) ? begin : name;
}

/// Of traces and of records of runs.
bool isBelowMixed(std::string_view within, std::string_view name) {
    name = withoutTemporary(name);
    if (within.starts_with(ZqImageFiles::RUNS)) return name.ends_with(".json");
    return name == ZqTraceFiles::ITEMS || name == ZqTraceFiles::RECORD || name == ZqTraceFiles::LOCK;
}

} // namespace

ZqImageContent::Kind ZqImageContent::kindOf(const std::string& name) {
    std::string_view begin = withoutTemporary(name);
    for (const std::string_view end : ENDS) {
        if (begin.ends_with(end)) begin.remove_suffix(end.size());
    }
    if (holds(FILES, begin) || begin.starts_with(ZqImageFiles::SPLIT_PART)) return Own;
    if (holds(FOLDERS, name + "/")) return Own;
    return holds(MIXED, name + "/") ? Mixed : Foreign;
}

ZqImageContent::ZqImageContent(const SxString& image) : folder(ZqImageFolder::prefix(image)) {
    for (const SxFileInfo& entry : SxFSAction::ls(folder)) {
        const std::string name = entry.getName().str();
        const Kind kind = kindOf(name);
        const bool isFolder = entry.isDir() && !entry.isLink();
        if (!isFolder) {
            take(entry.getOrig(), kind != Foreign);
        } else if (kind == Foreign || !(holds(FOLDERS, name + "/") || kind == Mixed)) {
            lookInto(entry.getOrig(), false, "");
        } else {
            lookInto(entry.getOrig(), kind == Own, name + "/");
        }
    }
}

/// `within`: the folder of the image's that it lies in; empty for one of somebody else's.
void ZqImageContent::lookInto(const SxString& path, bool isAllOwn, const std::string& within) {
    for (const SxFileInfo& entry : SxFSAction::ls(path)) {
        if (entry.isDir() && !entry.isLink()) {
            lookInto(entry.getOrig(), isAllOwn, within);
        } else {
            take(entry.getOrig(),
                 isAllOwn || (!within.empty() && isBelowMixed(within, entry.getName().str())));
        }
    }
    if (!within.empty()) folders << path;
}

void ZqImageContent::take(const SxString& path, bool isOwn) {
    if (!isOwn) {
        ++nForeign;
        return;
    }
    ++nFiles;
    const auto info = SxFSAction::look(path);
    if (info) nBytes += static_cast<uint64>(std::max<int64>(info->allocated, 0));
    const bool isLast = path == folder + ZqImageFiles::APP_JSON || path == folder + ZqImageFiles::LOCK;
    (isLast ? last : files) << path;
}

void ZqImageContent::remove() const {
    for (const SxList<SxString>* each : {&files, &last}) {
        for (const SxString& path : *each) {
            if (!SxFSAction::isGone(path)) SxFSAction::rm(path);
        }
        // One that holds something of others stays.
        if (each == &files) {
            for (const SxString& path : folders)
                SxOs::get().removeDir(SxOs::hostPath(path));
            SxFSAction::syncDir(folder);
        }
    }
}
