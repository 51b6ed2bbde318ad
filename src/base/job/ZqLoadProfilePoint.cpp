#include "ZqLoadProfilePoint.h"

#include <algorithm>
#include <limits>

uint64 ZqLoadProfilePoint::getNInit(const SxList<ZqLoadProfilePoint>& points, double speedMbit) {
    const double exact = speedMbit * 1000 * 1000 / 8;
    constexpr double LIMIT = 18446744073709551616.0;
    const uint64 bytesPerSecond = !(exact > 0)     ? 0
                                  : exact >= LIMIT ? std::numeric_limits<uint64>::max()
                                                   : static_cast<uint64>(exact);
    uint64 most = 0;
    for (const ZqLoadProfilePoint& point : points) {
        uint64 arrived = 0;
        // A product beyond 64 bits is more than any size.
        if (__builtin_mul_overflow(bytesPerSecond, point.time, &arrived)) continue;
        if (point.size > arrived) most = std::max(most, point.size - arrived);
    }
    return most;
}

uint64 ZqLoadProfilePoint::getBpS(const SxList<ZqLoadProfilePoint>& points, uint64 nInit) {
    uint64 most = 0;
    for (const ZqLoadProfilePoint& point : points) {
        if (point.size < nInit) continue;
        uint64 need = point.size - nInit;
        if (point.time != 0) need = need / point.time + (need % point.time != 0 ? 1 : 0);
        most = std::max(most, need);
    }
    return most;
}
