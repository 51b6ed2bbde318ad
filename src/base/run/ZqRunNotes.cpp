#include "ZqRunNotes.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"

namespace {
constexpr int64 INTERVAL_NS = 10'000'000'000;

void logFailure(const SxException& e) {
    zqLogMsg("base", "ZqRunNotes: " + e.toString(SxException::ShowMessage, ": "));
}

void write(ZqRunRecord* record, const SxString& image) {
    try {
        // A folder that was removed would come back.
        if (SxFSAction::exists(image)) record->write(image);
    } catch (const SxException& e) {
        logFailure(e);
    }
}
} // namespace

ZqRunNotes::ZqRunNotes(SxString image_) : image(std::move(image_)) {
}

bool ZqRunNotes::isDue() const {
    if (writer && !writer->hasEnded()) return false;
    return notedNs == 0 || SxClock::get().steadyNs() - notedNs >= INTERVAL_NS;
}

void ZqRunNotes::note(const ZqRunRecord& record) {
    before = record;
    if (noted) before.takeFile(*noted);
    before.asOfMs = ZqSysEnv::getSysTime();
    try {
        // Here, so that the record of the end has the same one, whenever the first note is on the disk.
        if (SxFSAction::exists(image)) before.chooseFile(image);
    } catch (const SxException& e) {
        logFailure(e);
    }
    noted = std::make_shared<ZqRunRecord>(before);
    notedNs = SxClock::get().steadyNs();
    writer.emplace("record", [record = noted, image = image] { write(record.get(), image); });
}

void ZqRunNotes::finish(ZqRunRecord* record) {
    if (!writer) return;
    isLate = !writer->endsWithin(LIMIT_MS);
    record->takeFile(isLate ? before : *noted);
}

bool ZqRunNotes::hasComeLate(ZqRunRecord* record) const {
    if (!isLate || !writer->endsWithin(LIMIT_MS)) return false;
    // They are told once, to whoever was written first.
    if (!record->info.patchStats.started) record->info.patchStats = noted->info.patchStats;
    if (!record->info.defragStats.started) record->info.defragStats = noted->info.defragStats;
    return true;
}
