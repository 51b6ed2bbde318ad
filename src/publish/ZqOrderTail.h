#pragma once

#include "ZqBlockUse.h"

#include <span>

/// Puts blocks that some runs have read, and others not, in such an order that what is read together lies
/// together: `rawIdcs` are RAW indices, and change places. It goes by the sketch of the runs that have read
/// a block: first come the blocks of the run that has most of them, among these first those that the run
/// with the next most has read, too, and so on; of the same runs neighbours on the disk stay together, and
/// stand in the order of their first reads. So what one level of a game alone needs is in one piece, and few
/// stretches hold pieces of two.
///
/// Sessions of three games were held out, and read from such orders by a model of the link at 20 Mbit/s, when
/// a block's place was still the mean of the runs. By folder first, then by how many runs, and then by which,
/// sessions that were traced beside eleven others took 1.27 times their ideal, and 1.16 so; others took 1.42
/// and 1.36. A chain of the most similar sketches was as good (1.13 and 1.38), but takes the square of their
/// number.
void zqOrderTail(const ZqBlockUse& use, std::span<uint64> rawIdcs);
