#include "ZqImageAheadLoader.h"

#include "ZqImageFetch.h"
#include "ZqLog.h"

void ZqRemoteImage::AheadLoader::main() {
    while (!stopping) {
        const SxPtr<Fetch> fetch = image->takeFollowing();
        if (!fetch) continue;
        try {
            image->takeUpTo(fetch.getPtr(), fetch->endIdx, [this] { return stopping.load(); });
        } catch (const SxException& e) {
            if (e.hasTag(SxException::STOPPED)) return;
            // Whoever needs the bytes asks for them again, and is told.
            zqLogMsg("NET", e.toString(SxException::ShowMessage, ": "));
        } catch (const std::exception& e) {
            zqLogMsg("NET", SxString("What follows isn't fetched for now: ") + e.what());
        }
    }
}
