#pragma once

#include "ZqPatchSide.h"

/// Which block of the old image each block of the new one is, by content. Each block of either is named once
/// at most. Neighbours stay together: what is found once in both images comes first, then what stands beside
/// that at the same distance, then what stands at the same place, and only then copies in their order.
namespace ZqBlockMatch {

/// By new item the old one with the same fingerprint, ZqPatchSide::NONE for none.
std::vector<uint32> match(const ZqPatchSide& older, const ZqPatchSide& newer);
/// Takes those away whose bytes differ in spite of their fingerprints, on all cores. Counts in bytes of new
/// blocks.
void confirm(const ZqPatchSide& older, const ZqPatchSide& newer, std::vector<uint32>* matched,
             ZqTaskMon* progress);

} // namespace ZqBlockMatch
