#pragma once

#include "SxFileIO.h"
#include "SxPtr.h"
#include "ZqTraceItem.h"
#include "ZqTraceParams.h"

/// A trace folder: which block of an image was touched, and when. Paths of folders end in a slash. Not
/// locked.
///
/// `img.trc` holds records of 16 bytes, with no header: the RAW index of the block, with the flag in bit 63,
/// and the time as a Windows file time (100 ns since 1601 UTC), both unsigned 64-bit little-endian. A rest of
/// less than a record, as a killed writer leaves it, is passed over.
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
    // build id (`checksums.mnt` of the image); the rest of a record that is there stays. They give true.

    /// Blocks (RAW indices) without times: a new record, and one time for all.
    static bool write(const SxConstPtr<SxArray<uint64>>& blocks, const SxString& path,
                      const SxString& buildId);
    /// Block i at time i, in milliseconds since 1970 UTC. A block goes to the file as it is, so bit 63 is the
    /// flag.
    static bool write(const SxConstPtr<SxArray<uint64>>& blocks, const SxConstPtr<SxArray<uint64>>& times,
                      const SxString& path, ZqTraceParams::Method method, const SxString& buildId);
    static bool write(const SxConstPtr<Items>& items, const SxString& path, ZqTraceParams::Method method,
                      const SxString& buildId);

private:
    SxString pathPrefix;
    SxPtr<Items> loaded; ///< null until read()
};
