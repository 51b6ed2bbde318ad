#include "ZqPartRepair.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFileIO.h"
#include "ZqBlocks.h"
#include "ZqFeedHealth.h"
#include "ZqGrowingImage.h"
#include "ZqImageRepair.h"
#include "ZqLog.h"
#include "ZqVolume.h"

#include <algorithm>

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

ZqPartRepair::ZqPartRepair(const ZqImageOrigin& origin_, const SxPtr<ZqRemoteImage>& image_,
                           const ZqProgramWrites& writes_, ZqGrowingImage* file_, ZqFeedHealth* health_,
                           ZqStopTest isStopped_)
    : origin(origin_),
      image(image_),
      writes(writes_),
      file(file_),
      health(health_),
      isStopped(std::move(isStopped_)) {
}

void ZqPartRepair::open(const ZqStreamRecord::Left& noted, bool isConfirmed, const ZqStopTest& stop) {
    const uint64 size = file->size();
    isRight = size == 0 || noted == ZqStreamRecord::Left::of(origin.getImage());
    if (isRight) return;
    part = std::make_unique<ZqPartCheck>(file->getPath(), size, origin.getApp().sizeZqf);
    if (!isConfirmed) return;
    const bool isChanged = noted.size >= 0;
    const ZqStopTest late = [&stop, endNs = SxClock::get().steadyNs() + (isChanged ? TABLE_NS : KILLED_NS)] {
        return (stop && stop()) || isPassed(endNs);
    };
    if (isChanged)
        health->setWaiting("img.zqf was changed since the last run, and is compared with its checksums");
    try {
        const SxPtr<ZqSeekTable> table = image->awaitTable(late);
        if (table && table->hasChecksums()) {
            part->compare(*table, size, ALL, isChanged ? stop : late);
            mendAhead(*table, stop);
        }
    } catch (const SxException& e) {
        if (stop && stop()) throw;
        // The rest of it goes on beside the game.
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
    }
    health->setWaiting("");
}

void ZqPartRepair::mendAhead(const ZqSeekTable& table, const ZqStopTest& stop) {
    std::deque<uint64>& wrong = part->getWrong();
    if (!wrong.empty()) {
        const uint64 nBehind = ZqSeekTable::countFrames(file->size()) - wrong.front();
        // A file that is mostly wrong may be another one. What a drive has can't be taken away from it.
        if (2 * wrong.size() > nBehind && !isMounted(origin.getImage())) {
            zqLogMsg("base", SxString("ZqImageFeed: img.zqf is wrong from stretch ") + wrong.front() +
                                 " on, and is fetched again from there");
            SxFileIO(file->getPath(), "r+b").truncate(static_cast<int64>(wrong.front() * ZqBlocks::STRETCH));
            part = nullptr;
            isRight = true;
            return;
        }
        const int64 endNs = SxClock::get().steadyNs() + MEND_NS;
        mendPart(ZqImageRepair(file->getPath(), image), table,
                 [&] { return (stop && stop()) || isPassed(endNs); });
    }
    isRight = part->isCompared() && wrong.empty();
}

/// Each is tried once: what can't be had now stays among the wrong ones.
void ZqPartRepair::mendPart(const ZqImageRepair& repair, const ZqSeekTable& table, const ZqStopTest& stop) {
    std::deque<uint64>& wrong = part->getWrong();
    if (wrong.empty()) return;
    const SxPtr<ZqImageLock> blocks = writes.lockOut();
    SxException why;
    repair.replaceSome(&wrong, table, ZqImageRepair::TRY_MS, stop, &why);
    if (!wrong.empty()) zqLogMsg("base", "ZqImageFeed: " + why.toString(SxException::ShowMessage, ": "));
}

void ZqPartRepair::start() {
    if (isRight) return;
    job = std::make_unique<ZqFeedJob>("part", [this] {
        try {
            check();
        } catch (const SxException& e) {
            // The digest of the whole tells, and the next run begins anew with it.
            if (!e.hasTag(SxException::STOPPED))
                zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
        }
    });
    job->start();
}

void ZqPartRepair::check() {
    // From then on the digest decides.
    const ZqStopTest stop = [this] { return isStopped() || file->isComplete(); };
    ZqImageRepair repair(file->getPath(), image);
    repair.setPlayer({[this](const SxException& why) {
                          return ZqFailurePolicy::decide(why, health->hasDrive()) != ZqFailurePolicy::End;
                      },
                      [this](const ZqStopTest& stopped) { origin.requireSame(image->getLink(), stopped); }});
    const SxPtr<ZqSeekTable> table = repair.awaitTable(stop);
    if (!table || !table->hasChecksums()) return;
    std::deque<uint64>& wrong = part->getWrong();
    std::deque<uint64> late; // those that couldn't be had at first, for when all are known
    while (!part->isCompared() || !wrong.empty()) {
        image->getLink()->checkStop(stop);
        const int64 beginNs = SxClock::get().steadyNs();
        part->compare(*table, file->size(), GO, stop);
        const int64 nMs = (SxClock::get().steadyNs() - beginNs) / 1'000'000;
        mendPart(repair, *table, stop);
        late.insert(late.end(), wrong.begin(), wrong.end());
        wrong.clear();
        // A game reads from the same disk, and gets at least half of its time. Or what is to be compared next
        // is still to come.
        image->getLink()->sleep(std::max(nMs, PART_LOOK_MS), stop);
    }
    if (!late.empty()) {
        const SxPtr<ZqImageLock> blocks = writes.lockOut();
        repair.replace(late, *table, stop);
    }
    isRight = true;
}

void ZqPartRepair::wait() {
    if (job) job->wait();
}

void ZqPartRepair::noteLeft() const {
    if (!isRight || file->isComplete()) return;
    const auto left = ZqStreamRecord::Left::of(origin.getImage());
    // The image was removed, and a record would bring its folder back.
    if (left.size < 0) return;
    try {
        ZqStreamRecord::update(origin.getImage(), [&](ZqStreamRecord* record) { record->left = left; });
    } catch (const SxException& e) {
        // The price is that the next run compares what is there.
        zqLogMsg("base", "ZqImageFeed: " + e.toString(SxException::ShowMessage, ": "));
    }
}
