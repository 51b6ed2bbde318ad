#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqCoreUnderflowMgr.h"
#include "ZqFWriter.h"
#include "ZqImageFeed.h"
#include "ZqImageFeedJob.h"
#include "ZqImageFiles.h"
#include "ZqImageProgress.h"
#include "ZqImageRecords.h"
#include "ZqOrderedDownload.h"
#include "ZqReadable.h"

#include <algorithm>

// What a feed's keeper looks after: the other threads, and what has become of them.

namespace {

constexpr const char* UNIT = "src/base/ZqImageFeedKeep";
constexpr int64 ROOM_LOOK_NS = 500'000'000;
constexpr int64 WRITER_LOOK_NS = 500'000'000;
/// Writers that fail one after the other without a byte written, until it is believed that the disk doesn't
/// work.
constexpr int WRITER_TRIES = 3;
/// The longest time from one try of a download that fails to the next.
constexpr int64 MAX_PAUSE_NS = 8'000'000'000;
/// Below that rate, bytes a second, silence is the limit's.
constexpr uint64 STEADY_RATE = 64 << 10;

} // namespace

void ZqImageFeed::keepUntilStopped() {
    while (!stopping) {
        try {
            keep();
            // Then nobody looks any longer. With all threads going on, a run of a complete image woke up 860
            // times a second.
            if (hasSettled()) return;
        } catch (const SxException& e) {
            fail(e);
            return;
        } catch (const std::exception& e) {
            // Such as a want of memory. The owner waits for this thread.
            fail(SxException(e.what(), UNIT, __LINE__));
            return;
        }
        SxTime::msleep(SxWait::LOOK_MS);
    }
}

void ZqImageFeed::keep() {
    if (!link) {
        keepDigest();
        return;
    }
    if (!SxFSAction::exists(filePath(ZqImageFiles::ZQF))) {
        throw SxException("The image in '" + settings.image + "' was removed while it was downloaded", UNIT,
                          __LINE__);
    }
    download->flush();
    image->setWritten(fileSize());
    keepManager();
    keepDownload();
    keepWriter();
    keepProgress();
    watchServer();
}

bool ZqImageFeed::hasDrive() const {
    if (driveStarted) return true;
    // What has the records and the blocks for a drive counts as having one already while it is opened, so
    // that a page to log in to, say, keeps nobody from playing what is there.
    return hadRecords && !settings.isDownloadOnly && fileSize() >= std::min(app.sizeMnt, app.sizeZqf);
}

ZqFailurePolicy::Verdict ZqImageFeed::settle(const SxException& why) {
    const ZqFailurePolicy::Verdict verdict = ZqFailurePolicy::decide(why, hasDrive());
    if (verdict == ZqFailurePolicy::End) throw SxException(why);
    setWaiting(ZqFailurePolicy::waitingLine(why));
    return verdict;
}

void ZqImageFeed::keepProgress() {
    // Once all is there its records may still be on their way, and the owner brings the cursor to the end.
    if (progress->isRunning() || progress->getNCurrent() >= progress->getNTotal()) return;
    progress->wait();
    if (progress->hasFailure()) settle(progress->getFailure());
}

void ZqImageFeed::keepManager() {
    const SxMutexBlock block(&managerMutex);
    // The cursor has passed the last block: from now on it would ask the drive in vain.
    const bool isNeeded = !isComplete() || progress->isRunning() || manager->isUnderflow();
    if (!isNeeded) {
        manager->stop();
    } else if (!manager->isRunning() && (!isComplete() || manager->isUnderflow())) {
        // It ends with each drive, also with that of the preparation, and with a call of the service that
        // failed. As long as blocks are missing it must be there, else a read of a mount could wait for ever;
        // and it must see the end of an underflow that it has told of.
        manager->wait();
        manager->start();
    }
}

bool ZqImageFeed::hasSettled() {
    if (!verified) return false;
    const SxMutexBlock block(&managerMutex);
    settled = !link || (isComplete() && !progress->isRunning() && !manager->isRunning() &&
                        !manager->isUnderflow() && !download->isRunning() && !getWriter()->isRunning());
    return settled;
}

void ZqImageFeed::keepDownload() {
    if (download->isRunning()) {
        if (isInterrupted && fileSize() > interruptedSize) {
            isInterrupted = false;
            pauseNs = FIRST_PAUSE_NS;
            setWaiting("");
        }
        return;
    }
    // What the writer still holds would overlap with what comes anew, and neither would be written to the
    // end.
    const bool isWriting = getWriter()->isRunning() && getWriter()->getBytesHeld() > 0;
    if (versionCheck) {
        if (!isWriting) resumeDownload();
        return;
    }
    download->wait();
    if (!download->hasException()) {
        // All was handed over and is written. Where bytes are missing nevertheless, for whatever reason, the
        // download begins again, since they would never come.
        if (!isWriting && getWriter()->isRunning() && !isComplete()) beginDownload();
        return;
    }
    const ZqFailurePolicy::Verdict verdict = settle(download->getException());
    isInterrupted = true;
    interruptedSize = fileSize();
    if (isWriting) return;
    const int64 nowNs = SxClock::get().steadyNs();
    if (nowNs - downloadNs < pauseNs) return;
    downloadNs = nowNs;
    pauseNs = std::min(2 * pauseNs, MAX_PAUSE_NS);
    if (verdict == ZqFailurePolicy::Restart) {
        // Whether the server still has the version that is downloaded.
        versionCheck = std::make_unique<Job>("version", [this] {
            ZqImageRecords(link, settings.image, url, settings.headers).requireSameOnServer(app, [this] {
                return stopping.load();
            });
        });
        versionCheck->start();
    } else {
        beginDownload();
    }
}

void ZqImageFeed::resumeDownload() {
    if (versionCheck->isRunning()) return;
    versionCheck->wait();
    const bool isTold = !versionCheck->hasException();
    const SxException why = versionCheck->getException();
    versionCheck = nullptr;
    if (!isTold) {
        settle(why);
        return;
    }
    image->forgetServer();
    beginDownload();
}

void ZqImageFeed::watchServer() {
    const uint64 nBytes = link->getFigures().nBytes;
    const int64 nowNs = SxClock::get().steadyNs();
    const bool isSlowed = settings.rateLimit > 0 && settings.rateLimit < STEADY_RATE;
    // What waits for the disk is the disk's affair.
    const bool isWanted = download->isRunning() && getWriter()->getBytesHeld() == 0 && !isSlowed;
    if (nBytes != nSeenBytes || !isWanted || seenNs == 0) seenNs = nowNs;
    nSeenBytes = nBytes;
    silentSeconds = (nowNs - seenNs) / 1'000'000'000;
}

void ZqImageFeed::keepWriter() {
    const SxPtr<ZqFWriter> now = getWriter();
    const int64 nowNs = SxClock::get().steadyNs();
    if (nowNs - roomNs >= ROOM_LOOK_NS) {
        roomNs = nowNs;
        lookForRoom();
    }
    const SxString roomLine = "waiting for room on the disk of '" + settings.image +
                              "': " + ZqReadable::megabytes(nShort) + " are missing";
    if (now->isRunning()) {
        const bool waits = now->isWaitingForRoom();
        if (waits) {
            setWaiting(roomLine);
        } else if (lacksRoom || (nWriterTries > 0 && fileSize() > triedSize)) {
            nWriterTries = 0;
            setWaiting("");
        }
        lacksRoom = waits;
        return;
    }
    // What a writer failed in after the last byte, say its log on a full disk, is nothing: the image is
    // compared with its digest.
    if (isComplete()) {
        if (lacksRoom || nWriterTries > 0) setWaiting("");
        lacksRoom = false;
        nWriterTries = 0;
        keepDigest();
        return;
    }
    // A writer ends with its first failure. Once there is room a new one goes on at the file's end.
    if (nowNs - writerNs < WRITER_LOOK_NS) return;
    writerNs = nowNs;
    if (reserve.getRoom() == 0) {
        nWriterTries = 0;
        lacksRoom = true;
        setWaiting(roomLine);
        return;
    }
    nWriterTries = fileSize() > triedSize ? 0 : nWriterTries + 1;
    triedSize = fileSize();
    now->wait();
    // A quota, say, shows as room.
    if (nWriterTries >= WRITER_TRIES && now->hasFailure()) {
        const SxException what = now->getFailure();
        settle(SxException(what, "The download into '" + settings.image + "' has ended", UNIT, __LINE__));
    } else {
        setWaiting("");
    }
    try {
        makeWriter();
    } catch (const SxException& e) {
        // A quota, say, that shows as room.
        settle(e.tagged(ZqFailurePolicy::DISK));
        return;
    }
    beginDownload();
}
