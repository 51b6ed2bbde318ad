#include "ZqReadAhead.h"

namespace {
/// Stretches are fetched together where a round trip carries so much of one: so many round trips' worth, and
/// never more than the last.
constexpr double MIN_IN_TRIP = 0.5, TRIPS_TOGETHER = 4., MAX_TOGETHER = 8.;
} // namespace

uint64 ZqReadAhead::countTogether(const SxPtr<ZqSeekTable>& table) const {
    if (layout.count() == 0) return 1;
    const double trip = link->getFigures().tripBytes;
    const uint64 lastIdx = layout.count() - 1;
    const double nWire =
        table ? static_cast<double>(table->getFrame(lastIdx).offset + table->getFrame(lastIdx).size)
              : static_cast<double>(layout.getSizeZqf());
    const double inTrip = trip / nWire * static_cast<double>(lastIdx + 1);
    if (inTrip < MIN_IN_TRIP) return 1;
    return static_cast<uint64>(std::clamp(inTrip * TRIPS_TOGETHER, 2., MAX_TOGETHER));
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
