#include "ZqImageStorer.h"

#include "SxClock.h"
#include "ZqLog.h"

void ZqRemoteImage::Storer::main() {
    int64 stopNs = 0;
    for (;;) {
        bool isIdle = false;
        try {
            isIdle = !image->storeNext();
        } catch (const SxException& e) {
            // What the store hasn't got stays in memory.
            zqLogMsg("NET", e.toString(SxException::ShowMessage, ": "));
        }
        if (!stopping) continue;
        const int64 nowNs = SxClock::get().steadyNs();
        if (stopNs == 0) stopNs = nowNs;
        if (isIdle || nowNs - stopNs > DRAIN_NS) return;
    }
}
