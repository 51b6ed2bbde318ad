#include "ZqImageFeed.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqBlocks.h"
#include "ZqCoreUnderflowMgr.h"
#include "ZqFWriter.h"
#include "ZqImageFeedJob.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageInfo.h"
#include "ZqImageProgress.h"
#include "ZqImageRecords.h"
#include "ZqImageSource.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqOrderedDownload.h"
#include "ZqPartCheck.h"
#include "ZqReadable.h"
#include "ZqStreamRecord.h"
#include "ZqStretchStore.h"
#include "ZqSyncedSize.h"
#include "ZqSysEnv.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/ZqImageFeed";
constexpr uint64 ANY_RATE = ~uint64{0};
/// Silence of the server that is told. The link itself gives a request up after 10 s only, and its next try
/// may bring some bytes before it is silent again.
constexpr int64 SILENCE_S = 3;

/// A line without its figures.
std::string wordsOf(const SxString& line) {
    std::string words = line.str();
    std::erase_if(words, [](char c) { return c >= '0' && c <= '9'; });
    return words;
}

} // namespace

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
    if (!zqf.isFile()) return 0;
    const auto told = static_cast<uint64>(zqf.getSize());
    return std::min(told, writeEnd());
}

/// Where no write is under way the size itself tells what can be read, also after a write that has failed.
uint64 ZqImageFeed::writeEnd() const {
    const SxPtr<ZqFWriter> now = getWriter();
    return now && now->isRunning() ? now->getWriteEnd() : ZqImageProgress::ANY;
}

bool ZqImageFeed::isComplete() const {
    return fileSize() >= app.sizeZqf;
}

uint64 ZqImageFeed::countBlocks() const {
    if (isComplete()) return (static_cast<uint64>(params.sizeRaw) + ZqBlocks::SIZE - 1) / ZqBlocks::SIZE;
    return ZqImageProgress::cursorBehind(fileSize());
}

void ZqImageFeed::open(const ZqStopTest& stop) {
    if (settings.url.isEmpty() && !SxFSAction::exists(settings.image)) {
        throw SxException("Image folder '" + settings.image + "' not found, and no address is given", UNIT,
                          __LINE__);
    }
    const SxFileInfo zqf(filePath(ZqImageFiles::ZQF));
    if (zqf.isLink() && !ZqImageInfo::isComplete(settings.image)) {
        throw SxException("'" + zqf.getOrig() + "' is a link, and a download goes only into its folder", UNIT,
                          __LINE__);
    }
    SxFSAction::mkdir_p(settings.image);
    growth = ZqImageLock::take(settings.image, ZqImageLock::Growth, ZqImageLock::Exclusive, settings.job);
    // Before anything looks at the size. A drive that is up has taken no more than can be believed either.
    ZqSyncedSize(filePath(ZqImageFiles::ZQF)).cutBack(stop);
    ZqStreamRecord record;
    record.read(settings.image);
    url = settings.url.isEmpty() ? record.url : settings.url;
    const bool hasRecords = ZqImageInfo::holdsPart(settings.image);
    shape = ZqImageLock::take(settings.image, ZqImageLock::Shape,
                              hasRecords ? ZqImageLock::Shared : ZqImageLock::Exclusive, settings.job);
    cutSurplus(record, stop);
    if (ZqImageInfo::isComplete(settings.image)) {
        app = ZqAppParams(filePath(""));
        // A run plays without its server. Who only completes an image has no use for an address that gives
        // another one.
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
    if (link) openPart(record, stop);
    verified = !link && isKnownAsRight(record);
    try {
        if (link) measureDisk();
    } catch (const SxException&) {
        // Once there is room the same command is given again, without the address.
        try {
            noteOpened(record);
        } catch (const SxException& e) {
            zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
        }
        throw;
    }
    noteOpened(record);
    hasOpened = true;
}

void ZqImageFeed::noteOpened(const ZqStreamRecord& record) {
    const bool isFresh = fileSize() == 0;
    const bool dropsDigest = link && !record.verified.isEmpty();
    const bool dropsLeft = record.left.size >= 0;
    if (record.url == url && !dropsDigest && !dropsLeft && record.isWritten == isWritten) return;
    ZqStreamRecord::update(settings.image, [&](ZqStreamRecord* now) {
        now->url = url;
        // A kill must not leave what is written from now on as believed.
        now->left = ZqStreamRecord::Left();
        if (link) now->verified = SxString();
        if (isFresh) now->isWritten = false;
    });
}

void ZqImageFeed::measureDisk() {
    reserve = ZqDiskReserve(settings.image, fileSize());
    lookForRoom();
    if (nShort == 0) return;
    const SxString text =
        "The image needs " + ZqReadable::megabytes(nShort) + " more on the disk of '" + settings.image + "'";
    if (settings.isDownloadOnly) {
        throw SxException(text + ": it is of " + ZqReadable::megabytes(app.sizeZqf) + ", and " +
                              ZqReadable::megabytes(reserve.getSize()) + " of the disk are left to others",
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
    // ZqOrderedDownload bounds what waits for the writer, and a start must wait for no pace.
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
    if (download->setWriter(getWriter(), fileSize())) return;
    download->wait();
    download->start();
}

SxPtr<ZqRemoteImage> ZqImageFeed::makeImage(const SxPtr<ZqNetLink>& of) const {
    of->setRateLimit(static_cast<double>(settings.rateLimit));
    auto made = SxPtr<ZqRemoteImage>::create(of, url, app.sizeZqf, settings.headers, ZqRemoteImage::MAX_KEPT,
                                             app.checksumZqf);
    // The test may be called after this object's end.
    made->setSameTest([weak = std::weak_ptr<ZqNetLink>(of.shared()), folder = settings.image, address = url,
                       headers = settings.headers, own = app](const ZqStopTest& stop) {
        const SxPtr<ZqNetLink> still(weak.lock());
        if (!still) throw SxException(SxString(SxException::STOPPED), "stopped", UNIT, __LINE__);
        return ZqImageRecords(still, folder, address, headers).isSameOnServer(own, stop);
    });
    return made;
}

void ZqImageFeed::start() {
    keeper = std::make_unique<Job>("feed", [this] { keepUntilStopped(); });
    if (!link) {
        settled = verified.load();
        if (settled) removeStore();
        if (!settled) keeper->start();
        return;
    }
    image = opened;
    openStore();
    startPartCheck();
    makeWriter();
    progress = SxPtr<ZqImageProgress>::create(settings.image, app);
    progress->setWriteEnd([this] { return writeEnd(); });
    progress->start();
    download = std::make_unique<ZqOrderedDownload>(image);
    beginDownload();
    manager = SxPtr<ZqCoreUnderflowMgr>::create(settings.image, nullptr, progress, app);
    manager->setRangeSource(SxPtr<ZqImageSource>::create(image));
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
        image->setStore(std::make_unique<ZqStretchStore>(settings.image, key, app.sizeZqf, ZqBlocks::STRETCH,
                                                         fileSize(), reserve));
    } catch (const SxException& e) {
        // Then what is fetched out of its order is only good for this run.
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
    // What is there can be played, and the server may have its ranges again.
    if (image && !isComplete() && !hasDrive()) image->requireRanges(stop);
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
    if (digestCheck) digestCheck->wait();
    if (partCheck) partCheck->wait();
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
    noteLeft();
}

void ZqImageFeed::setWaiting(const SxString& text) {
    const SxMutexBlock block(&mutex);
    // What has ended the download stays told, whatever another of the threads still waits for.
    if (failed) return;
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
    if (!waiting.isEmpty()) return waiting;
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
        addRepair(&status);
        return status;
    }
    const uint64 limit = settings.rateLimit > 0 ? settings.rateLimit : ANY_RATE;
    status.nShort = nShort;
    status.nCurrent = progress->getNCurrent();
    status.nNeeded = progress->getNInit(limit);
    status.speed = progress->getAvgSpeed() * ZqBlocks::PER_MEGABIT;
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
    if (manager) manager->restoreWindow();
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
