#pragma once

#include "ZqRunResult.h"

#include <atomic>

struct ZqDiskStatus;

/// The waits of a run's application: each is a time of more than half a second in which at least one read of
/// the drive was held without a break. What was held before the application's start doesn't count. Times are
/// those of the service that holds the reads; a look at its status every quarter of a second misses none. Of
/// the run's thread, but for isOpen().
class ZqHeldReads {
public:
    using Wait = ZqRunResult::Wait;
    /// So many are kept one by one, the longest; all of them count.
    static constexpr size_t MOST = 256;

    /// The application starts, at `nowNs` of the steady clock, in a run that began at `beginNs_`.
    void start(int64 beginNs_, int64 nowNs) { goOn(beginNs_, nowNs, nowNs); }
    /// It has started at `startNs_`, and what had ended up to `knownNs_` is known already.
    void goOn(int64 beginNs_, int64 startNs_, int64 knownNs_);
    /// To be called with each new status of the drive.
    void look(const ZqDiskStatus& disk);
    /// The application has ended: a wait that goes on counts up to `nowNs`, and nothing counts later.
    void end(int64 nowNs);

    /// Whether a read was held at the last look. Safe from any thread.
    bool isOpen() const { return openNs != 0; }
    /// What was found, without a wait that goes on; none before the start.
    std::optional<ZqRunRecord::Waits> getSum() const;
    /// In order of time.
    const std::vector<Wait>& getWaits() const { return waits; }

private:
    static constexpr int64 NONE = -1;

    int64 lengthOf(int64 fromNs, int64 toNs) const;
    void take(int64 fromNs, int64 toNs);

    int64 beginNs = 0;
    int64 startNs = NONE;         ///< of the application
    int64 knownNs = 0;            ///< what had ended until then doesn't count
    int64 takenNs = 0;            ///< when the last wait that was taken had begun
    std::atomic<int64> openNs{0}; ///< when the one began that goes on; 0 for none
    bool hasEnded = false;
    ZqRunRecord::Waits sum;
    std::vector<Wait> waits;
};
