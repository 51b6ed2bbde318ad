#include "ZqWriteRoom.h"

#include "SxClock.h"

namespace {
/// From one look at the free room to the next, while there is enough. What is written between two looks
/// counts.
constexpr int64 LOOK_NS = 1'000'000'000;
} // namespace

bool ZqWriteRoom::take(uint64 nBytes) {
    const int64 nowNs = SxClock::get().steadyNs();
    if (nBytes > left || nowNs - lookNs >= LOOK_NS) {
        left = reserve.getRoom();
        lookNs = nowNs;
    }
    if (nBytes > left) return false;
    left -= nBytes;
    return true;
}
