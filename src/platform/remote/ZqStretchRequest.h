#pragma once

#include "ZqImageForms.h"
#include "ZqTransfer.h"

class ZqRangeReader;

/// One request for a stretch, or for several that follow each other: takes them one after the other, checked,
/// of whichever form serves. For one thread at a time, but for hasten().
///
/// A packed form whose server doesn't answer is left after TURN_TRIES tries in a row, or after a request that
/// was silent to its end where somebody waits. A stretch that is wrong is fetched again once by a request of
/// its own, of the plain form where the packed one was left.
class ZqStretchRequest {
public:
    using Bytes = ZqImageForms::Bytes;
    using Table = ZqImageForms::Table;

    /// Of stretch `nextIdx_`, and those that extend() adds.
    ZqStretchRequest(ZqImageForms* forms_, uint64 nextIdx_)
        : forms(forms_),
          nextIdx(nextIdx_),
          endIdx(nextIdx_ + 1) {}

    /// All up to `endIdx_` come with it. Of these only the first is waited for, so the request is one that
    /// can be held. Before begin().
    void extend(uint64 endIdx_);
    /// Makes the request, and returns.
    void begin(ZqTransfer::Kind kind);
    /// Somebody waits for it from now on. Safe from any thread, also before begin().
    void hasten() const;
    /// The stretch that comes next. Raises with the tags of ZqNetLink.
    Bytes takeNext(const ZqStopTest& stop);
    /// The same, by a request of its own; needs no begin().
    Bytes takeAgain(const ZqStopTest& stop);

    /// Stretches that are still to be taken.
    uint64 getNext() const noexcept { return nextIdx; }
    /// Bytes of the wire that bring a stretch.
    uint64 wireSize(uint64 stretchIdx) const;
    /// The table that the stretch was compared with that was taken last; null where it wasn't.
    const Table& getCheckedBy() const noexcept { return checkedBy; }

private:
    SxPtr<ZqRangeReader> makeReader(ZqTransfer::Kind kind) const;
    SxPtr<ZqRangeReader> getReader() const;
    /// Its bytes of the wire. Begins anew where the packed form was left for that.
    SxPtr<SxArray<char>> receive(const ZqStopTest& stop);
    Bytes check(uint64 stretchIdx, const Bytes& raw, const ZqStopTest& stop);

    ZqImageForms* const forms;
    uint64 nextIdx, endIdx;
    Table table; ///< of the packed form; null where the plain one is fetched
    Table checkedBy;
    bool isHeld = false;  ///< not alone
    bool isAgain = false; ///< for one that was damaged

    mutable SxMutex mutex;
    SxPtr<ZqRangeReader> reader SX_GUARDED_BY(mutex);
};
