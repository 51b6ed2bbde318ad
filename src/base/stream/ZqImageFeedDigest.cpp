#include "SxException.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "ZqImageFeed.h"
#include "ZqImageFeedJob.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"
#include "ZqImageRecords.h"
#include "ZqImageRepair.h"
#include "ZqLog.h"
#include "ZqStreamRecord.h"
#include "ZqSyncedSize.h"

// A feed's complete image is compared with the digest of `app.json`. Where it differs, the checksums of the
// seek table tell which stretches are wrong (ZqImageRepair), these alone are fetched anew, and the digest is
// taken again. A difference that stays, or whose place no table tells, ends the download. `stream.json` notes
// a digest that fits, with the file's size and time, so that a file that was changed since is compared again.
// A complete image that came from a server and has no such note was found to be wrong by an earlier run, or
// that was ended before it knew. So the start of a right one waits for this at most once.

namespace {
constexpr const char* UNIT = "src/base/ZqImageFeedDigest";
} // namespace

bool ZqImageFeed::isKnownAsRight(const ZqStreamRecord& record) const {
    return url.isEmpty() || app.checksumZqf.isEmpty() || isWritten ||
           record.isVerified(settings.image, app.checksumZqf);
}

void ZqImageFeed::keepDigest() {
    if (verified) return;
    if (!digestCheck) {
        digestCheck = std::make_unique<Job>("digest", [this] { verifyDigest(); });
        digestCheck->start();
    }
    if (digestCheck->isRunning()) return;
    digestCheck->wait();
    if (digestCheck->hasException()) throw digestCheck->getException();
}

void ZqImageFeed::verifyDigest() {
    if (app.checksumZqf.isEmpty() || isWritten) {
        verified = true;
        removeStore();
        return;
    }
    checking = true;
    auto stamp = ZqStreamRecord::Stamp::of(settings.image);
    SxString digest = readDigest();
    if (!digest.isEmpty() && !(digest == app.checksumZqf) && mend() > 0) {
        stamp = ZqStreamRecord::Stamp::of(settings.image);
        digest = readDigest();
    }
    checking = false;
    // A check that was cut off is made up for by the next run.
    const bool isRight = digest == app.checksumZqf;
    if (digest.isEmpty() || (stopping && !isRight)) return;
    if (!isRight && hasProgramsWrites()) {
        // A drive has come up since, so the digest tells nothing.
        verified = true;
        removeStore();
        return;
    }
    if (!isRight) {
        throw SxException("'" + filePath(ZqImageFiles::ZQF) + "' has the digest " + digest +
                              " where app.json states " + app.checksumZqf +
                              ": what the server gave isn't the image, or the file was changed since; "
                              "to download it anew, remove img.zqf",
                          UNIT, __LINE__);
    }
    verified = true;
    removeStore();
    try {
        // readDigest() has synced it.
        ZqSyncedSize(filePath(ZqImageFiles::ZQF)).noteComplete(nChecked);
        ZqStreamRecord::update(settings.image, [&](ZqStreamRecord* record) {
            record->verified = digest;
            record->verifiedStamp = stamp;
        });
    } catch (const SxException& e) {
        // The price is that the next run checks again.
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage));
    }
}

/// Programs' writes look like damage. So no drive that writes there comes up while this is held, and what one
/// has written before is known.
SxPtr<ZqImageLock> ZqImageFeed::lockBlocks() const {
    SxPtr<ZqImageLock> blocks =
        ZqImageLock::take(settings.image, ZqImageLock::Blocks, ZqImageLock::Exclusive, settings.job);
    if (!hasProgramsWrites()) return blocks;
    throw SxException("Programs have written into '" + filePath(ZqImageFiles::ZQF) +
                          "', so nothing there is put right",
                      UNIT, __LINE__);
}

/// Whether programs have written into the image by now. ZqMountMgr notes it before they can, also of an image
/// without an address, since a later run may bring one.
bool ZqImageFeed::hasProgramsWrites() const {
    ZqStreamRecord record;
    record.read(settings.image);
    return record.isWritten;
}

/// A run that has no link to a server, since all was there, makes one for this alone.
uint64 ZqImageFeed::mend() {
    const SxPtr<ZqRemoteImage> source = image ? image : makeImage(SxPtr<ZqNetLink>::create());
    if (!image) {
        const SxMutexBlock block(&mutex);
        repairSource = source;
    }
    ZqImageRepair repair(filePath(ZqImageFiles::ZQF), source);
    repair.setPlayer({[this](const SxException& why) {
                          if (driveStarted) {
                              settle(why);
                              return true;
                          }
                          // What passes the repair waits for by itself, for a while at least.
                          if (ZqFailurePolicy::decide(why, true) == ZqFailurePolicy::Wait)
                              setWaiting(ZqFailurePolicy::waitingLine(why));
                          return false;
                      },
                      [&](const ZqStopTest& stop) {
                          ZqImageRecords(source->getLink(), settings.image, url, settings.headers)
                              .requireSameOnServer(app, stop);
                      }});
    try {
        const SxPtr<ZqImageLock> blocks = lockBlocks();
        const uint64 nMended =
            repair.mend([this](uint64 nDone) { nChecked = nDone; }, [this] { return stopping.load(); });
        setWaiting("");
        return nMended;
    } catch (const SxException& e) {
        if (e.hasTag(ZqFailurePolicy::OTHER_VERSION)) throw;
        // The image stays as wrong as it was, which is what is told.
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
        return 0;
    }
}

void ZqImageFeed::addRepair(Status* status) const {
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

SxString ZqImageFeed::readDigest() {
    nChecked = 0;
    SxFileIO file(filePath(ZqImageFiles::ZQF), "rb");
    SxString digest = SxMd5::file(&file, [&](int64 n) {
        file.startWriteback(static_cast<int64>(nChecked), n);
        nChecked += static_cast<uint64>(n);
        return !stopping;
    });
    // A power cut must not leave less than what is noted as right.
    if (!digest.isEmpty()) file.sync();
    return digest;
}
