#pragma once

#include "SxFileIO.h"
#include "ZqMovePlan.h"

#include <span>

/// A look at some of a file's blocks, to tell it from another file, such as one that was brought back.
namespace ZqBlockProbe {
/// XXH64 of up to 16 blocks, at positions that lie evenly among `positions`; 0 where there are none. Raises
/// where the file ends before one.
uint64 of(SxFileIO* file, std::span<const ZqMovePlan::Position> positions);
} // namespace ZqBlockProbe
