#include "ZqDigestCheck.h"

#include "SxException.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "ZqFeedHealth.h"
#include "ZqImageRepair.h"
#include "ZqLog.h"
#include "ZqStreamRecord.h"
#include "ZqStretchStore.h"
#include "ZqSyncedSize.h"

namespace {
constexpr const char* UNIT = "src/base/ZqDigestCheck";
} // namespace

ZqDigestCheck::ZqDigestCheck(const ZqImageOrigin& origin_, const SxPtr<ZqRemoteImage>& image_,
                             const ZqProgramWrites& writes_, Need need, ZqFeedHealth* health_,
                             ZqStopTest isStopped_)
    : origin(origin_),
      image(image_),
      writes(writes_),
      isUntold(need == Untold),
      health(health_),
      isStopped(std::move(isStopped_)),
      verified(need == Done) {
}

void ZqDigestCheck::start() {
    if (verified) removeStore();
}

void ZqDigestCheck::keep() {
    if (verified) return;
    if (!job) {
        job = std::make_unique<ZqFeedJob>("digest", [this] { verify(); });
        job->start();
    }
    if (job->isRunning()) return;
    job->wait();
    if (job->hasException()) throw job->getException();
}

void ZqDigestCheck::wait() {
    if (job) job->wait();
}

void ZqDigestCheck::setVerified() {
    verified = true;
    removeStore();
}

void ZqDigestCheck::removeStore() const {
    try {
        ZqStretchStore::remove(origin.getImage());
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
    }
}

void ZqDigestCheck::verify() {
    const SxString& stated = origin.getApp().checksumZqf;
    if (isUntold) {
        setVerified();
        return;
    }
    checking = true;
    auto stamp = ZqStreamRecord::Stamp::of(origin.getImage());
    SxString digest = readDigest();
    if (!digest.isEmpty() && !(digest == stated) && mend() > 0) {
        stamp = ZqStreamRecord::Stamp::of(origin.getImage());
        digest = readDigest();
    }
    checking = false;
    // A check that was cut off is made up for by the next run.
    const bool isRight = digest == stated;
    if (digest.isEmpty() || (isStopped() && !isRight)) return;
    if (!isRight && writes.areNoted()) {
        // A drive has come up since, so the digest tells nothing.
        setVerified();
        return;
    }
    if (!isRight) {
        throw SxException(wrongText(digest), UNIT, __LINE__);
    }
    setVerified();
    try {
        // readDigest() has synced it.
        ZqSyncedSize(origin.getZqf()).noteComplete(nChecked);
        ZqStreamRecord::update(origin.getImage(), [&](ZqStreamRecord* record) {
            record->verified = digest;
            record->verifiedStamp = stamp;
        });
    } catch (const SxException& e) {
        // The price is that the next run checks again.
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage));
    }
}

SxString ZqDigestCheck::wrongText(const SxString& digest) const {
    const SxString text = "'" + origin.getZqf() + "' has the digest " + digest + " where app.json states " +
                          origin.getApp().checksumZqf;
    if (origin.hasAddress()) {
        return text + ": what the server gave isn't the image, or the file was changed since; to download it "
                      "anew, remove img.zqf";
    }
    return text +
           ": the file is damaged, or was changed since it was made; copy it or build it anew, or play "
           "it as it is (--no-verify)";
}

/// A run that has no link to a server, since all was there, makes one for this alone.
uint64 ZqDigestCheck::mend() {
    if (!image && !origin.hasAddress()) return 0;
    const SxPtr<ZqRemoteImage> source = image ? image : origin.makeImage(origin.makeLink());
    if (!image) {
        const SxMutexBlock block(&mutex);
        repairSource = source;
    }
    ZqImageRepair repair(origin.getZqf(), source);
    repair.setPlayer({[this](const SxException& why) { return settle(why); },
                      [&](const ZqStopTest& stop) { origin.requireSame(source->getLink(), stop); }});
    try {
        const SxPtr<ZqImageLock> blocks = writes.lockOut();
        const uint64 nMended = repair.mend([this](uint64 nDone) { nChecked = nDone; }, isStopped);
        health->setWaiting("");
        return nMended;
    } catch (const SxException& e) {
        if (e.hasTag(ZqFailurePolicy::OTHER_VERSION)) throw;
        // The image stays as wrong as it was, which is what is told.
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
        return 0;
    }
}

/// Whether it may be tried again, as long as somebody plays.
bool ZqDigestCheck::settle(const SxException& why) const {
    if (health->hasDriveStarted()) {
        health->settle(why);
        return true;
    }
    // What passes the repair waits for by itself, for a while at least.
    if (ZqFailurePolicy::decide(why, true) == ZqFailurePolicy::Wait)
        health->setWaiting(ZqFailurePolicy::waitingLine(why));
    return false;
}

void ZqDigestCheck::addTo(ZqFeedStatus* status) const {
    status->isChecking = checking;
    status->nChecked = nChecked;
    SxPtr<ZqRemoteImage> source;
    {
        const SxMutexBlock block(&mutex);
        source = repairSource;
    }
    if (!source) return;
    status->link = source->getLink()->getFigures();
    status->image = source->getFigures();
    if (status->waiting.isEmpty() && checking) status->waiting = source->getLink()->getStatus();
}

SxString ZqDigestCheck::readDigest() {
    nChecked = 0;
    SxFileIO file(origin.getZqf(), "rb");
    SxString digest = SxMd5::file(&file, [&](int64 n) {
        file.startWriteback(static_cast<int64>(nChecked), n);
        nChecked += static_cast<uint64>(n);
        return !isStopped();
    });
    // A power cut must not leave less than what is noted as right.
    if (!digest.isEmpty()) file.sync();
    return digest;
}
