#include "ZqImageFeed.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxTime.h"
#include "ZqBlocks.h"
#include "ZqCoreUnderflowMgr.h"
#include "ZqDigestCheck.h"
#include "ZqDriveMeans.h"
#include "ZqImageDownload.h"
#include "ZqImageProgress.h"
#include "ZqImageSource.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqPartRepair.h"
#include "ZqStartForecast.h"

#include <algorithm>
#include <array>

namespace {
constexpr const char* UNIT = "src/base/ZqImageFeed";
/// Faster than any download, in megabit per second.
constexpr double FASTEST_MBIT = 1e6;
} // namespace

ZqImageFeed::ZqImageFeed(const Settings& settings_)
    : settings(settings_),
      folder(settings_),
      health([this] {
          // What has the records and the blocks for a drive counts as having one already while it is opened,
          // so that a page to log in to, say, keeps nobody from playing what is there.
          return folder.hadRecords() && !settings.isDownloadOnly &&
                 fileSize() >= std::min(getApp().sizeMnt, getApp().sizeZqf);
      }),
      file(settings_.image, &health) {
}

ZqImageFeed::~ZqImageFeed() {
    stop();
}

uint64 ZqImageFeed::countBlocks() const {
    if (isComplete()) return (static_cast<uint64>(getParams().sizeRaw) + ZqBlocks::SIZE - 1) / ZqBlocks::SIZE;
    return ZqImageProgress::cursorBehind(fileSize());
}

void ZqImageFeed::open(const ZqStopTest& stop) {
    if (!folder.take(stop)) {
        const SxMutexBlock block(&mutex);
        link = SxPtr<ZqNetLink>::create(folder.getAccess());
    }
    const bool isConfirmed = folder.openApp(link, stop);
    const ZqImageOrigin& origin = folder.getOrigin();
    file.setTotal(getApp().sizeZqf);
    const ZqProgramWrites writes(settings.image, settings.job);
    const ZqStopTest isStopped = [this] { return stopping.load(); };
    SxPtr<ZqRemoteImage> image;
    if (link) {
        download = std::make_unique<ZqImageDownload>(origin, link, &file, &health, isStopped);
        image = download->getImage();
        // A server that hasn't given its `app.json` may have another version by now, so nothing is taken from
        // it.
        if (!isConfirmed) image->doubtServer();
        part = std::make_unique<ZqPartRepair>(origin, image, writes, &file, &health, isStopped);
        if (folder.isWritten()) {
            part->believe();
        } else {
            part->open(folder.getLeft(), isConfirmed, stop);
        }
    }
    const bool isLeftOut = !link && !settings.verifies;
    const bool isUntold = getApp().checksumZqf.isEmpty() || folder.isWritten() || isLeftOut;
    ZqDigestCheck::Need need = isUntold ? ZqDigestCheck::Untold : ZqDigestCheck::Due;
    if (!link && folder.isKnownAsRight()) need = ZqDigestCheck::Done;
    digest = std::make_unique<ZqDigestCheck>(origin, image, writes, need, &health, isStopped);
    try {
        if (link) file.measureDisk(settings.isDownloadOnly);
    } catch (const SxException&) {
        // Once there is room the same command is given again, without the address.
        try {
            folder.keep();
            folder.noteUse(static_cast<bool>(link));
        } catch (const SxException& e) {
            zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
        }
        throw;
    }
    folder.noteUse(static_cast<bool>(link));
    hasOpened = true;
}

SxString ZqImageFeed::findVolumeType(const ZqStopTest& stop) const {
    if (!getParams().volume.isEmpty()) return getParams().volume;
    std::array<char, ZqBlocks::SIZE> block{};
    try {
        if (fileSize() >= block.size()) {
            SxFileIO(file.getPath(), "rb").readBuffer(block.data(), block.size());
        } else if (link) {
            folder.fetchBegin(link, block.data(), block.size(), stop);
        }
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) throw;
        // The download tells what is wrong with the server, and the service with the drive.
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
    }
    return ZqDriveMeans::typeOf({block.data(), block.size()});
}

void ZqImageFeed::requireRoom(ZqDriveKinds::MountMode mode, bool waits) const {
    if (!link) return;
    constexpr const char* REMEDY = "make room there, or name an image folder on another disk";
    ZqAppParams app = getApp();
    app.mountMode = mode;
    const uint64 forDrive = ZqStartForecast::findDrive(app);
    file.requireRoom("A drive", forDrive, REMEDY);
    if (!waits || forDrive >= app.sizeZqf) return;
    file.requireRoom("The start", ZqStartForecast(app, FASTEST_MBIT, 0).nInit,
                     SxString(REMEDY) +
                         "; with --now the application starts at once, and plays as far as there is room");
}

void ZqImageFeed::start() {
    folder.keep();
    keeper = std::make_unique<ZqFeedJob>("feed", [this] { keepUntilStopped(); });
    if (!link) {
        settled = isVerified();
        digest->start();
        if (!settled) keeper->start();
        return;
    }
    download->start();
    part->start();
    manager = SxPtr<ZqCoreUnderflowMgr>::create(settings.image, nullptr, download->getProgress(), getApp());
    manager->setRangeSource(SxPtr<ZqImageSource>::create(download->getImage()));
    manager->setWindowSearch(false);
    manager->setEdgeCall([link_ = link] { link_->hastenStreams(); });
    manager->start();
    keeper->start();
    // Without hints the core is all that the traced runs have read.
    if (!getApp().loadprofile.isEmpty()) download->getImage()->setCore(getApp().loadprofile.last().size);
    hints = std::make_unique<ZqFeedJob>("hints", [this, link_ = link] {
        const auto known = folder.fetchHints(link_, [this] { return stopping.load(); });
        if (!known) return;
        manager->setHints(known);
        // Before the first group lies what most sessions read.
        if (!known->groups.empty())
            download->getImage()->setCore(known->groups.front().first * ZqBlocks::STRETCH);
    });
    hints->start();
}

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
        digest->keep();
        return;
    }
    if (!SxFSAction::exists(file.getPath())) {
        throw SxException("The image in '" + settings.image + "' was removed while it was downloaded", UNIT,
                          __LINE__);
    }
    keepManager();
    if (download->keep()) digest->keep();
}

void ZqImageFeed::keepManager() {
    const SxMutexBlock block(&managerMutex);
    // The cursor has passed the last block: from now on it would ask the drive in vain.
    const bool isNeeded = !isComplete() || download->getProgress()->isRunning() || manager->isUnderflow();
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
    if (!isVerified()) return false;
    const SxMutexBlock block(&managerMutex);
    settled =
        !link || (isComplete() && !download->isRunning() && !manager->isRunning() && !manager->isUnderflow());
    return settled;
}

uint64 ZqImageFeed::countMissing() const {
    const uint64 nThere = fileSize() + (download ? download->getImage()->getFigures().nStored : 0);
    const uint64 nTotal = getApp().sizeZqf;
    return nTotal - std::min(nTotal, nThere);
}

void ZqImageFeed::fetchRecords(const ZqStopTest& stop) {
    folder.openRest(link, download ? download->getMapLeft() : nullptr, stop);
}

void ZqImageFeed::requireRanges(const ZqStopTest& stop) const {
    // What is there can be played, and the server may have its ranges again.
    if (download && !isComplete() && !health.hasDrive()) download->getImage()->requireRanges(stop);
}

void ZqImageFeed::alignCursor() const {
    const ZqMountMgr mounts;
    for (uint64 size = 0; size != fileSize();) {
        size = fileSize();
        mounts.setCursor(settings.image, countBlocks());
    }
}

void ZqImageFeed::applicationStarts(const ZqAppParams& app) {
    if (!manager) return;
    const SxMutexBlock block(&managerMutex);
    manager->setApplication(app.cmd, app.name);
    manager->setWindowSearch(true);
    // With the last block it has ended for good.
    if (!settled) manager->restart();
}

void ZqImageFeed::stop() {
    stopping = true;
    if (keeper) keeper->wait();
    if (digest) digest->wait();
    if (part) part->wait();
    if (manager) manager->stop();
    if (download) {
        download->stop();
    } else if (link) {
        link->cancel();
    }
    if (hints) hints->wait();
    if (manager) manager->wait();
    if (download) download->wait();
    if (part && hasOpened) part->noteLeft();
    hasOpened = false;
}

void ZqImageFeed::fail(const SxException& e) {
    zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage));
    // What comes from the server now are other blocks.
    if (link && e.hasTag(ZqFailurePolicy::OTHER_VERSION)) {
        isCutOff = true;
        link->cancel();
    }
    health.end(e);
}

bool ZqImageFeed::isVerified() const {
    return digest && digest->isVerified();
}

bool ZqImageFeed::answersReads() const {
    // Without the keeper nobody starts the manager again.
    return !isCutOff && !(hasFailed() && manager && !manager->isRunning());
}

SxString ZqImageFeed::getLinkStatus() const {
    SxString waiting = health.getWaiting();
    if (!waiting.isEmpty()) return waiting;
    const SxMutexBlock block(&mutex);
    return link ? link->getStatus() : SxString();
}

ZqNetOutage ZqImageFeed::getOutage() const {
    const SxMutexBlock block(&mutex);
    return link ? link->getOutage() : ZqNetOutage();
}

std::optional<double> ZqImageFeed::estimateStart(double rate, bool isAtOnce) const {
    if (!manager) return 0;
    const std::optional<ZqStartEta::Point> start = download->findStart(rate, isAtOnce);
    return start ? std::optional(start->seconds) : std::nullopt;
}

double ZqImageFeed::estimateRest(double rate) const {
    if (!manager || !(rate > 0)) return 0;
    return static_cast<double>(download->getImage()->wireSize(fileSize(), getApp().sizeZqf)) / rate;
}

ZqStartForecast ZqImageFeed::forecast(double rate) const {
    const uint64 nThere = fileSize(), nTotal = getApp().sizeZqf;
    if (!manager || nThere >= nTotal) return ZqStartForecast(getApp(), 0, nTotal);
    // The profile is of `img.zqf`, of which a packed delivery brings more than the wire has.
    const auto nWire =
        static_cast<double>(std::max<uint64>(download->getImage()->wireSize(nThere, nTotal), 1));
    const double gain = static_cast<double>(nTotal - nThere) / nWire;
    // A start at once waits for the map, and as much of the image comes beside that.
    const double nBeside = std::min(static_cast<double>(download->getMapLeft()->load()), nWire) * gain;
    ZqStartForecast result(getApp(), rate * gain / ZqBlocks::PER_MEGABIT,
                           nThere + static_cast<uint64>(nBeside));
    if (const auto start = download->findStart(rate, false)) {
        result.untilSafe = start->seconds;
        result.untilMount = download->untilDrive(rate);
        if (start->seconds > 0) result.nInit = static_cast<uint64>(start->size);
    }
    return result;
}

ZqImageFeed::Status ZqImageFeed::getStatus() const {
    Status status;
    status.outage = getOutage();
    status.nTotal = getApp().sizeZqf;
    status.waiting = health.getWaiting();
    status.carried = folder.getCarried();
    status.nShort = file.getNShort();
    if (digest) digest->addTo(&status);
    if (!manager) {
        status.nCurrent = status.nNeeded = status.nTotal;
        return status;
    }
    status.isUnderflow = manager->isUnderflow();
    download->addTo(&status);
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

ZqCursorWay ZqImageFeed::getCursorWay() const {
    const SxPtr<ZqImageProgress> progress = download ? download->getProgress() : nullptr;
    return progress ? progress->getCursorWay() : ZqCursorWay();
}

void ZqImageFeed::endCursorWay() {
    const SxPtr<ZqImageProgress> progress = download ? download->getProgress() : nullptr;
    if (progress) progress->endCursorWay();
}

ZqImageFeed::Speeds ZqImageFeed::getSpeeds() const {
    const SxPtr<ZqImageProgress> progress = download ? download->getProgress() : nullptr;
    if (!progress) return {};
    return {progress->getGlobalAvgSpeed(), progress->getGlobalMaxSpeed(), progress->getGlobalSigmaSpeed()};
}
