#include "ZqImageReplacement.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/shared/ZqImageReplacement";
constexpr const char* NOTE = "ready";
constexpr const char* BLOCKS[] = {ZqImageFiles::ZQF, ZqImageFiles::IDX, ZqImageFiles::IMAGE_JSON};

SxString stagingOf(const SxString& folder) {
    return ZqImageFolder::prefix(folder) + ZqImageFiles::STAGING;
}

/// Whether a file of the new image is in its place by now.
bool isNew(const SxString& name, const SxString& staging) {
    if (!SxFSAction::isGone(staging + name)) return false;
    // Not every image has hints. Those that stand there once blocks have come are the new ones.
    if (name == ZqImageFiles::HINTS) return SxFSAction::isGone(staging + ZqImageFiles::ZQF);
    return std::find(std::begin(BLOCKS), std::end(BLOCKS), name) != std::end(BLOCKS);
}

/// Removes what the image folder held, but for what stays. Files of the new image may be in their places.
void removeOld(const SxString& target, const SxString& staging, const SxList<SxString>& kept) {
    for (const SxFileInfo& old : SxFSAction::ls(target)) {
        const SxString name = old.getName();
        if (name == ZqImageFiles::LOCK || name + "/" == ZqImageFiles::STAGING) continue;
        if (std::find(kept.begin(), kept.end(), name) != kept.end()) continue;
        if (isNew(name, staging)) continue;
        SxFSAction::rm_r(old);
    }
}

void replace(const SxString& target, const SxString& staging) {
    const SxList<SxString> kept = SxFileIO::readLines(staging + NOTE, 0);
    // app.json goes first and comes last: without it, a folder that was cut off half way isn't taken for an
    // image.
    const SxString app = ZqImageFiles::APP_JSON;
    if (!SxFSAction::isGone(staging + app)) {
        if (!SxFSAction::isGone(target + app)) SxFSAction::rm(target + app);
        SxFSAction::syncDir(target);
        removeOld(target, staging, kept);
        // Old hints that came back beside new blocks would be taken for new ones.
        SxFSAction::syncDir(target);
        const auto put = [&](const char* name) {
            if (!SxFSAction::isGone(staging + name)) SxFSAction::mv(staging + name, target + name);
        };
        for (const char* name : BLOCKS)
            put(name);
        // Not every image has one, so `kept` names it where the new one has: else what stands there is old.
        put(ZqImageFiles::FILES);
        SxFSAction::syncDir(target);
        if (!SxFSAction::isGone(staging + ZqImageFiles::HINTS)) {
            // Blocks that came back there would make the hints count as old ones.
            SxFSAction::syncDir(staging);
            SxFSAction::mv(staging + ZqImageFiles::HINTS, target + ZqImageFiles::HINTS);
            SxFSAction::syncDir(target);
        }
        SxFSAction::mv(staging + app, target + app);
    }
    SxFSAction::syncDir(target);
    SxFSAction::rm_r(staging);
    SxFSAction::syncDir(target);
}

} // namespace

void ZqImageReplacement::begin(const SxString& folder, const SxList<SxString>& kept) {
    // The new one must not go where the old one has gone.
    SxFSAction::syncDir(folder);
    SxFileIO::writeAtomic(stagingOf(folder) + NOTE, SxString::join(kept, "\n"));
    replace(ZqImageFolder::prefix(folder), stagingOf(folder));
}

bool ZqImageReplacement::isPending(const SxString& folder) {
    return !SxFSAction::isGone(stagingOf(folder) + NOTE);
}

void ZqImageReplacement::finish(const SxString& folder) {
    try {
        replace(ZqImageFolder::prefix(folder), stagingOf(folder));
    } catch (const SxException& e) {
        throw SxException(e,
                          "Cannot put the new image of '" + folder + "' in its place, which a command began",
                          UNIT, __LINE__);
    }
}

void ZqImageReplacement::takeBack(const SxString& folder) {
    const SxString staging = stagingOf(folder);
    // First: what is left of the new image must not be taken for a whole one.
    if (!SxFSAction::isGone(staging + NOTE)) {
        SxFSAction::rm(staging + NOTE);
        SxFSAction::syncDir(staging);
    }
    if (!SxFSAction::isGone(staging)) SxFSAction::rm_r(staging);
}
