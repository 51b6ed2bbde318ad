#include "ZqImageContent.h"

#include "SxFSAction.h"
#include "SxTemporaryFile.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqRunFiles.h"
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
constexpr std::string_view FOLDERS[] = {ZqImageFiles::STAGING,        ZqImageFiles::OPTIMIZE_WORK,
                                        ZqImageFiles::OPTIMIZE_INDEX, ZqImageFiles::PATCH_WORK,
                                        ZqImageFiles::CHUNKS,         "patching/"};
/// What a file that is on its way has after its name.
constexpr std::string_view ENDS[] = {ZqImageFiles::SYNCED, ".new"};

bool holds(const auto& list, std::string_view name) {
    return std::find(std::begin(list), std::end(list), name) != std::end(list);
}

/// Whether a file, or a link, of that name in the image folder is the image's.
bool isOwnFile(const SxString& name) {
    const SxString target = SxTemporaryFile::targetOf(name);
    const SxString& of = target.isEmpty() ? name : target;
    std::string_view begin = of.str();
    for (const std::string_view end : ENDS) {
        if (begin.ends_with(end)) begin.remove_suffix(end.size());
    }
    return holds(FILES, begin) || begin.starts_with(ZqImageFiles::SPLIT_PART);
}

} // namespace

ZqImageContent::ZqImageContent(const SxString& image) : folder(ZqImageFolder::prefix(image)) {
    for (const SxFileInfo& entry : SxFSAction::ls(folder)) {
        const std::string name = entry.getName().str() + "/";
        Within within = holds(FOLDERS, name) ? Whole : Others;
        if (name == ZqImageFiles::TRACES) within = Traces;
        if (name == ZqImageFiles::RUNS) within = Runs;
        if (entry.isDir() && !entry.isLink()) {
            lookInto(entry.getOrig(), within);
        } else {
            take(entry.getOrig(), within != Others || isOwnFile(entry.getName()));
        }
    }
}

void ZqImageContent::lookInto(const SxString& path, Within within) {
    const auto entries = SxFSAction::ls(path);
    for (const SxFileInfo& entry : entries) {
        const SxString name = entry.getName();
        if (entry.isDir() && !entry.isLink()) {
            lookInto(entry.getOrig(), within == Whole ? Whole : within == Traces ? Trace : Others);
        } else if (within == Whole) {
            take(entry.getOrig(), true);
        } else {
            // Nothing there is made as a link.
            const bool isOwnName =
                (within == Runs && ZqRunFiles::isOwn(name)) || (within == Trace && ZqTraceFiles::isOwn(name));
            take(entry.getOrig(), isOwnName && !entry.isLink());
        }
    }
    if (within != Others) {
        folders << path;
    } else if (entries.isEmpty()) {
        ++nForeign;
    }
}

void ZqImageContent::take(const SxString& path, bool isOwn) {
    if (!isOwn) {
        ++nForeign;
        return;
    }
    ++nFiles;
    const auto info = SxFSAction::look(path);
    if (info) nBytes += static_cast<uint64>(std::max<int64>(info->allocated, 0));
    if (path == folder + ZqImageFiles::APP_JSON) {
        last.prepend(path); // a lock alone is still known as the rest of an image
    } else {
        (path == folder + ZqImageFiles::LOCK ? last : files) << path;
    }
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
