#pragma once

#include "ZqPatchParams.h"
#include "ZqPatchSizes.h"

#include <vector>

/// The lists of a patch folder before it is applied.
namespace ZqPatchLists {
/// The parts of the patch in `patch`, whose archive must be as `params` says; it is unpacked in the folder
/// `scratch`. Both have their trailing slash. Raises where the streams of the parts haven't the size that
/// `params` states for all of them.
std::vector<ZqPatchSizes> readParts(const SxString& patch, const ZqPatchParams& params,
                                    const SxString& scratch);
} // namespace ZqPatchLists
