#pragma once

#include "ZqRunRecord.h"

#include <memory>

class ZqFeedJob;

/// Notes the record of a run at its start and every ten seconds, so that a run which is killed leaves its
/// figures to the one that goes on with its application. Each is written on a thread of its own: a slow disk
/// keeps no run waiting. What can't be written goes to the log. Of the run's thread.
class ZqRunNotes {
public:
    explicit ZqRunNotes(SxString image_);
    ~ZqRunNotes();

    /// Whether it is time for the next one, and the last one has been written.
    bool isDue() const;
    /// Begins to write `record` as it is now.
    void note(const ZqRunRecord& record);
    /// Waits for the last one; the record of the run's end is to replace it.
    void finish(ZqRunRecord* record);

private:
    void write();

    const SxString image;
    int64 notedNs = 0; ///< when the last one was begun; 0 for never
    ZqRunRecord noted; ///< the writing thread's until that has ended
    std::unique_ptr<ZqFeedJob> writer;
};
