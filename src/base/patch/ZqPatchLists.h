#pragma once

#include "ZqPatchParams.h"
#include "ZqPatchRoom.h"

#include <vector>

/// The lists of a patch folder before it is applied.
namespace ZqPatchLists {
/// The parts of the patch in `patch`, whose archive must be as `params` says; it is unpacked in the folder
/// `scratch`. Both have their trailing slash. Raises where the streams of the parts haven't the size that
/// `params` states for all of them.
std::vector<ZqPatchSizes> readParts(const SxString& patch, const ZqPatchParams& params,
                                    const SxString& scratch);
/// What a patch takes of the disk of `image`, before it is begun, as far as records tell.
ZqPatchRoom::State stateAtStart(const SxString& image, const SxString& patch);
} // namespace ZqPatchLists
