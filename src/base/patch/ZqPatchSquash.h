#pragma once

#include "ZqFileCopyTask.h"

/// Closes the holes of a ZqF file: the blocks beyond the number that are used go into the slots below it that
/// hold none.
namespace ZqPatchSquash {
/// Changes `idx`, the map of a file of `nBlocks` blocks, to where the blocks lie then, and gives the copies
/// that bring them there within the file. All sources lie behind all targets, so the copies can be done again
/// until the file is cut. Raises where a slot lies beyond the file, or two items share one.
SxArray<ZqFileCopyTask::Range> plan(SxArray<uint64>* idx, uint64 nBlocks);
} // namespace ZqPatchSquash
