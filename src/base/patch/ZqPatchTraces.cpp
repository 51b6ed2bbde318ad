#include "ZqPatchTraces.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "SxTime.h"
#include "ZqImageFiles.h"
#include "ZqRunTraces.h"
#include "ZqSysEnv.h"
#include "ZqTrace.h"
#include "ZqTraceSources.h"

#include <cstdlib>

namespace {
constexpr const char* UNIT = "src/base/patch/ZqPatchTraces";
constexpr const char *ITEMS = "img.trc", *RECORD = "trace.json";
/// Old and new name of the trace that is changing places, a line each.
constexpr const char* NOTE = "trace.note";
constexpr const char* ASIDE = "trace.new/";
} // namespace

ZqPatchTraces::ZqPatchTraces(const SxString& image_, const SxString& patch_, const SxString& work_,
                             const SxString& buildId_)
    : image(image_),
      patch(patch_),
      work(work_),
      buildId(buildId_) {
}

void ZqPatchTraces::map(const Log& log, const std::function<bool()>& isStopped) const {
    const SxString folder = image + ZqImageFiles::TRACES;
    finishPending();
    if (!SxFSAction::test_d(folder)) return;
    for (const SxDir& entry : SxFSAction::getDirs(folder)) {
        if (isStopped()) return;
        const SxString path = entry.getAbsPath() + "/";
        const bool hasItems = !SxFSAction::isGone(path + ITEMS),
                   hasRecord = !SxFSAction::isGone(path + RECORD);
        if (!hasItems && !hasRecord) continue;
        if (!ZqTraceSources::holdsTraceAlone(path)) {
            // It would go with the old trace.
            log("It holds something else than a trace, and stays as it is: " + path);
            continue;
        }
        log("Mapping trace " + path);
        if (SxFSAction::sizeOf(path + ITEMS) <= 0 || SxFSAction::sizeOf(path + RECORD) <= 0) {
            log("Corrupted trace " + path);
            SxFSAction::rm_r(path);
            continue;
        }
        try {
            if (!mapAside(path, log)) continue;
        } catch (const SxException& e) {
            log("Failed to map trace " + path + ": " + e.toString(0, "\n"));
            log(e.toString(1, "\n"));
            continue;
        }
        // From here on a failure ends it: the note is needed by who goes on.
        SxFileIO::writeAtomic(work + NOTE, SxFileInfo(path).getName() + "\n" + newName() + "\n");
        SxFSAction::syncDir(work);
        finishPending();
    }
}

/// Whether a trace of the new version lies there then, on the device.
bool ZqPatchTraces::mapAside(const SxString& path, const Log& log) const {
    const ZqTrace trace(path);
    const SxString stated = ZqTraceParams(path).checksumMnt;
    if (!stated.isEmpty() && !(stated == buildId)) {
        log("It is of another build, and stays as it is: " + path);
        return false;
    }
    const SxString aside = work + ASIDE;
    if (!SxFSAction::isGone(aside)) SxFSAction::rm_r(aside);
    trace.mapToImage(patch, aside);
    // The old one goes by the note alone.
    for (const char* name : {ITEMS, RECORD})
        SxFileIO(aside + name, "rb").sync();
    SxFSAction::syncDir(aside);
    SxFSAction::syncDir(work);
    return true;
}

/// Brings the trace that is noted to its place. Can be repeated.
void ZqPatchTraces::finishPending() const {
    const SxString note = work + NOTE, folder = image + ZqImageFiles::TRACES;
    if (SxFSAction::isGone(note)) return;
    const SxList<SxString> names = SxFileIO::readUtf8(note).tokenize('\n');
    // They come from a file, and must not lead out of the folder.
    const auto isName = [](const SxString& name) {
        return name.str().find('/') == std::string::npos && !(name == ".") && !(name == "..");
    };
    if (names.getSize() != 2 || !isName(names(0)) || !isName(names(1))) {
        throw SxException("'" + note + "' doesn't name two traces", UNIT, __LINE__);
    }
    const SxString oldPath = folder + names(0), newPath = folder + names(1), aside = work + ASIDE;
    if (SxFSAction::isGone(newPath)) SxFSAction::mv(aside, newPath);
    SxFSAction::syncDir(folder);
    SxFSAction::syncDir(work);
    ZqRunTraces(image).follow(names(0), names(1));
    if (!SxFSAction::isGone(oldPath)) SxFSAction::rm_r(oldPath);
    SxFSAction::syncDir(folder);
    SxFSAction::rm(note);
    SxFSAction::syncDir(work);
}

SxString ZqPatchTraces::newName() const {
    return SxTime::strftime("%y%m%d_%H%M_") + ZqSysEnv::getUserId() + "_" +
           SxMd5::get(SxString(ZqSysEnv::getSysTime()) + SxString(std::rand() % 1000));
}
