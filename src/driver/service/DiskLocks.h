#pragma once

#include "SxString.h"
#include "ZqImageLock.h"

#include <atomic>

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

/// That the kernel may read an image (ZqImageLock::noteKernel()). To be destroyed after whatever has
/// `img.zqf` open: then the note goes, unless the kernel still reads it.
class KernelNote {
public:
    explicit KernelNote(const SxString& image_) : image(image_) {}
    ~KernelNote();
    KernelNote(const KernelNote&) = delete;
    KernelNote& operator=(const KernelNote&) = delete;

    /// Raises where it can't be made.
    void make();
    /// A former service has made it.
    void takeOver() { isMade = true; }

private:
    const SxString image;
    std::atomic<bool> isMade{false};
};
