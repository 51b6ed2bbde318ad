#include "ZqApplicationNote.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "ZqLog.h"
#include "ZqRunWait.h"
#include "ZqStreamRecord.h"

namespace {
constexpr const char* UNIT = "src/base/ZqApplicationNote";
/// From one try to note the application to the next.
constexpr int64 NOTE_NS = 500'000'000;
} // namespace

ZqApplicationNote::ZqApplicationNote(SxString image_, ZqRunWait* waits_)
    : image(std::move(image_)),
      waits(waits_) {
}

void ZqApplicationNote::read() {
    ZqStreamRecord record;
    record.read(image);
    former = SxProcessGroup::fromText(record.application);
    nFormerStarts = record.nStarts;
    nUntraced = record.nUntraced;
}

void ZqApplicationNote::requireNoFormer() const {
    const SxList<SxProcessInfo> members = former.getRunning();
    if (members.isEmpty()) return;
    throw SxException("The application of a former run of '" + image + "' still runs (process " +
                          SxString(SxProcessGroup::oldestOf(members).id) +
                          "), and its drive has gone with the drive's service; end it first",
                      UNIT, __LINE__);
}

void ZqApplicationNote::adopt() {
    isAdopted = true;
    nStarts = nFormerStarts;
}

void ZqApplicationNote::note(const SxProcessGroup& group, bool isTraced) {
    if (isAdopted) return;
    const SxString text = group.toText();
    if (isNoted && text == noted) return;
    const int64 nowNs = SxClock::get().steadyNs();
    if (failNs != 0 && nowNs - failNs < NOTE_NS) return;
    SxString line;
    try {
        ZqStreamRecord::update(image, [&](ZqStreamRecord* record) {
            // Now and not at the run's end, which a run that is killed doesn't come to.
            if (!isNoted) {
                ++record->nStarts;
                record->nUntraced = isTraced ? 0 : record->nUntraced + 1;
            }
            record->application = text;
            nStarts = record->nStarts;
        });
        isNoted = true;
        noted = text;
    } catch (const SxException& e) {
        failNs = nowNs;
        line = "the application can't be noted yet: " + e.toString(SxException::ShowMessage, ": ");
    }
    waits->tell(line);
}

void ZqApplicationNote::noteEnd(const SxProcessGroup& group) const {
    const SxString text = group.toText();
    // A folder that was removed would come back.
    if (text.isEmpty() || !(isNoted || isAdopted) || !SxFSAction::exists(image)) return;
    try {
        ZqStreamRecord::update(image, [&](ZqStreamRecord* record) {
            if (record->application == text) record->application = SxString();
        });
    } catch (const SxException& e) {
        zqLogMsg("base", SxString("ZqRun: the application's end can't be noted: ") + e.what());
    }
}
