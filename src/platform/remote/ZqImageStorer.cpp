#include "ZqImageStorer.h"

#include "SxClock.h"
#include "ZqLog.h"

void ZqRemoteImage::Storer::main() {
    int64 stopNs = 0;
    for (;;) {
        // Before the look, or what came at last would be left out.
        const bool isEnding = stopping;
        bool isStored = true;
        try {
            isStored = image->storeNext();
        } catch (const SxException& e) {
            // What the store hasn't got stays in memory.
            zqLogMsg("NET", e.toString(SxException::ShowMessage, ": "));
        }
        if (!isEnding) {
            if (!isStored) image->awaitStorable(stopping);
            continue;
        }
        const int64 nowNs = SxClock::get().steadyNs();
        if (stopNs == 0) stopNs = nowNs;
        if (!isStored || nowNs - stopNs > DRAIN_NS) return;
    }
}
