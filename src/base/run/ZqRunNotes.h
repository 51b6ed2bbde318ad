#pragma once

#include "SxLooseJob.h"
#include "ZqRunRecord.h"

#include <memory>
#include <optional>

/// Notes the record of a run at its start and every ten seconds, so that a run which is killed leaves its
/// figures to the one that goes on with its application. Each is written on a thread of its own: a slow disk
/// keeps no run waiting, and one that hangs holds up no end. What can't be written goes to the log. Of the
/// run's thread.
class ZqRunNotes {
public:
    /// What the end of a run waits for a note that is being written.
    static constexpr int64 LIMIT_MS = 3000;

    explicit ZqRunNotes(SxString image_);

    /// Whether it is time for the next one, and the last one has been written.
    bool isDue() const;
    /// Begins to write `record` as it is now. Only when isDue().
    void note(const ZqRunRecord& record);
    /// Waits for the last one, up to the limit; the record of the run's end is to replace it.
    void finish(ZqRunRecord* record);
    /// After that record was written: whether it has to be written again, since the last note came late and
    /// may have replaced it. Waits for that note, up to the limit, and adds what only that has been told.
    bool hasComeLate(ZqRunRecord* record) const;

private:
    const SxString image;
    int64 notedNs = 0;                  ///< when the last one was begun; 0 for never
    std::shared_ptr<ZqRunRecord> noted; ///< the writing thread's until that has ended
    ZqRunRecord before;                 ///< the same, before it was written
    std::optional<SxLooseJob> writer;
    bool isLate = false;
};
