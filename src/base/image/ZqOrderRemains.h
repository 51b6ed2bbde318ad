#pragma once

#include "SxString.h"

/// What an image folder holds beside `img.zqf` that is true of one order of its blocks only. Each operation
/// can be repeated. Whoever calls holds ZqImageLock::Shape exclusively, and the image has `optimize.lock` or
/// `patching/img.lock`: a power cut then leaves nobody who believes what is half removed. Folders have
/// trailing slashes.
namespace ZqOrderRemains {
/// Removes the packed forms and the reference file, with `alsoAhead` what a run has kept beyond the end of
/// `img.zqf`, and with `alsoIdxMd5` the digest file of the map. Forgets that `img.zqf` was found to have its
/// digest.
void remove(const SxString& image, bool alsoAhead, bool alsoIdxMd5);
/// Renews the note of how much of `img.zqf` is sure to be on the device, where there is one; all of it is.
void renewSyncedSize(const SxString& image);
} // namespace ZqOrderRemains
