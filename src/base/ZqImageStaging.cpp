#include "ZqImageStaging.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqImageFiles.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"

#include <algorithm>
#include <vector>

namespace {

constexpr const char* UNIT = "src/base/ZqImageStaging";

/// Folders that `path` lies in, itself included, with all links resolved.
std::vector<std::string> physicalParents(const SxString& path) {
    // What doesn't exist yet has no links.
    SxString existing = SxOs::hostPath(SxFileInfo(path).getAbsPath());
    std::string rest, resolved;
    while (SxOs::get().canonical(existing.str(), &resolved) < 0 && !(existing == "/")) {
        rest.insert(0, "/" + SxFileInfo(existing).getName().str());
        existing = SxFileInfo(existing).getPath();
    }
    resolved = resolved == "/" ? rest : resolved + rest;
    std::vector<std::string> parents;
    for (size_t end = resolved.size(); end != std::string::npos && end > 0;
         end = resolved.rfind('/', end - 1)) {
        parents.push_back(resolved.substr(0, end));
    }
    return parents;
}

} // namespace

ZqImageStaging::ZqImageStaging(const SxString& target_, const SxString& job)
    : target(target_),
      staging(target_ + ZqImageFiles::STAGING),
      folder(target_),
      lock(ZqImageLock::take(target_, ZqImageLock::Shape, ZqImageLock::Exclusive, job)) {
}

ZqImageStaging::~ZqImageStaging() {
    // Where the old image is gone, the new one is all there is.
    if (!complete && (folder.isNew() || !replacing)) discard();
}

SxString ZqImageStaging::begin(uint64 need) const {
    if (SxFSAction::exists(staging)) SxFSAction::rm_r(staging);
    requireSpace(target, need);
    SxFSAction::mkdir_p(staging, 0777);
    return staging;
}

void ZqImageStaging::commit() {
    folder.sync();
    replace();
    folder.keep();
    complete = true;
}

void ZqImageStaging::replace() {
    // app.json goes first and comes last: without it, a folder that was cut off half way isn't taken for an
    // image.
    const SxString app = ZqImageFiles::APP_JSON;
    // The new one must not go where the old one has gone.
    SxFSAction::syncDir(target);
    if (SxFSAction::exists(target + app)) SxFSAction::rm(target + app);
    replacing = true;
    SxFSAction::syncDir(target);
    for (const SxFileInfo& old : SxFSAction::ls(target)) {
        const SxString name = old.getName();
        if (name == ZqImageFiles::LOCK || name + "/" == ZqImageFiles::STAGING) continue;
        SxFSAction::rm_r(old);
    }
    for (const char* name : {ZqImageFiles::ZQF, ZqImageFiles::IDX, ZqImageFiles::IMAGE_JSON}) {
        SxFSAction::mv(staging + name, target + name);
    }
    SxFSAction::syncDir(target);
    SxFSAction::mv(staging + app, target + app);
    SxFSAction::syncDir(target);
    SxFSAction::rm_r(staging);
    SxFSAction::syncDir(target);
}

void ZqImageStaging::discard() const {
    try {
        if (SxFSAction::exists(staging)) SxFSAction::rm_r(staging);
        if (!folder.isNew()) return;
        for (const char* name : {ZqImageFiles::ZQF, ZqImageFiles::IDX, ZqImageFiles::IMAGE_JSON,
                                 ZqImageFiles::APP_JSON, ZqImageFiles::LOCK}) {
            if (SxFSAction::exists(target + name)) SxFSAction::rm(target + name);
        }
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqImageStaging : cannot remove what was written so far: " + e.toString(3, "\n"));
    }
}

bool ZqImageStaging::liesIn(const SxString& inner, const SxString& outer) {
    const std::vector<std::string> above = physicalParents(inner), wanted = physicalParents(outer);
    return wanted.empty() || std::find(above.begin(), above.end(), wanted.front()) != above.end();
}

void ZqImageStaging::refuseOverlap(const SxString& a, const SxString& b) {
    if (liesIn(a, b) || liesIn(b, a)) {
        throw SxException("The folders '" + a + "' and '" + b + "' lie in each other", UNIT, __LINE__);
    }
}

void ZqImageStaging::requireSpace(const SxString& path, uint64 need) {
    const uint64 free = ZqSysEnv::getFreeDiskSpace(path);
    if (free < need) {
        throw SxException("Folder '" + path + "' lies on a disk with " + free + " bytes free, " + need +
                              " are needed",
                          UNIT, __LINE__);
    }
}
