#pragma once

#include "SxFileIO.h"
#include "SxPtr.h"
#include "ZqSequence.h"
#include "ZqTraceItem.h"
#include "ZqTraceParams.h"

#include <functional>

class ZqTraceLock;

/// A trace folder: which block of an image was touched, and when; its items lie in `img.trc` (see
/// ZqTraceFormat). Paths of folders end in a slash. Not locked. The operations stand in a unit for each
/// topic: ZqTraceEdit, ZqTraceMerge, ZqTraceMap and ZqTraceSequence.
///
/// Times are data. They may lie before `time0` and go backward. Reading `trace.json` refuses a `time0` or a
/// duration that no record could hold (see ZqTraceParams), so differences of times don't wrap. Where a record
/// can't hold a time that an operation would write, the operation raises, naming block and time, and writes
/// nothing.
///
/// Long traces are walked and not held: what needs a trace several times reads it several times, and keeps no
/// more than the first access to each block. So memory goes by the size of the disk and not by the length of
/// play. Only append() and the operations on loaded items hold all items.
class ZqTrace {
public:
    using Items = SxArray<ZqTraceItem>;

    ZqTrace() = default;
    /// Takes the folder and reads nothing.
    explicit ZqTrace(const SxString& path) : pathPrefix(path) {}
    virtual ~ZqTrace() = default;

    /// Bytes of one record.
    uint64 getItemSize() const { return 16; }
    const SxString& getPathPrefix() const { return pathPrefix; }

    /// Loads the items of the folder `path`, which becomes the trace's own. Raises "Trace file ... not
    /// found".
    void read(const SxString& path);
    /// Replaces `img.trc` in `path`, as a whole, by the loaded items that are valid; makes the folder.
    /// `trace.json` isn't touched.
    void write(const SxString& path);

    /// The next record of an open file. Not valid at the end of the file.
    static ZqTraceItem readItem(SxFileIO* file);
    /// All records of an open file, from its start.
    static SxPtr<Items> readItems(SxFileIO* file);
    /// Writes a record; nothing for an item that isn't valid. Raises on a time that a record can't hold.
    static void writeItem(SxFileIO* file, const ZqTraceItem& item);
    /// Writes the items that are valid.
    static void writeItems(SxFileIO* file, const SxConstPtr<Items>& items);

    /// The items of `img.trc` in file order: those without the flag with `unflagged`, those with it with
    /// `flagged`; with `unique` of each block only the first that comes through.
    SxPtr<Items> getItems(bool unique, bool unflagged, bool flagged) const;
    static SxPtr<Items> getItems(const SxString& path, bool unique, bool unflagged, bool flagged);
    /// Number of items of the file, or of its blocks.
    int64 getNItems(bool unique) const;

    /// Time of the last loaded item minus that of the first, in milliseconds. Raises where none are loaded.
    int64 getTraceDuration() const;
    /// The same by the file; 0 where it isn't there.
    static int64 getTraceDuration(const SxString& path);
    /// Units of 1000000 bytes of the largest burst of accesses, evened out so that what lies up to its end
    /// falls into whole pages of that size. Flagged items don't count.
    uint64 getPageSizeMB();

    // These finish a trace: img.trc is replaced as a whole, then trace.json takes size, method, digest and
    // build id (`checksums.mnt` of the image); the rest of a record that is there stays. The digest is taken
    // while the file is written, and nothing is read back. They give true.

    /// Blocks (RAW indices) without times: a new record, and one time for all.
    static bool write(const SxConstPtr<SxArray<uint64>>& blocks, const SxString& path,
                      const SxString& buildId);
    /// Block i (RAW index) at time i, in milliseconds since 1970 UTC. A block goes to the file as it is, so
    /// bit 63 is the flag. Raises where there aren't as many times as blocks, on a time that a record can't
    /// hold, and where a drive records into the trace.
    static bool write(const SxConstPtr<SxArray<uint64>>& blocks, const SxConstPtr<SxArray<uint64>>& times,
                      const SxString& path, ZqTraceParams::Method method, const SxString& buildId);
    static bool write(const SxConstPtr<Items>& items, const SxString& path, ZqTraceParams::Method method,
                      const SxString& buildId);

    // What reads a whole trace refuses one whose items aren't those that size and digest in its record tell
    // of (ZqTraceRecords::findMismatch). Nobody can tell whether the items or the record are the right ones,
    // so the user decides, for instance by mend().

    // Editing. A relative time is an item's time minus the `time0` of its own trace.json, in milliseconds,
    // signed. Where nothing else is said, a failure leaves the trace as it was. What a mounted drive records
    // into is refused, and so is what another thread or process writes (see ZqTraceLock): items and record
    // are two files, and two writers could leave the items of one with the record of the other.

    /// Keeps the first access to each block of the loaded items.
    void trim();
    /// Writes a copy of the trace without repeats to the folder `outPath`, which may be its own.
    void trim(const SxString& outPath);
    /// Keeps only the items with relative times of `from` to `to`, both included. Rewrites the trace; the
    /// `duration` of its record stays. Raises where none would be left.
    void dropTime(int64 from, int64 to);
    /// Moves the trace later in relative time, by a change of `time0` alone.
    void shift(int seconds);
    /// Rewrites the trace on the time base of the one in `refPath`. The first block of that one which this
    /// one holds gets the relative time that it has there. What came before that block in this trace goes,
    /// and so do repeats. Raises where the builds differ, or no block is common.
    void align(const SxString& refPath);
    /// Writes the trace, followed by the one in `otherPath` with its first item `gapSeconds` after the end
    /// of this one (`time0` + `duration`), to `outPath`. Its record names what went in. The result stays
    /// loaded. Builds aren't compared, and `firstSessionBlockIndex` is left to the caller.
    void append(const SxString& otherPath, const SxString& outPath, int gapSeconds);

    /// The unique items as runs of neighbouring blocks, in order of time. Raises where there are none.
    SxList<ZqSequence> traceToSequence() const;
    /// The blocks of runs one by one, each with the time of its run, which is a relative one. Raises on a
    /// run of negative length.
    static SxArray<ZqTraceItem> sequenceToTrace(const SxList<ZqSequence>& list);

    /// Takes size, digest and duration of the record anew from the items, whatever it says of them: for a
    /// trace whose items and record a cut has parted. Records of zeros, as a power cut leaves them, go; gives
    /// how many. Raises where no record is left, or where `trace.json` can't be read, since nothing else says
    /// of which build the trace is and when it began.
    int64 mend();

    // Several traces of one image build.

    /// Writes the trace that has each block once, at the smallest relative time of any of `traces`, to
    /// `outPath`, sorted by that time; of equal ones that of the earlier trace counts. There may be thousands
    /// of traces. Raises, with nothing written, where builds differ, or one is a series of runs.
    static void merge(const SxString& outPath, const SxConstPtr<SxArray<ZqTrace>>& traces);

    /// What another trace would change in a reference.
    struct Difference {
        int64 nReference = 0, nOther = 0; ///< unique items
        int64 nIdentified = 0;            ///< blocks that the reference doesn't hold
        int64 nInserted = 0;              ///< blocks that come earlier than the reference has come to them
        int64 nAppended = 0;              ///< blocks that the reference hasn't come to at its end

        /// The figures in sentences, as mergeDiff() logs them.
        SxList<SxString> toLines() const;
    };
    /// Compares the trace, as the reference, with that in `otherPath`.
    Difference compare(const SxString& otherPath) const;
    /// The same, written to the log.
    void mergeDiff(const SxString& otherPath) const;

    /// Writes the trace, carried over to a new build of its image, to `outPath`. `patchPath` holds that
    /// build's app.json and `map.idx`: for each RAW index of the old image that of the new one, all ones
    /// where it has none; such items are lost, as are those beyond the map's end. Writes figures to the log.
    void mapToImage(const SxString& patchPath, const SxString& outPath) const;

private:
    /// For who holds the lock of the trace in `path`. `fill` hands over the items. Calls `prepareRecord`
    /// between the items and their record: what fails before it leaves the record alone.
    using Put = std::function<void(const ZqTraceItem&)>;
    static void write(const ZqTraceLock& lock, const std::function<void(const Put& put)>& fill,
                      const SxString& path, ZqTraceParams::Method method, const SxString& buildId,
                      const std::function<void()>& prepareRecord);
    static void write(const ZqTraceLock& lock, const Items& items, const SxString& path,
                      ZqTraceParams::Method method, const SxString& buildId,
                      const std::function<void()>& prepareRecord);
    static void write(const ZqTraceLock& lock, const SxConstPtr<SxArray<uint64>>& blocks,
                      const SxConstPtr<SxArray<uint64>>& times, const SxString& path,
                      ZqTraceParams::Method method, const SxString& buildId);

    SxString pathPrefix;
    SxPtr<Items> loaded; ///< null until read()
};
