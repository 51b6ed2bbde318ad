#include "ZqFleetFiles.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqImageFiles.h"
#include "ZqTraceFiles.h"

#include <algorithm>
#include <array>

namespace {

constexpr const char* UNIT = "src/base/fleet/ZqFleetFiles";
constexpr std::array<const char*, 3> SUFFIXES = {".json", ".jsonl", ".ndjson"};
/// What lies in images, traces and patches beside the records of runs, so that a folder of images can be
/// given.
constexpr std::array<const char*, 9> OTHERS = {ZqImageFiles::APP_JSON,
                                               ZqImageFiles::IMAGE_JSON,
                                               ZqImageFiles::STREAM_JSON,
                                               ZqImageFiles::EXTRACT_JSON,
                                               "preparations.json",
                                               ZqTraceFiles::RECORD,
                                               "sources.json",
                                               "patch.json",
                                               "origin.json"};

bool isDocument(const SxString& name) {
    return std::any_of(SUFFIXES.begin(), SUFFIXES.end(),
                       [&](const char* suffix) { return name.endsWith(suffix); }) &&
           std::none_of(OTHERS.begin(), OTHERS.end(), [&](const char* other) { return name == other; });
}

} // namespace

ZqFleetFiles::ZqFleetFiles(const SxList<SxString>& given, const SxList<SxString>& outputs_)
    : outputs(outputs_) {
    for (const SxString& path : given) {
        if (SxFSAction::test_d(path)) {
            addBelow(path);
        } else if (SxFSAction::exists(path)) {
            add(path);
        } else {
            throw SxException("'" + path + "' isn't there", UNIT, __LINE__);
        }
    }
}

void ZqFleetFiles::addBelow(const SxString& folder) {
    std::vector<SxString> open = {folder};
    while (!open.empty()) {
        const SxString at = open.back();
        open.pop_back();
        std::vector<SxString> inner;
        for (const SxFileInfo& entry : SxFSAction::ls(at)) {
            const auto info = SxFSAction::look(entry.getOrig());
            if (!info) continue;
            if (info->kind == SxStat::Dir) inner.push_back(entry.getOrig());
            if (info->kind == SxStat::File && isDocument(entry.getName())) add(entry.getOrig());
        }
        open.insert(open.end(), inner.rbegin(), inner.rend());
    }
}

void ZqFleetFiles::add(const SxString& path) {
    SxStat info;
    const int result = SxOs::get().stat(SxOs::hostPath(path), &info);
    if (result == 0) nBytes += static_cast<uint64>(std::max<int64>(info.size, 0));
    for (const SxString& output : outputs) {
        SxStat other;
        if (result != 0 || SxOs::get().stat(SxOs::hostPath(output), &other) != 0) continue;
        if (other.device != info.device || other.inode != info.inode) continue;
        throw SxException("'" + output + "' can't be written, since it is one of the files to read ('" +
                              path + "')",
                          UNIT, __LINE__);
    }
    paths.push_back(path);
}
