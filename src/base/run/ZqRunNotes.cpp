#include "ZqRunNotes.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "ZqFeedJob.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"

namespace {
constexpr int64 INTERVAL_NS = 10'000'000'000;
} // namespace

ZqRunNotes::ZqRunNotes(SxString image_) : image(std::move(image_)) {
}

ZqRunNotes::~ZqRunNotes() {
    if (writer) writer->wait();
}

bool ZqRunNotes::isDue() const {
    if (writer && writer->isRunning()) return false;
    return notedNs == 0 || SxClock::get().steadyNs() - notedNs >= INTERVAL_NS;
}

void ZqRunNotes::note(const ZqRunRecord& record) {
    ZqRunRecord next = record;
    if (writer) {
        writer->wait();
        next.takeFile(noted);
    }
    noted = next;
    noted.asOfMs = ZqSysEnv::getSysTime();
    notedNs = SxClock::get().steadyNs();
    writer = std::make_unique<ZqFeedJob>("record", [this] { write(); });
    writer->start();
}

void ZqRunNotes::write() {
    try {
        // A folder that was removed would come back.
        if (SxFSAction::exists(image)) noted.write(image);
    } catch (const SxException& e) {
        zqLogMsg("base", "ZqRunNotes: " + e.toString(SxException::ShowMessage, ": "));
    }
}

void ZqRunNotes::finish(ZqRunRecord* record) {
    if (!writer) return;
    writer->wait();
    record->takeFile(noted);
}
