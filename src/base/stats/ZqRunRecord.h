#pragma once

#include "ZqImageFigures.h"
#include "ZqNetFigures.h"
#include "ZqRunAccuracy.h"
#include "ZqRuntimeInfo.h"

/// Times in which an application waited for blocks: at least one read was held without a break, for more than
/// half a second.
struct ZqRunWaits {
    int64 n = 0, longestMs = 0, sumMs = 0;
};

/// What one run was like, whole: the figures of ZqRuntimeInfo and what `runtime.json` lacks. A file for each
/// run stands in the folder `runs/` of its image, in order of the runs by their names, of which the last
/// KEPT stay; they are for their user alone, since a record may hold the token of a statistics service. Times
/// in milliseconds unless they say otherwise. Not locked.
struct ZqRunRecord {
    static constexpr int64 KEPT = 100;

    using Waits = ZqRunWaits;

    ZqRuntimeInfo info;         ///< times in seconds, speeds in megabit per second
    SxString build;             ///< build id: `checksums.mnt` of the application's record
    SxString order;             ///< digest of the image's map
    bool wasStarted = false;    ///< the application was, by this run or by the one that it has gone on with
    bool wasStopped = false;    ///< the player has ended the run
    bool isExitKnown = false;   ///< `info.exitCode` is that of the application
    int64 startMs = -1;         ///< from the beginning of the run to the application's start
    int64 firstFrameMs = -1;    ///< to its first frame; -1 where that isn't known
    int64 firstWindowMs = -1;   ///< until its first window was seen, which may be empty; -1 for never
    std::optional<Waits> waits; ///< of an application that was started; none where they aren't known
    int64 lastWaitMs = -1;      ///< to the last moment at which a read waited for blocks; -1 for never
    int64 mountMs = -1;         ///< until the drive was up; -1 where it was so before, or never
    int64 lengthMs = 0;         ///< to the end of the run, without the time that ending it took
    SxString traceFolder;       ///< empty where nothing was traced
    ZqNetFigures link;
    ZqImageFigures image;
    uint64 nMissing = 0;   ///< bytes of `img.zqf` that are still to be fetched
    SxString lostLetter;   ///< the drive's, where a runner has taken it for good
    SxString driveFailure; ///< the first read or write of the drive that failed; empty where none has
    ZqRunAccuracy accuracy;
    /// When this was noted in the middle of the run, in milliseconds since 1970 UTC; 0 once the run has
    /// ended. Where it stays, the run was killed.
    int64 asOfMs = 0;

    /// What `runtime.json` has, `exitCode` null where it isn't known, and all else but the token.
    SxParserKit::SxSymbol toJson() const;
    /// Chooses the file of the record among those of the image folder `folder`, if it has none. Raises where
    /// the folder can't be read.
    void chooseFile(const SxString& folder);
    /// Writes the record among those of the image folder `folder`, in a file that the first write makes, and
    /// removes those that are too old. What the image's preparation jobs have done since its last run becomes
    /// part of the record and isn't kept for the next one. Raises "Failed to write file ..." with the cause.
    void write(const SxString& folder);
    /// The newest record of the image folder of a run that goes on or was killed, and whose application was
    /// the `nStarts`-th one. Later runs, which didn't come to a start, may have left records since.
    static std::optional<ZqRunRecord> findOpen(const SxString& folder, int64 nStarts);
    /// Makes this the record of a run from the beginning of `former` on, whose application this run has gone
    /// on with, `gapMs` after that was noted.
    void goOnFrom(const ZqRunRecord& former, int64 gapMs);
    /// The file of this record, and the preparations that it tells of, are those of `written`, an earlier
    /// state of it.
    void takeFile(const ZqRunRecord& written);
    /// The last records of the image folder, newest last, `n` at most. One that can't be read is passed over
    /// and named in `*failures`.
    static SxList<ZqRunRecord> readLast(const SxString& folder, int64 n, SxList<SxException>* failures);
    /// Raises "Failed to read file ..." with the cause.
    static ZqRunRecord read(const SxString& file);
    /// Notes what a statistics service has given for the run `id`. Nothing where the image folder has no
    /// record of it; raises as read() and write() do.
    static void noteToken(const SxString& folder, const SxString& id, const SxString& token);
    /// Writes it back to where it was read from, or written to last.
    void rewrite() const;

protected:
    void appendTransfer(SxParserKit::SxSymbol* root) const;

private:
    SxString file;          ///< empty until one is chosen
    bool isWritten = false; ///< and tells of the preparations before the run
};
