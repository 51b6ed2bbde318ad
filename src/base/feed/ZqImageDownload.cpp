#include "ZqImageDownload.h"

#include "SxClock.h"
#include "SxException.h"
#include "ZqBlocks.h"
#include "ZqFWriter.h"
#include "ZqFeedHealth.h"
#include "ZqGrowingImage.h"
#include "ZqImageProgress.h"
#include "ZqLog.h"
#include "ZqOrderedDownload.h"
#include "ZqStartForecast.h"

#include <algorithm>

namespace {

constexpr uint64 ANY_RATE = ~uint64{0};
/// The longest time from one try of a download that fails to the next.
constexpr int64 MAX_PAUSE_NS = 8'000'000'000;
/// Below that rate, bytes a second, silence is the limit's.
constexpr uint64 STEADY_RATE = 64 << 10;
/// Silence of the server that is told. The link itself gives a request up after 10 s only, and its next try
/// may bring some bytes before it is silent again.
constexpr int64 SILENCE_MS = 3000;

} // namespace

ZqImageDownload::ZqImageDownload(const ZqImageOrigin& origin_, const SxPtr<ZqNetLink>& link_,
                                 ZqGrowingImage* file_, ZqFeedHealth* health_, ZqStopTest isStopped_)
    : origin(origin_),
      link(link_),
      image(origin_.makeImage(link_)),
      file(file_),
      health(health_),
      isStopped(std::move(isStopped_)) {
}

ZqImageDownload::~ZqImageDownload() = default;

void ZqImageDownload::start() {
    openStore();
    file->startWriter();
    progress = SxPtr<ZqImageProgress>::create(origin.getImage(), origin.getApp());
    progress->setWriteEnd([this] { return file->writeEnd(); });
    progress->setEarlySpeed([this] { return getLinkRate() / ZqBlocks::PER_MEGABIT; });
    progress->start();
    download = std::make_unique<ZqOrderedDownload>(image);
    beginDownload();
}

void ZqImageDownload::openStore() {
    const ZqAppParams& app = origin.getApp();
    // Without a digest nothing tells another order of the blocks from this one.
    const SxString key = ZqStretchStore::keyOf(app.checksumZqf, app.checksumIdx, app.checksumMnt);
    if (key.isEmpty()) return;
    try {
        image->setStore(std::make_unique<ZqStretchStore>(
            origin.getImage(), key, app.sizeZqf, ZqBlocks::STRETCH, file->size(), file->getReserve()));
    } catch (const SxException& e) {
        // Then what is fetched out of its order is only good for this run.
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
    }
}

void ZqImageDownload::beginDownload() {
    if (download->setWriter(file->getWriter(), file->size())) return;
    download->wait();
    download->start();
}

bool ZqImageDownload::keep() {
    download->flush();
    image->setWritten(file->size());
    keepDownload();
    const ZqGrowingImage::Writing writing = file->keepWriter();
    if (writing == ZqGrowingImage::Replaced) beginDownload();
    keepProgress();
    watchServer();
    return writing == ZqGrowingImage::Ended;
}

void ZqImageDownload::keepDownload() {
    if (download->isRunning()) {
        if (isInterrupted && file->size() > interruptedSize) {
            isInterrupted = false;
            pauseNs = FIRST_PAUSE_NS;
            health->setWaiting("");
        }
        return;
    }
    // What the writer still holds would overlap with what comes anew, and neither would be written to the
    // end.
    const SxPtr<ZqFWriter> writer = file->getWriter();
    const bool isWriting = writer->isRunning() && writer->getBytesHeld() > 0;
    if (versionCheck) {
        if (!isWriting) resumeDownload();
        return;
    }
    download->wait();
    if (!download->hasException()) {
        // All was handed over and is written. Where bytes are missing nevertheless, for whatever reason, the
        // download begins again, since they would never come.
        if (!isWriting && writer->isRunning() && !file->isComplete()) beginDownload();
        return;
    }
    const ZqFailurePolicy::Verdict verdict = health->settle(download->getException());
    isInterrupted = true;
    interruptedSize = file->size();
    if (!isWriting) beginAgain(verdict);
}

void ZqImageDownload::beginAgain(ZqFailurePolicy::Verdict verdict) {
    const int64 nowNs = SxClock::get().steadyNs();
    if (nowNs - downloadNs < pauseNs) return;
    downloadNs = nowNs;
    pauseNs = std::min(2 * pauseNs, MAX_PAUSE_NS);
    if (verdict != ZqFailurePolicy::Restart) {
        beginDownload();
        return;
    }
    // Whether the server still has the version that is downloaded.
    versionCheck = std::make_unique<ZqFeedJob>("version", [this] { origin.requireSame(link, isStopped); });
    versionCheck->start();
}

void ZqImageDownload::resumeDownload() {
    if (versionCheck->isRunning()) return;
    versionCheck->wait();
    const bool isTold = !versionCheck->hasException();
    const SxException why = versionCheck->getException();
    versionCheck = nullptr;
    if (!isTold) {
        health->settle(why);
        return;
    }
    image->forgetServer();
    beginDownload();
}

void ZqImageDownload::keepProgress() {
    // Once all is there its records may still be on their way, and the owner brings the cursor to the end.
    if (progress->isRunning() || progress->getNCurrent() >= progress->getNTotal()) return;
    progress->wait();
    if (progress->hasFailure()) health->settle(progress->getFailure());
}

void ZqImageDownload::watchServer() {
    const uint64 limit = origin.getRateLimit();
    const bool isSlowed = limit > 0 && limit < STEADY_RATE;
    // What waits for the disk is the disk's affair.
    const bool isWanted = download->isRunning() && file->getWriter()->getBytesHeld() == 0 && !isSlowed;
    silence.look(link->getFigures().nBytes, isWanted);
}

bool ZqImageDownload::isRunning() const {
    return progress->isRunning() || download->isRunning() || file->getWriter()->isRunning();
}

void ZqImageDownload::stop() {
    if (versionCheck) versionCheck->wait();
    if (download) download->stop();
    if (progress) progress->stop();
    link->cancel();
    const SxPtr<ZqFWriter> writer = file->getWriter();
    if (writer) writer->stop();
}

void ZqImageDownload::wait() {
    if (download) download->wait();
    if (progress) progress->wait();
    const SxPtr<ZqFWriter> writer = file->getWriter();
    if (writer) writer->wait();
}

/// What the link may carry of the ordered download, bytes a second; 0 where that isn't known.
double ZqImageDownload::getLinkRate() const {
    const ZqNetFigures now = link->getFigures();
    const auto limit = static_cast<double>(origin.getRateLimit());
    // What is measured is one stream, and the map's takes as much, or all once the image is there.
    const bool hasTwo = mapLeft > 0 && progress->getNCurrent() < origin.getApp().sizeZqf;
    const double rate = hasTwo ? 2 * now.rate : now.rate;
    // Streams that the limit holds all the time have no rate of their own.
    return now.isAtLimit || (limit > 0 && rate > limit) ? limit : rate;
}

std::optional<ZqStartEta::Point> ZqImageDownload::findStart(double rate, bool isAtOnce) const {
    ZqStartEta eta = makeEta(rate);
    eta.isAtOnce = isAtOnce;
    return eta.find(origin.getApp());
}

double ZqImageDownload::untilDrive(double rate) const {
    return makeEta(rate).untilDrive(origin.getApp());
}

ZqStartEta ZqImageDownload::makeEta(double rate) const {
    ZqStartEta eta;
    eta.nThere = progress->getNCurrent();
    eta.rate = rate;
    eta.speed = progress->getAvgSpeed();
    eta.nSeconds = progress->getNSpeeds();
    const ZqImageProgress::Pass pass = progress->getPass();
    eta.passSeconds = pass.seconds;
    eta.nPass = pass.nBytes;
    eta.nMap = mapLeft;
    eta.wireSize = [this](uint64 from, uint64 to) { return image->wireSize(from, to); };
    return eta;
}

void ZqImageDownload::addTo(ZqFeedStatus* status) const {
    const uint64 limit = origin.getRateLimit() > 0 ? origin.getRateLimit() : ANY_RATE;
    status->nCurrent = progress->getNCurrent();
    // A start doesn't wait for a server that is away where it needs nothing of it.
    status->nNeeded = std::min(progress->getNInit(limit), ZqStartForecast::findAll(origin.getApp()));
    status->speed = progress->getAvgSpeed() * ZqBlocks::PER_MEGABIT;
    status->startEta = progress->getStartETA(limit);
    status->totalEta = progress->getTotalETA();
    status->link = link->getFigures();
    status->linkRate = getLinkRate();
    status->image = image->getFigures();
    if (status->waiting.isEmpty() && progress->isServiceSilent()) {
        status->waiting = "waiting for the drive service, which doesn't answer";
    }
    if (status->waiting.isEmpty()) status->waiting = link->getStatus();
    const int64 silentMs = silence.getMs();
    const bool isSilent = status->waiting.isEmpty() && silentMs >= SILENCE_MS;
    if (isSilent) status->waiting = "waiting for the server: no data";
    if (isSilent || status->outage.nTries > 0) status->outage.ms = std::max(status->outage.ms, silentMs);
}
