#include "ZqReadAhead.h"

namespace {
/// Those that follow come along as far as so many round trips carry them, and the first one only where a
/// single one carries it. Where one carries so much of a usual stretch, the first one comes in any case.
constexpr double TRIPS_TOGETHER = 3., TRIPS_FIRST = 1., MIN_IN_TRIP = 0.5;
constexpr uint64 MAX_FOLLOWING = 8;
} // namespace

uint64 ZqReadAhead::countFollowing(uint64 firstIdx, const SxPtr<ZqSeekTable>& table) const {
    const double trip = link->getFigures().tripBytes;
    const uint64 end = layout.count();
    if (firstIdx >= end) return 0;
    double sum = 0.;
    uint64 n = 0;
    for (; n < MAX_FOLLOWING && firstIdx + n < end; ++n) {
        const uint64 idx = firstIdx + n;
        sum += static_cast<double>(table ? table->getFrame(idx).size : layout.sizeOf(idx));
        if (sum > (n == 0 ? TRIPS_FIRST : TRIPS_TOGETHER) * trip) break;
    }
    if (n > 0) return n;
    const uint64 nWire =
        table ? table->getFrame(end - 1).offset + table->getFrame(end - 1).size : layout.getSizeZqf();
    return trip / static_cast<double>(nWire) * static_cast<double>(end) >= MIN_IN_TRIP ? 1 : 0;
}

bool ZqReadAhead::mayTry() const {
    SxMutexBlock lock(&mutex);
    return nLeft > 0;
}

void ZqReadAhead::noteTry() {
    SxMutexBlock lock(&mutex);
    if (nLeft > 0) --nLeft;
}

void ZqReadAhead::noteUse() {
    SxMutexBlock lock(&mutex);
    nLeft = std::min(nLeft + 2, 2 * FIRST_TOGETHER);
}
