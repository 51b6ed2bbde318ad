#include "ZqImageFeed.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqCoreUnderflowMgr.h"
#include "ZqFWriter.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageProgress.h"
#include "ZqImageRecords.h"
#include "ZqLog.h"
#include "ZqOrderedDownload.h"
#include "ZqStreamRecord.h"
#include "ZqStretchStore.h"
#include "ZqSyncedSize.h"
#include "ZqSysEnv.h"
#include "zqnetio.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/ZqImageFeed";
constexpr uint64 BLOCK = 4096;
constexpr double MBIT = 125'000.;
constexpr int64 ROOM_LOOK_NS = 500'000'000;
constexpr int64 WRITER_LOOK_NS = 500'000'000;
/// Writers that fail one after the other, without a byte written, until it is given up.
constexpr int WRITER_TRIES = 3;
/// From one try of a download that fails to the next, doubled each time.
constexpr int64 FIRST_PAUSE_NS = 500'000'000, MAX_PAUSE_NS = 8'000'000'000;
constexpr uint64 ANY_RATE = ~uint64{0};
/// Silence of the server that is told. The link itself takes longer to give a request up, and its next try
/// may bring some bytes before it is silent again.
constexpr int64 SILENCE_S = 3;
/// Below that rate, bytes a second, silence is the limit's.
constexpr uint64 STEADY_RATE = 64 << 10;

/// Rounded up, since it is what somebody has to make free.
SxString megabytes(uint64 nBytes) {
    constexpr uint64 MEGABYTE = 1'000'000;
    return SxString(nBytes / MEGABYTE + (nBytes % MEGABYTE != 0 ? 1 : 0)) + " MB";
}

/// A line without its figures.
std::string wordsOf(const SxString& line) {
    std::string words = line.str();
    std::erase_if(words, [](char c) { return c >= '0' && c <= '9'; });
    return words;
}

} // namespace

/// Looks after the other threads.
class ZqImageFeed::Keeper : public SxSystemThread {
public:
    explicit Keeper(ZqImageFeed* feed_) : feed(feed_) { setThreadName("feed"); }

protected:
    void main() override {
        while (!feed->stopping) {
            try {
                feed->keep();
                // Then there is no longer anything to look after.
                if (feed->hasSettled()) return;
            } catch (const SxException& e) {
                feed->fail(e);
                return;
            }
            SxTime::msleep(SxWait::LOOK_MS);
        }
    }

private:
    ZqImageFeed* const feed;
};

/// Looks whether the server still has the version that is downloaded. What it finds is its exception.
class ZqImageFeed::VersionCheck : public SxSystemThread {
public:
    explicit VersionCheck(ZqImageFeed* feed_) : feed(feed_) { setThreadName("version"); }

protected:
    void main() override {
        ZqImageRecords(feed->link, feed->settings.image, feed->url, feed->settings.headers)
            .requireSameOnServer(feed->app, [this] { return feed->stopping.load(); });
    }

private:
    ZqImageFeed* const feed;
};

ZqImageFeed::ZqImageFeed(const Settings& settings_) : settings(settings_), pauseNs(FIRST_PAUSE_NS) {
}

ZqImageFeed::~ZqImageFeed() {
    stop();
}

SxString ZqImageFeed::filePath(const char* name) const {
    return ZqImageFolder::prefix(settings.image) + name;
}

uint64 ZqImageFeed::fileSize() const {
    const SxFileInfo zqf(filePath(ZqImageFiles::ZQF));
    return zqf.isFile() ? static_cast<uint64>(zqf.getSize()) : 0;
}

bool ZqImageFeed::isComplete() const {
    return fileSize() >= app.sizeZqf;
}

uint64 ZqImageFeed::countBlocks() const {
    if (isComplete()) return (static_cast<uint64>(params.sizeRaw) + BLOCK - 1) / BLOCK;
    return ZqImageProgress::cursorBehind(fileSize());
}

void ZqImageFeed::open(const ZqStopTest& stop) {
    if (settings.url.isEmpty() && !SxFSAction::exists(settings.image)) {
        throw SxException("Image folder '" + settings.image + "' not found, and no address is given", UNIT,
                          __LINE__);
    }
    const SxFileInfo zqf(filePath(ZqImageFiles::ZQF));
    if (zqf.isLink() && !ZqImageRecords::isComplete(settings.image)) {
        throw SxException("'" + zqf.getOrig() + "' is a link, and a download goes only into its folder", UNIT,
                          __LINE__);
    }
    SxFSAction::mkdir_p(settings.image);
    growth = ZqImageLock::take(settings.image, ZqImageLock::Growth, ZqImageLock::Exclusive, settings.job);
    // Nothing has looked at the size yet, and a drive of it began with the machine.
    ZqSyncedSize(filePath(ZqImageFiles::ZQF)).cutBack();
    ZqStreamRecord record;
    record.read(settings.image);
    url = settings.url.isEmpty() ? record.url : settings.url;
    const bool hasRecords = ZqImageRecords::holdsPart(settings.image);
    shape = ZqImageLock::take(settings.image, ZqImageLock::Shape,
                              hasRecords ? ZqImageLock::Shared : ZqImageLock::Exclusive, settings.job);
    if (ZqImageRecords::isComplete(settings.image)) {
        app = ZqAppParams(filePath(""));
        // A run plays without its server. Who only completes has no use for an address that gives something
        // else.
        if (settings.isDownloadOnly && !(url == record.url)) {
            ZqImageRecords(SxPtr<ZqNetLink>::create(), settings.image, url, settings.headers)
                .requireSameOnServer(app, stop);
        }
    } else {
        if (url.isEmpty()) {
            throw SxException("Image '" + settings.image +
                                  "' isn't complete, and no address is known that it could be completed from",
                              UNIT, __LINE__);
        }
        {
            const SxMutexBlock block(&mutex);
            link = SxPtr<ZqNetLink>::create();
        }
        app = ZqImageRecords(link, settings.image, url, settings.headers)
                  .fetchApp(!settings.isDownloadOnly, &isConfirmed, stop);
    }
    hadRecords = hasRecords;
    app.requireKnownFormat();
    // What is downloaded from its beginning on has nothing of an earlier file.
    isWritten = record.isWritten && fileSize() > 0;
    verified = !link && isKnownAsRight(record);
    try {
        if (link) measureDisk();
    } catch (const SxException&) {
        // Once there is room the same is called again, without the address.
        try {
            noteOpened(record);
        } catch (const SxException& e) {
            zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
        }
        throw;
    }
    noteOpened(record);
}

void ZqImageFeed::noteOpened(const ZqStreamRecord& record) {
    const bool isFresh = fileSize() == 0;
    const bool dropsDigest = link && !record.verified.isEmpty();
    if (record.url == url && !dropsDigest && record.isWritten == isWritten) return;
    ZqStreamRecord::update(settings.image, [&](ZqStreamRecord* now) {
        now->url = url;
        if (link) now->verified = SxString();
        if (isFresh) now->isWritten = false;
    });
}

void ZqImageFeed::measureDisk() {
    reserve = ZqDiskReserve(settings.image, fileSize());
    lookForRoom();
    if (nShort == 0) return;
    const SxString text =
        "The image needs " + megabytes(nShort) + " more on the disk of '" + settings.image + "'";
    if (settings.isDownloadOnly) {
        throw SxException(text + ": it is of " + megabytes(app.sizeZqf) + ", and " +
                              megabytes(reserve.getSize()) + " of the disk are left to others",
                          UNIT, __LINE__);
    }
    zqLogMsg("base", "ZqImageFeed: " + text + ", and arrives as far as there is room");
}

void ZqImageFeed::lookForRoom() {
    // What is kept beside the image goes as the image grows.
    const uint64 nThere = fileSize() + ZqStretchStore::sizeIn(settings.image);
    nShort = reserve.getMissing(app.sizeZqf - std::min(app.sizeZqf, nThere));
}

void ZqImageFeed::makeWriter() {
    const auto fresh = SxPtr<ZqFWriter>::create(filePath(""), ZqImageFiles::ZQF);
    fresh->setReserve(reserve);
    // What the download is ahead of the writer is bounded, and a start must wait for no pace.
    fresh->setUnpaced();
    fresh->start();
    const SxMutexBlock block(&mutex);
    writer = fresh;
}

SxPtr<ZqFWriter> ZqImageFeed::getWriter() const {
    const SxMutexBlock block(&mutex);
    return writer;
}

void ZqImageFeed::beginDownload() {
    download->setWriter(getWriter(), fileSize());
    if (!download->isRunning()) {
        download->wait();
        download->start();
    }
}

SxPtr<ZqRemoteImage> ZqImageFeed::makeImage(const SxPtr<ZqNetLink>& of) const {
    of->setRateLimit(static_cast<double>(settings.rateLimit));
    const auto made = SxPtr<ZqRemoteImage>::create(of, url, app.sizeZqf, settings.headers,
                                                   ZqRemoteImage::MAX_KEPT, app.checksumZqf);
    // It may be asked for longer than this lives.
    made->setSameTest([weak = std::weak_ptr<ZqNetLink>(of.shared()), folder = settings.image, address = url,
                       headers = settings.headers, own = app](const ZqStopTest& stop) {
        const SxPtr<ZqNetLink> still(weak.lock());
        if (!still) throw SxException(SxString(SxException::STOPPED), "stopped", UNIT, __LINE__);
        return ZqImageRecords(still, folder, address, headers).isSameOnServer(own, stop);
    });
    return made;
}

void ZqImageFeed::start() {
    keeper = std::make_unique<Keeper>(this);
    if (!link) {
        settled = verified.load();
        if (settled) removeStore();
        if (!settled) keeper->start();
        return;
    }
    image = makeImage(link);
    // It may have another version by now.
    if (!isConfirmed) image->doubtServer();
    openStore();
    zqNetioOfferImage(image);
    makeWriter();
    progress = SxPtr<ZqImageProgress>::create(settings.image, app);
    progress->start();
    download = std::make_unique<ZqOrderedDownload>(image);
    beginDownload();
    manager = SxPtr<ZqCoreUnderflowMgr>::create(settings.image, nullptr, progress, app);
    manager->setDownloadParams(image->getUrl(), SxList<SxString>());
    manager->setWindowSearch(false);
    manager->setEdgeCall([link_ = link] { link_->hastenStreams(); });
    manager->start();
    keeper->start();
}

void ZqImageFeed::openStore() {
    // Without a digest nothing tells another order of the blocks from this one.
    if (app.checksumZqf.isEmpty() && app.checksumIdx.isEmpty()) return;
    const SxString key = app.checksumZqf + "\n" + app.checksumIdx + "\n" + app.checksumMnt;
    try {
        image->setStore(std::make_unique<ZqStretchStore>(settings.image, key, app.sizeZqf,
                                                         ZqRemoteImage::STRETCH, fileSize(), reserve));
    } catch (const SxException& e) {
        // Then what comes ahead is only good for this run.
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
    }
}

void ZqImageFeed::removeStore() const {
    try {
        ZqStretchStore::remove(settings.image);
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
    }
}

uint64 ZqImageFeed::countMissing() const {
    const uint64 nThere = fileSize() + (image ? image->getFigures().nStored : 0);
    return app.sizeZqf - std::min(app.sizeZqf, nThere);
}

void ZqImageFeed::fetchRecords(const ZqStopTest& stop) {
    if (link) ZqImageRecords(link, settings.image, url, settings.headers).fetchRest(app, stop);
    params = ZqImageParams(filePath(""));
    shape->lower();
}

void ZqImageFeed::requireRanges(const ZqStopTest& stop) const {
    if (image && !isComplete()) image->requireRanges(stop);
}

void ZqImageFeed::alignCursor() const {
    const ZqMountMgr mounts;
    for (uint64 size = 0; size != fileSize();) {
        size = fileSize();
        mounts.setCursor(settings.image, countBlocks());
    }
}

void ZqImageFeed::applicationStarts() {
    if (!manager) return;
    const SxMutexBlock block(&managerMutex);
    manager->setWindowSearch(true);
    // With the last block it has ended for good.
    if (!settled) manager->restart();
}

void ZqImageFeed::stop() {
    stopping = true;
    if (keeper) keeper->wait();
    if (versionCheck) versionCheck->wait();
    if (manager) manager->stop();
    if (download) download->stop();
    if (progress) progress->stop();
    if (link) link->cancel();
    const SxPtr<ZqFWriter> last = getWriter();
    if (last) last->stop();
    if (manager) manager->wait();
    if (download) download->wait();
    if (progress) progress->wait();
    if (last) last->wait();
}

void ZqImageFeed::keep() {
    if (!link) {
        verifyDigest();
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
    if (progress->hasException()) settle(progress->getException());
}

void ZqImageFeed::keepManager() {
    // It ends with each drive, also with that of the preparation, and with a call of the service that failed.
    const SxMutexBlock block(&managerMutex);
    if (!isComplete()) {
        if (manager->isRunning()) return;
        manager->wait();
        manager->start();
    } else if (!progress->isRunning() && !manager->isUnderflow()) {
        // The cursor is behind the last block, so it would ask the drive in vain from here on.
        manager->stop();
    }
}

bool ZqImageFeed::hasSettled() {
    if (!verified) return false;
    const SxMutexBlock block(&managerMutex);
    settled = !link || (isComplete() && !progress->isRunning() && !manager->isRunning() &&
                        !download->isRunning() && !getWriter()->isRunning());
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
    // What the writer holds still would overlap with what comes anew, and neither be written to the end.
    const bool isWriting = getWriter()->isRunning() && getWriter()->getBytesHeld() > 0;
    if (versionCheck) {
        if (!isWriting) resumeDownload();
        return;
    }
    download->wait();
    if (!download->hasException()) return;
    const ZqFailurePolicy::Verdict verdict = settle(download->getException());
    isInterrupted = true;
    interruptedSize = fileSize();
    if (isWriting) return;
    const int64 nowNs = SxClock::get().steadyNs();
    if (nowNs - downloadNs < pauseNs) return;
    downloadNs = nowNs;
    pauseNs = std::min(2 * pauseNs, MAX_PAUSE_NS);
    if (verdict == ZqFailurePolicy::Restart) {
        versionCheck = std::make_unique<VersionCheck>(this);
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
    const SxString roomLine =
        "waiting for room on the disk of '" + settings.image + "': " + megabytes(nShort) + " are missing";
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
    if (now->isCompleteImage()) {
        verifyDigest();
        return;
    }
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
    if (nWriterTries >= WRITER_TRIES && now->hasException()) {
        const SxException what = now->getException();
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

void ZqImageFeed::setWaiting(const SxString& text) {
    const SxMutexBlock block(&mutex);
    // Its figures may change twice a second, for hours.
    if (!text.isEmpty() && wordsOf(text) != wordsOf(waiting)) zqLogMsg("base", "ZqImageFeed: " + text);
    waiting = text;
}

void ZqImageFeed::fail(const SxException& e) {
    zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage));
    // What comes from the server now are other blocks.
    if (link && e.hasTag(ZqFailurePolicy::OTHER_VERSION)) {
        isCutOff = true;
        link->cancel();
    }
    const SxMutexBlock block(&mutex);
    failed = true;
    failure = e;
    waiting = "the download has ended: " + e.toString(SxException::ShowMessage, ": ");
}

bool ZqImageFeed::hasFailed() const {
    const SxMutexBlock block(&mutex);
    return failed;
}

bool ZqImageFeed::answersReads() const {
    // Without the keeper nobody starts the manager again.
    return !isCutOff && !(hasFailed() && manager && !manager->isRunning());
}

void ZqImageFeed::requireAlive() const {
    const SxMutexBlock block(&mutex);
    if (failed) throw failure;
}

SxString ZqImageFeed::getLinkStatus() const {
    const SxMutexBlock block(&mutex);
    return link ? link->getStatus() : SxString();
}

ZqImageFeed::Status ZqImageFeed::getStatus() const {
    Status status;
    status.nTotal = app.sizeZqf;
    status.isChecking = checking;
    status.nChecked = nChecked;
    {
        const SxMutexBlock block(&mutex);
        status.waiting = waiting;
    }
    if (!manager) {
        status.nCurrent = status.nNeeded = status.nTotal;
        return status;
    }
    const uint64 limit = settings.rateLimit > 0 ? settings.rateLimit : ANY_RATE;
    status.nShort = nShort;
    status.nCurrent = progress->getNCurrent();
    status.nNeeded = progress->getNInit(limit);
    status.speed = progress->getAvgSpeed() * MBIT;
    status.startEta = progress->getStartETA(limit);
    status.totalEta = progress->getTotalETA();
    status.isUnderflow = manager->isUnderflow();
    status.link = link->getFigures();
    status.image = image->getFigures();
    if (status.waiting.isEmpty() && progress->isServiceSilent()) {
        status.waiting = "waiting for the drive service, which doesn't answer";
    }
    if (status.waiting.isEmpty()) status.waiting = link->getStatus();
    if (const int64 silent = silentSeconds; status.waiting.isEmpty() && silent >= SILENCE_S) {
        status.waiting = SxString("waiting for the server: no data for ") + silent + " s";
    }
    return status;
}

void ZqImageFeed::restoreWindow() {
    if (!manager || manager->isUnderflow()) return;
    const int64 nTakenAway = manager->getNTakenAway();
    if (nTakenAway == nRestored) return;
    nRestored = nTakenAway;
    // The player may have brought it back.
    if (!manager->isMinimized()) return;
    try {
        manager->maximizeApp();
    } catch (const SxException& e) {
        zqLogMsg("base", SxString("ZqImageFeed::restoreWindow: ") + e.toString());
    }
}

int64 ZqImageFeed::getLastWaitNs() const {
    return manager ? manager->getLastWaitNs() : 0;
}

ZqRuntimeInfo ZqImageFeed::getRuntimeInfo() const {
    return manager ? manager->getRuntimeInfo() : ZqRuntimeInfo();
}

ZqImageFeed::Speeds ZqImageFeed::getSpeeds() const {
    if (!progress) return {};
    return {progress->getGlobalAvgSpeed(), progress->getGlobalMaxSpeed(), progress->getGlobalSigmaSpeed()};
}
