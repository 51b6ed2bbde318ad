#pragma once

#include "SxArray.h"
#include "ZqNetLink.h"

/// Brings a partial image to the block order that its server has by now, where both are of the same version:
/// what is there is copied, and needn't be downloaded again.
namespace ZqOrderCarry {
/// `image`: the folder, `url`: the address of the image's folder; both as ZqImageRecords takes them. Nobody
/// holds ZqImageLock::Shape of the image. Raises where the order can't be fetched or taken, with the image as
/// it was, and after a stop. Gives a line that says how much is kept.
SxString run(const SxPtr<ZqNetLink>& link, const SxString& image, const SxString& url,
             const SxArray<SxString>& headers, const ZqStopTest& stop);
/// Removes what one that was killed has left of the order that it had fetched. Whoever calls holds
/// ZqImageLock::Shape.
void removeRemains(const SxString& image);
} // namespace ZqOrderCarry
