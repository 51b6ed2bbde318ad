#pragma once

#include "BlockIdx.h"
#include "DriveFile.h"
#include "SxMd5.h"
#include "SxMutex.h"

#include <atomic>
#include <vector>

/// Records which blocks requests touch, in `img.trc` (see ZqTraceFormat), writes with the mark, in order of
/// time; the first byte is locked meanwhile. Safe from any thread; whoever records never waits for the file.
class TraceRecorder {
public:
    ~TraceRecorder() { stop(); }

    /// Starts a trace afresh in a folder; one that runs ends. Raises.
    void start(const SxString& folder);
    /// Writes the rest and ends the trace; its record then states size and digest of what was written. What
    /// keeps it from that is logged.
    void stop();
    bool isOn() const { return on.load(std::memory_order_relaxed); }
    void record(RawIdx first, uint64 n, bool write);
    /// Writes what is gathered; to be called a few times a second.
    void flush();
    /// Whether a record has come since the last question.
    bool hasEvent() { return event.exchange(false); }
    /// Why the trace has ended by itself; empty where it hasn't.
    SxString getFailure() const;

private:
    /// As it stands in the file.
    struct Record {
        uint64 block, time;
    };

    void writeGathered() SX_REQUIRES(writing);
    void stateWhole() SX_REQUIRES(writing);
    void giveUp(const SxString& text) SX_REQUIRES(mutex);

    std::atomic<bool> on{false}, event{false};

    /// Held by whoever opens, writes or closes the file, over its I/O, and taken before `mutex`.
    SxMutex writing;
    DriveFile file SX_GUARDED_BY(writing);
    SxString prefix SX_GUARDED_BY(writing);           ///< the trace's folder with its slash
    uint64 end SX_GUARDED_BY(writing) = 0;            ///< bytes written
    SxMd5 digest SX_GUARDED_BY(writing);              ///< of what was written
    std::vector<Record> taken SX_GUARDED_BY(writing); ///< on their way to the file

    mutable SxMutex mutex;
    std::vector<Record> gathered SX_GUARDED_BY(mutex);
    uint64 startTime SX_GUARDED_BY(mutex) = 0; ///< Windows file time
    int64 startNs SX_GUARDED_BY(mutex) = 0;
    SxString failure SX_GUARDED_BY(mutex);
};
