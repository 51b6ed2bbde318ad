#include "ZqImageAheadLoader.h"

#include "ZqImageFetch.h"
#include "ZqLog.h"

void ZqRemoteImage::AheadLoader::main() {
    while (!stopping) {
        const SxPtr<Fetch> fetch = image->takeFollowing();
        if (!fetch) continue;
        try {
            finish(fetch.getPtr());
        } catch (const SxException& e) {
            if (e.hasTag(SxException::STOPPED)) return;
            // Whoever needs the bytes asks for them again, and is told.
            zqLogMsg("NET", e.toString(SxException::ShowMessage, ": "));
        } catch (const std::exception& e) {
            zqLogMsg("NET", SxString("Nothing is fetched ahead for now: ") + e.what());
        }
    }
}

void ZqRemoteImage::AheadLoader::finish(Fetch* fetch) {
    const ZqStopTest stop = [this] { return stopping.load(); };
    while (fetch->nextIdx < fetch->endIdx) {
        const uint64 idx = fetch->nextIdx;
        image->keep(idx, image->takeNext(fetch, stop), &Figures::nAhead);
        ++fetch->claimedIdx;
        image->forgetAhead(idx);
    }
}
