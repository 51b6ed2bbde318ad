#pragma once

#include "SxString.h"
#include "ZqImageLock.h"

/// What programs have written into an image's blocks, by way of a drive. It looks like damage, so whoever
/// puts blocks right asks here. Safe from any thread.
class ZqProgramWrites {
public:
    /// `job`: shown to whoever finds the blocks locked.
    ZqProgramWrites(SxString image_, SxString job_) : image(std::move(image_)), job(std::move(job_)) {}

    /// Whether programs have written into the image by now. ZqMountMgr notes it before they can, also of an
    /// image without an address, since a later run may bring one.
    bool areNoted() const;
    /// Taken by whatever puts blocks right: no drive that writes there comes up while this is held, and what
    /// one has written before is known. Raises where programs have written there, or may.
    SxPtr<ZqImageLock> lockOut() const;

private:
    const SxString image, job;
};
