#pragma once

#include "ZqBlockUse.h"

/// The order of the blocks that no run has read, by the files that they belong to. Folder after folder, and
/// first those whose files are the most likely to be read; in a folder first the rest of files that were
/// read in part, then those files that others of their kind make likely. So what a level needs that nobody
/// has traced lies in few stretches.
///
/// Of the same kind are files with the same name, but for digits, in the folders beside theirs; less so those
/// with the same extension in the same folder; less so those with the same extension; and least all others.
/// What is known of each kind is weighed against what is known of the wider ones: a kind with few files tells
/// little. Whole numbers, so that the order is the same on every machine.
///
/// Shows the RAW indices of all blocks of `image.files` for which `isOpen` is true, each once.
void zqUnreadOrder(const ZqOrderImage& image, const ZqBlockUse& use,
                   const std::function<bool(uint64 rawIdx)>& isOpen,
                   const std::function<void(uint64 rawIdx)>& show);
