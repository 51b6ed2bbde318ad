#include "ZqImageStaging.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "ZqAppParams.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageReplacement.h"
#include "ZqLog.h"

#include <algorithm>
#include <vector>

namespace {

constexpr const char* UNIT = "src/base/ZqImageStaging";

/// Folders that `path` lies in, itself included, with all links resolved.
std::vector<std::string> physicalParents(const SxString& path) {
    std::string resolved = SxOs::physicalPath(SxOs::hostPath(SxFileInfo(path).getAbsPath()));
    if (resolved == "/") resolved.clear();
    std::vector<std::string> parents;
    for (size_t end = resolved.size(); end != std::string::npos && end > 0;
         end = resolved.rfind('/', end - 1)) {
        parents.push_back(resolved.substr(0, end));
    }
    return parents;
}

/// What an image folder holds beyond an image as it was made.
struct Gathered {
    static constexpr const char* TRACES = "traces";

    explicit Gathered(const SxString& folder_) : folder(folder_) {
        hasTraces = SxFSAction::test_d(folder + TRACES) && !SxFSAction::ls(folder + TRACES).isEmpty();
        hasLayer = ZqImageFolder::hasWrittenLayer(folder);
        if (!SxFSAction::test_f(folder + ZqImageFiles::APP_JSON)) return;
        try {
            app.read(folder);
            buildId = app.checksumMnt;
        } catch (const SxException&) {
            // Then nothing is known of what stands there.
            buildId = SxString();
        }
    }

    /// Whether `img.zqf` is no longer what was made, since a drive wrote into it. A layer beside it then
    /// holds only a part of what was written, and counts as lost together with it. Reads all of the file.
    bool isImageWritten() const {
        const SxString zqf = folder + ZqImageFiles::ZQF;
        if (app.checksumZqf.isEmpty()) return false;
        // No drive writes into an image that isn't complete.
        const int64 size = SxFSAction::sizeOf(zqf);
        if (size < 0 || static_cast<uint64>(size) < app.sizeZqf) return false;
        return !(SxMd5::file(zqf, nullptr) == app.checksumZqf);
    }

    SxString folder, buildId;
    ZqAppParams app;
    bool hasTraces = false, hasLayer = false;
};

} // namespace

ZqImageStaging::ZqImageStaging(const SxString& target_, const SxString& job, bool mayDiscard_)
    : target(target_),
      staging(target_ + ZqImageFiles::STAGING),
      folder(target_),
      lock(ZqImageLock::take(target_, ZqImageLock::Shape, ZqImageLock::Exclusive, job)),
      mayDiscard(mayDiscard_) {
    // What would be lost is better told now than after all the work.
    const Gathered gathered(target);
    if (gathered.buildId.isEmpty()) findKept(gathered.buildId);
}

ZqImageStaging::~ZqImageStaging() {
    // A folder that was made here held no image before, so none is lost with what has been begun in it.
    if (!complete && (folder.isNew() || !begun)) discard();
}

SxString ZqImageStaging::begin(uint64 need) const {
    if (SxFSAction::exists(staging)) SxFSAction::rm_r(staging);
    ZqImageFolder::requireSpace(target, need);
    SxFSAction::mkdir_p(staging, 0777);
    return staging;
}

SxList<SxString> ZqImageStaging::findKept(const SxString& buildId) const {
    const Gathered gathered(target);
    const bool isSame = !buildId.isEmpty() && buildId == gathered.buildId;
    // Reading a large image takes long, so only where the answer counts.
    const bool isWritten = (!mayDiscard || (isSame && gathered.hasLayer)) && gathered.isImageWritten();
    // Records of runs say of which build they are.
    SxList<SxString> kept = {SxString(ZqImageFiles::RUNS).left("/")}, lost;
    // It goes by the disk's own blocks, too; one that the new image brings takes its place.
    if (isSame || !SxFSAction::isGone(staging + ZqImageFiles::FILES)) kept << SxString(ZqImageFiles::FILES);
    if (isSame) {
        kept << Gathered::TRACES << ZqImageFiles::TRACES_NOTE;
    } else if (gathered.hasTraces) {
        lost << "traces (" + target + Gathered::TRACES + ")";
    }
    if (isSame && !isWritten) {
        kept << SxString(ZqImageFiles::LAYER_INDEX) << SxString(ZqImageFiles::LAYER_DATA);
    } else if (gathered.hasLayer) {
        lost << SxString("what drives have written (") + ZqImageFiles::LAYER_INDEX + ")";
    }
    if (isWritten) {
        lost << SxString("what drives have written (") + ZqImageFiles::ZQF +
                    ", which no longer has its digest)";
    }
    if (!lost.isEmpty() && !mayDiscard) {
        throw SxException("Image '" + target + "' holds " + SxString::join(lost, " and ") +
                              ", which the new image, of another build, would take away; copy what you need, "
                              "and discard it expressly (--discard), or name another folder",
                          UNIT, __LINE__);
    }
    return kept;
}

void ZqImageStaging::commit(const SxString& buildId) {
    const SxList<SxString> kept = findKept(buildId);
    folder.sync();
    // Set before the step: where nobody can tell afterwards whether it was done, nothing may be removed.
    begun = true;
    try {
        ZqImageReplacement::begin(target, kept);
    } catch (const SxException& e) {
        begun = ZqImageReplacement::isPending(target);
        if (!begun || folder.isNew()) throw;
        throw SxException(e,
                          "The new image of '" + target +
                              "' is complete, and the next command that writes there goes on",
                          UNIT, __LINE__);
    }
    folder.keep();
    complete = true;
}

void ZqImageStaging::discard() const {
    try {
        ZqImageReplacement::takeBack(target);
        if (!folder.isNew()) return;
        for (const char* name :
             {ZqImageFiles::ZQF, ZqImageFiles::IDX, ZqImageFiles::FILES, ZqImageFiles::IMAGE_JSON,
              ZqImageFiles::HINTS, ZqImageFiles::APP_JSON, ZqImageFiles::LOCK}) {
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
