#pragma once

#include "SxClock.h"
#include "ZqBlocks.h"
#include "ZqLog.h"

#include <algorithm>

/// One pass over what held reads wait for: its time, and what is there of `img.zqf` at that time.
struct ZqOnDemandPass {
    /// Bytes of one request; each starts at a multiple of it.
    static constexpr uint64 REQUEST_SIZE = ZqBlocks::STRETCH;

    uint64 number = 0; ///< from 1 on
    uint64 nTotal = 0, nCurrent = 0;
    int64 t0 = SxClock::get().steadyMs();

    void log(const SxString& text) const {
        zqLogMsg("base", "ZqCoreUnderflowMgr::onDemand (" + SxString(number) + "): " + text);
    }
    uint64 lengthAt(uint64 offset) const { return std::min(REQUEST_SIZE, nTotal - offset); }
};
