#pragma once

#include "SxString.h"
#include "ZqImageLock.h"

/// The locks of an image that a disk holds from before it opens the image until all of the disk is removed.
class DiskLocks {
public:
    /// `writesInPlace`: programs write into `img.zqf`. Raises where somebody else has the image.
    DiskLocks(const SxString& image, bool writesInPlace);

    /// While it is held nobody puts blocks of `img.zqf` right, which would undo what programs write there.
    /// Raises while somebody does that.
    static SxPtr<ZqImageLock> takeBlocks(const SxString& image);
    void release();

private:
    SxPtr<ZqImageLock> drive, shape;
    SxPtr<ZqImageLock> blocks; ///< of a disk that writes into `img.zqf`
};
