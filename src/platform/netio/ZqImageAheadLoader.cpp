#include "ZqImageAheadLoader.h"

#include "ZqImageFetch.h"
#include "ZqLog.h"

namespace {
/// Stretches that are fetched behind one.
constexpr uint64 N_AHEAD = 4;
constexpr auto LOOK = std::chrono::milliseconds(100);
} // namespace

void ZqRemoteImage::AheadLoader::stop() {
    stopping = true;
    asked.notify_all();
}

void ZqRemoteImage::AheadLoader::follow(uint64 stretchIdx, uint64 nAtOnce_) {
    nAtOnce = nAtOnce_;
    {
        const SxMutexBlock lock(&mutex);
        nextIdx = stretchIdx + 1;
        endIdx = std::min(nextIdx + N_AHEAD, ZqSeekTable::countFrames(image->sizeZqf));
    }
    asked.notify_all();
}

void ZqRemoteImage::AheadLoader::main() {
    std::deque<SxPtr<Fetch>> fetches;
    while (!stopping) {
        try {
            begin(&fetches);
            if (fetches.empty()) {
                SxMutexBlock lock(&mutex);
                if (nextIdx >= endIdx) asked.wait_for(mutex, LOOK);
                continue;
            }
            const SxPtr<Fetch> first = fetches.front();
            fetches.pop_front();
            finish(first);
        } catch (const SxException& e) {
            if (e.hasTag(SxException::STOPPED)) break;
            // Whoever needs the bytes asks for them again, and is told.
            zqLogMsg("NET", e.toString(SxException::ShowMessage, ": "));
            giveUp();
        } catch (const std::exception& e) {
            zqLogMsg("NET", SxString("Nothing is fetched ahead for now: ") + e.what());
            giveUp();
        }
    }
    for (const SxPtr<Fetch>& fetch : fetches)
        image->forgetAhead(fetch->stretchIdx);
}

void ZqRemoteImage::AheadLoader::giveUp() {
    const SxMutexBlock lock(&mutex);
    nextIdx = NONE;
}

uint64 ZqRemoteImage::AheadLoader::choose() {
    const SxMutexBlock own(&mutex);
    for (; nextIdx < endIdx; ++nextIdx) {
        if (image->claimAhead(nextIdx)) return nextIdx++;
    }
    return NONE;
}

void ZqRemoteImage::AheadLoader::begin(std::deque<SxPtr<Fetch>>* fetches) {
    while (fetches->size() < nAtOnce) {
        const uint64 idx = choose();
        if (idx == NONE) return;
        try {
            fetches->push_back(image->beginFetch(idx, ZqTransfer::Kind::Ahead));
        } catch (...) {
            image->forgetAhead(idx);
            throw;
        }
        image->noteAhead(fetches->back());
    }
}

void ZqRemoteImage::AheadLoader::finish(SxPtr<Fetch> fetch) {
    const uint64 idx = fetch->stretchIdx;
    try {
        image->keep(idx, image->finishFetch(std::move(fetch), [this] { return stopping.load(); }),
                    &Figures::nAhead);
    } catch (...) {
        // A reader may wait for it.
        image->forgetAhead(idx);
        throw;
    }
    image->forgetAhead(idx);
}
