#include "ZqGrowingImage.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFileInfo.h"
#include "ZqFWriter.h"
#include "ZqFeedHealth.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageProgress.h"
#include "ZqLog.h"
#include "ZqReadable.h"
#include "ZqStretchStore.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/ZqGrowingImage";
constexpr int64 ROOM_LOOK_NS = 500'000'000;
constexpr int64 WRITER_LOOK_NS = 500'000'000;
/// Writers that fail one after the other without a byte written, until it is believed that the disk doesn't
/// work.
constexpr int WRITER_TRIES = 3;

} // namespace

ZqGrowingImage::ZqGrowingImage(const SxString& image_, ZqFeedHealth* health_)
    : image(image_),
      path(ZqImageFolder::prefix(image_) + ZqImageFiles::ZQF),
      health(health_) {
}

uint64 ZqGrowingImage::size() const {
    const SxFileInfo zqf(path);
    if (!zqf.isFile()) return 0;
    const auto told = static_cast<uint64>(zqf.getSize());
    return std::min(told, writeEnd());
}

/// Where no write is under way the size itself tells what can be read, also after a write that has failed.
uint64 ZqGrowingImage::writeEnd() const {
    const SxPtr<ZqFWriter> now = getWriter();
    return now && now->isRunning() ? now->getWriteEnd() : ZqImageProgress::ANY;
}

void ZqGrowingImage::measureDisk(bool mustFit) {
    reserve = ZqDiskReserve(image, size());
    lookForRoom();
    if (nShort == 0) return;
    const SxString text =
        "The image needs " + ZqReadable::megabytes(nShort) + " more on the disk of '" + image + "'";
    if (mustFit) {
        throw SxException(text + ": it is of " + ZqReadable::megabytes(total) + ", and " +
                              ZqReadable::megabytes(reserve.getSize()) + " of the disk are left to others",
                          UNIT, __LINE__);
    }
    zqLogMsg("base", "ZqImageFeed: " + text + ", and arrives as far as there is room");
}

void ZqGrowingImage::requireRoom(const SxString& who, uint64 nNeeded, const SxString& remedy) const {
    const uint64 nThere = size();
    const uint64 nMissing = nNeeded > nThere ? reserve.getMissing(nNeeded - nThere) : 0;
    if (nMissing == 0) return;
    throw SxException(who + " needs the first " + ZqReadable::megabytes(nNeeded) +
                          " of the image, and the disk of '" + image + "' lacks " +
                          ZqReadable::megabytes(nMissing) + " for that, beside the " +
                          ZqReadable::megabytes(reserve.getSize()) + " that are left to others: " + remedy,
                      UNIT, __LINE__);
}

void ZqGrowingImage::lookForRoom() {
    // What is kept beside the image goes as the image grows.
    if (isComplete()) {
        nShort = 0;
        return;
    }
    const uint64 nThere = size() + ZqStretchStore::sizeIn(image);
    nShort = reserve.getMissing(total - std::min(total, nThere));
}

void ZqGrowingImage::startWriter() {
    const auto fresh = SxPtr<ZqFWriter>::create(ZqImageFolder::prefix(image), ZqImageFiles::ZQF);
    fresh->setReserve(reserve);
    // ZqOrderedDownload bounds what waits for the writer, and a start must wait for no pace.
    fresh->setUnpaced();
    fresh->start();
    const SxMutexBlock block(&mutex);
    writer = fresh;
}

SxPtr<ZqFWriter> ZqGrowingImage::getWriter() const {
    const SxMutexBlock block(&mutex);
    return writer;
}

ZqGrowingImage::Writing ZqGrowingImage::keepWriter() {
    const SxPtr<ZqFWriter> now = getWriter();
    const int64 nowNs = SxClock::get().steadyNs();
    if (nowNs - roomNs >= ROOM_LOOK_NS || isComplete()) {
        roomNs = nowNs;
        lookForRoom();
    }
    const SxString roomLine =
        "waiting for room on the disk of '" + image + "': " + ZqReadable::megabytes(nShort) + " are missing";
    if (now->isRunning()) {
        watchWriter(*now, roomLine);
        return Works;
    }
    // What a writer failed in after the last byte, say its log on a full disk, is nothing: the image is
    // compared with its digest.
    if (isComplete()) {
        if (lacksRoom || nTries > 0) health->setWaiting("");
        lacksRoom = false;
        nTries = 0;
        return Ended;
    }
    // A writer ends with its first failure. Once there is room a new one goes on at the file's end.
    if (nowNs - writerNs < WRITER_LOOK_NS) return Waits;
    writerNs = nowNs;
    if (reserve.getRoom() == 0) {
        nTries = 0;
        lacksRoom = true;
        health->setWaiting(roomLine);
        return Waits;
    }
    return replaceWriter(now.getPtr()) ? Replaced : Waits;
}

void ZqGrowingImage::watchWriter(const ZqFWriter& of, const SxString& roomLine) {
    const bool waits = of.isWaitingForRoom();
    if (waits) {
        health->setWaiting(roomLine);
    } else if (lacksRoom || (nTries > 0 && size() > triedSize)) {
        nTries = 0;
        health->setWaiting("");
    }
    lacksRoom = waits;
}

bool ZqGrowingImage::replaceWriter(ZqFWriter* old) {
    nTries = size() > triedSize ? 0 : nTries + 1;
    triedSize = size();
    lookForRoom();
    old->wait();
    // A quota, say, shows as room.
    if (nTries >= WRITER_TRIES && old->hasFailure()) {
        const SxException what = old->getFailure();
        health->settle(SxException(what, "The download into '" + image + "' has ended", UNIT, __LINE__));
    } else {
        health->setWaiting("");
    }
    try {
        startWriter();
    } catch (const SxException& e) {
        // A quota, say, that shows as room.
        health->settle(e.tagged(ZqFailurePolicy::DISK));
        return false;
    }
    return true;
}
