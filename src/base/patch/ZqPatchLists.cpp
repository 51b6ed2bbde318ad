#include "ZqPatchLists.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "ZqAppParams.h"
#include "ZqArchiveFile.h"
#include "ZqPatchFiles.h"

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/base/patch/ZqPatchLists";
} // namespace

std::vector<ZqPatchSizes> ZqPatchLists::readParts(const SxString& patch, const ZqPatchParams& params,
                                                  const SxString& scratch) {
    const SxString archive = patch + ZqPatchFiles::INFO_7Z;
    if (static_cast<uint64>(SxFSAction::sizeOf(archive)) != params.sizeInfo ||
        !(SxMd5::file(archive) == params.hashInfo)) {
        throw SxException("'" + archive + "' isn't the archive that its patch.json says", UNIT, __LINE__);
    }
    if (!ZqArchiveFile::take(archive, scratch, ZqPatchFiles::INFO))
        throw SxException("'" + archive + "' doesn't hold " + ZqPatchFiles::INFO, UNIT, __LINE__);
    const SxString file = scratch + ZqPatchFiles::INFO;
    const std::vector<ZqPatchSizes> parts = ZqPatchSizes::of(ZqPatchInfo::read(file));
    SxFSAction::rm(file);
    uint64 bytes = 0;
    for (const ZqPatchSizes& part : parts)
        bytes += part.patchSize;
    if (bytes != params.sizeData) {
        throw SxException("The streams in '" + archive + "' have " + SxString(bytes) +
                              " bytes, and patch.data " + SxString(params.sizeData) + " by patch.json",
                          UNIT, __LINE__);
    }
    return parts;
}

ZqPatchRoom::State ZqPatchLists::stateAtStart(const SxString& image, const SxString& patch) {
    const ZqAppParams to(patch);
    ZqPatchRoom::State state;
    state.isReplace = ZqPatchParams(patch).compression == ZqPatchCompression::REPLACE;
    state.sizeIdx = to.sizeIdx;
    // The patched image has just the blocks that are included, which is what the record of a patch states.
    const auto size = static_cast<uint64>(std::max<int64>(SxFSAction::sizeOf(image + ZqImageFiles::ZQF), 0));
    state.growth = to.sizeZqf > size ? to.sizeZqf - size : 0;
    return state;
}
