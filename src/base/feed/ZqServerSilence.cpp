#include "ZqServerSilence.h"

#include "SxClock.h"

void ZqServerSilence::look(uint64 nBytes, bool isWanted) {
    const int64 nowNs = SxClock::get().steadyNs();
    if (nBytes != nSeen || !isWanted || seenNs == 0) seenNs = nowNs;
    nSeen = nBytes;
    ms = (nowNs - seenNs) / 1'000'000;
}
