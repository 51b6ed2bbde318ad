#pragma once

#include "SxList.h"
#include "SxTypes.h"

/// One measured point of a load profile: how many bytes of `img.zqf` must be there at which time.
class ZqLoadProfilePoint {
public:
    uint64 time = 0; ///< seconds since the start of the application
    uint64 size = 0; ///< bytes that must be present then

    /// Bytes that must be present before the start so that at `speedMbit` megabit per second every point is
    /// reached in time; 0 for an empty list.
    static uint64 getNInit(const SxList<ZqLoadProfilePoint>& points, double speedMbit);
    /// Bytes per second that the profile asks for once `nInit` bytes are present; a point at time 0 counts
    /// with its whole difference. 0 if no point lies at or above `nInit`.
    static uint64 getBpS(const SxList<ZqLoadProfilePoint>& points, uint64 nInit);

    bool operator==(const ZqLoadProfilePoint&) const = default;
};
