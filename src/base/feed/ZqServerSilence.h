#pragma once

#include "SxTypes.h"

#include <atomic>

/// How long a server has been silent while bytes of it are wanted. look() is for one thread; the time is
/// safe from any.
class ZqServerSilence {
public:
    /// `nBytes`: all that has come so far. To be called now and then.
    void look(uint64 nBytes, bool isWanted);
    int64 getMs() const { return ms; }

private:
    uint64 nSeen = 0;
    int64 seenNs = 0; ///< when they came
    std::atomic<int64> ms{0};
};
