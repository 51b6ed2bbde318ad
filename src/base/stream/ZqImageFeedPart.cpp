#include "SxClock.h"
#include "SxException.h"
#include "SxFileIO.h"
#include "SxFileInfo.h"
#include "SxTime.h"
#include "ZqBlocks.h"
#include "ZqImageFeed.h"
#include "ZqImageFeedJob.h"
#include "ZqImageFiles.h"
#include "ZqImageInfo.h"
#include "ZqImageRecords.h"
#include "ZqImageRepair.h"
#include "ZqLog.h"
#include "ZqPartCheck.h"
#include "ZqStreamRecord.h"
#include "ZqSyncedSize.h"
#include "ZqVolume.h"

// What an earlier run has left of an image may have been damaged since. A download that ends in order notes
// size and time of the partial file in `stream.json`, and the next one removes that note before it writes.
// Where the note fits the file is believed. Else its stretches are compared with the seek table, and the
// wrong ones are fetched again: before the start where the file was changed for sure, and for the most
// part beside the game after a kill, which leaves no note, and most likely no damage. Who plays without a
// server isn't held up. Where there is no table only the digest of the complete file tells, and ends the run.

namespace {

constexpr int64 SECOND_NS = 1'000'000'000;
/// What a start waits at most for the comparison after a run that was killed, with its table.
constexpr int64 KILLED_NS = 2 * SECOND_NS;
/// What it waits for the table where the file was changed for sure, and for what is fetched anew then.
constexpr int64 TABLE_NS = 4 * SECOND_NS, MEND_NS = 10 * SECOND_NS;
/// The least pause between two goes, in milliseconds.
constexpr int64 PART_LOOK_MS = 50;
/// Stretches that are compared in one go beside a game.
constexpr uint64 GO = 16;
constexpr uint64 ALL = ~uint64{0};

bool isPassed(int64 ns) {
    return SxClock::get().steadyNs() >= ns;
}

bool isMounted(const SxString& image) {
    try {
        ZqDiskStatus disk;
        return ZqVolume::findDisk(image, &disk);
    } catch (const SxException&) {
        // A service that is silent may have it mounted.
        return true;
    }
}

} // namespace

/// A file that is as large as the image though no download has made it so is the image, as its digest tells,
/// or another file, of which at most the beginning is right: that is cut back to what was noted.
void ZqImageFeed::cutSurplus(const ZqStreamRecord& record, const ZqStopTest& stop) const {
    const SxFileInfo zqf(filePath(ZqImageFiles::ZQF));
    if (url.isEmpty() || record.isWritten || zqf.isLink() || !ZqImageInfo::isComplete(settings.image)) return;
    const ZqAppParams own(filePath(""));
    const auto cutTo = [&](uint64 size) {
        zqLogMsg("base", "'" + zqf.getOrig() + "' has " + SxString(fileSize()) + " bytes, and is cut to " +
                             SxString(size));
        SxFileIO(zqf.getOrig(), "r+b").truncate(static_cast<int64>(size));
    };
    try {
        if (fileSize() > own.sizeZqf) cutTo(own.sizeZqf);
        const auto left = static_cast<uint64>(record.left.size);
        if (record.left.size < 0 || left >= own.sizeZqf || own.checksumZqf.isEmpty()) return;
        if (!ZqSyncedSize(zqf.getOrig()).isWholeImage(own.sizeZqf, stop)) cutTo(left);
    } catch (const SxException& e) {
        if (e.hasTag(SxException::STOPPED)) throw;
        // The comparison with its digest tells later.
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
    }
}

void ZqImageFeed::openPart(const ZqStreamRecord& record, const ZqStopTest& stop) {
    opened = makeImage(link);
    // A server that hasn't given its `app.json` may have another version by now, so nothing is taken from it.
    if (!isConfirmed) opened->doubtServer();
    const uint64 size = fileSize();
    isPartRight = size == 0 || isWritten || record.left == ZqStreamRecord::Left::of(settings.image);
    if (isPartRight) return;
    part = std::make_unique<ZqPartCheck>(filePath(ZqImageFiles::ZQF), size, app.sizeZqf);
    if (!isConfirmed) return;
    const bool isChanged = record.left.size >= 0;
    const ZqStopTest late = [&stop, endNs = SxClock::get().steadyNs() + (isChanged ? TABLE_NS : KILLED_NS)] {
        return (stop && stop()) || isPassed(endNs);
    };
    if (isChanged) setWaiting("img.zqf was changed since the last run, and is compared with its checksums");
    try {
        const SxPtr<ZqSeekTable> table = opened->awaitTable(late);
        if (table && table->hasChecksums()) {
            part->compare(*table, size, ALL, isChanged ? stop : late);
            mendAhead(*table, stop);
        }
    } catch (const SxException& e) {
        if (stop && stop()) throw;
        // The rest of it goes on beside the game.
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
    }
    setWaiting("");
}

void ZqImageFeed::mendAhead(const ZqSeekTable& table, const ZqStopTest& stop) {
    std::deque<uint64>& wrong = part->getWrong();
    if (!wrong.empty()) {
        const uint64 nBehind = ZqSeekTable::countFrames(fileSize()) - wrong.front();
        // A file that is mostly wrong may be another one. What a drive has can't be taken away from it.
        if (2 * wrong.size() > nBehind && !isMounted(settings.image)) {
            zqLogMsg("base", SxString("ZqImageFeed: img.zqf is wrong from stretch ") + wrong.front() +
                                 " on, and is fetched again from there");
            SxFileIO(filePath(ZqImageFiles::ZQF), "r+b")
                .truncate(static_cast<int64>(wrong.front() * ZqBlocks::STRETCH));
            part = nullptr;
            isPartRight = true;
            return;
        }
        const int64 endNs = SxClock::get().steadyNs() + MEND_NS;
        mendPart(ZqImageRepair(filePath(ZqImageFiles::ZQF), opened), table,
                 [&] { return (stop && stop()) || isPassed(endNs); });
    }
    isPartRight = part->isCompared() && wrong.empty();
}

/// Each is tried once: what can't be had now stays among the wrong ones.
void ZqImageFeed::mendPart(const ZqImageRepair& repair, const ZqSeekTable& table, const ZqStopTest& stop) {
    std::deque<uint64>& wrong = part->getWrong();
    if (wrong.empty()) return;
    const SxPtr<ZqImageLock> blocks = lockBlocks();
    SxException why;
    repair.replaceSome(&wrong, table, ZqImageRepair::TRY_MS, stop, &why);
    if (!wrong.empty()) zqLogMsg("base", "ZqImageFeed: " + why.toString(SxException::ShowMessage, ": "));
}

void ZqImageFeed::startPartCheck() {
    if (isPartRight) return;
    partCheck = std::make_unique<Job>("part", [this] {
        try {
            checkPart();
        } catch (const SxException& e) {
            // The digest of the whole tells, and the next run begins anew with it.
            if (!e.hasTag(SxException::STOPPED))
                zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
        }
    });
    partCheck->start();
}

void ZqImageFeed::checkPart() {
    // From then on the digest decides.
    const ZqStopTest stop = [this] { return stopping || isComplete(); };
    ZqImageRepair repair(filePath(ZqImageFiles::ZQF), image);
    repair.setPlayer(
        {[this](const SxException& why) {
             return ZqFailurePolicy::decide(why, hasDrive()) != ZqFailurePolicy::End;
         },
         [this](const ZqStopTest& stopped) {
             ZqImageRecords(link, settings.image, url, settings.headers).requireSameOnServer(app, stopped);
         }});
    const SxPtr<ZqSeekTable> table = repair.awaitTable(stop);
    if (!table || !table->hasChecksums()) return;
    std::deque<uint64>& wrong = part->getWrong();
    std::deque<uint64> late; // those that couldn't be had at first, for when all are known
    while (!part->isCompared() || !wrong.empty()) {
        link->checkStop(stop);
        const int64 beginNs = SxClock::get().steadyNs();
        part->compare(*table, fileSize(), GO, stop);
        const int64 nMs = (SxClock::get().steadyNs() - beginNs) / 1'000'000;
        mendPart(repair, *table, stop);
        late.insert(late.end(), wrong.begin(), wrong.end());
        wrong.clear();
        // A game reads from the same disk, and gets at least half of its time. Or what is to be compared next
        // is still to come.
        link->sleep(std::max(nMs, PART_LOOK_MS), stop);
    }
    if (!late.empty()) {
        const SxPtr<ZqImageLock> blocks = lockBlocks();
        repair.replace(late, *table, stop);
    }
    isPartRight = true;
}

void ZqImageFeed::noteLeft() {
    if (!link || !hasOpened || !isPartRight || isComplete()) return;
    hasOpened = false;
    const auto left = ZqStreamRecord::Left::of(settings.image);
    // The image was removed, and a record would bring its folder back.
    if (left.size < 0) return;
    try {
        ZqStreamRecord::update(settings.image, [&](ZqStreamRecord* record) { record->left = left; });
    } catch (const SxException& e) {
        // The price is that the next run compares what is there.
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
    }
}
