#include "ZqPatchLists.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMd5.h"
#include "ZqArchiveFile.h"
#include "ZqPatchFiles.h"

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
