#pragma once

#include "SxString.h"

/// What an image folder holds beside `img.zqf` that is true of one order of its blocks only. Each operation
/// can be repeated. Whoever calls holds ZqImageLock::Shape exclusively, and the image has `optimize.lock` or
/// `patching/img.lock`: a power cut then leaves nobody who believes what is half removed. Folders have
/// trailing slashes.
namespace ZqOrderRemains {
/// What stays, since something new is about to replace it, or has replaced it already.
struct Kept {
    bool ahead = false;  ///< what a run has kept beyond the end of `img.zqf`
    bool idxMd5 = false; ///< the digest file of the map
    bool hints = false;
};
/// Removes the packed forms and the reference file, and of these three what isn't `kept`. Forgets that
/// `img.zqf` was found to have its digest.
void remove(const SxString& image, const Kept& kept);
/// Renews the note of how much of `img.zqf` is sure to be on the device, where there is one; all of it is.
void renewSyncedSize(const SxString& image);
} // namespace ZqOrderRemains
