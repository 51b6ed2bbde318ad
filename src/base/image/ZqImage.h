#pragma once

#include "SxFileIO.h"
#include "ZqTraceItem.h"

class ZqTaskMon;

/// The block map of an image folder, and a ZqF file cut into parts and put together again. Holds no open file
/// and no cached data: each call reads from disk again, and any number of objects may read the same map.
///
/// `img.idx` is one unsigned 64-bit little-endian entry for each RAW block, with no header: the ZqF index of
/// that block, or NO_ENTRY for a block that the ZqF file doesn't hold. A block is 4096 bytes, always.
class ZqImage {
public:
    /// No entry, in every table of block indices.
    static constexpr uint64 NO_ENTRY = ~uint64{0};

    ZqImage() = default;
    /// `pathPrefix` is the image folder with its trailing slash.
    explicit ZqImage(const SxString& pathPrefix_) : pathPrefix(pathPrefix_) {}

    /// Bytes of one map entry.
    uint64 getItemSize() const { return sizeof(uint64); }
    /// The whole map, indexed by RAW index, entries as stored. Raises where `img.idx` is missing, empty, or
    /// not a multiple of 8 bytes.
    SxArray<uint64> getMap() const;
    /// The inverse, indexed by ZqF index, holding RAW indices; NO_ENTRY marks a hole. Entries beyond the
    /// number of RAW blocks are passed over; of duplicates the highest RAW index wins.
    SxArray<uint64> getReverseMap() const;
    /// The inverse of `map`.
    static SxArray<uint64> getReverseMap(const SxArray<uint64>& map);
    /// The next entry of an open `img.idx` as a trace item without a time: bit 63 is split off as the flag.
    /// Not valid at the end of the file.
    ZqTraceItem readItem(SxFileIO* file) const;
    /// Logs the entries `first` <= RAW index < `last` that are multiples of `step`; `last` 0 means the end of
    /// the map. `step` isn't 0.
    void print(uint64 first, uint64 last, uint64 step) const;
    /// The block indices that a file like the map holds; a rest of less than one doesn't count. Raises where
    /// it can't be read, or there is no memory for them.
    static SxArray<uint64> readEntries(const SxString& file);
    /// The line of one entry as print() logs it, with its line feed.
    static SxString formatEntry(uint64 rawIdx, uint64 zqfIdx);

    /// Replaces `img.zqf` by parts of `partSize` bytes (more than 0), compressed with zstd level 17 where
    /// `compress` is set, and the record `img.zqf.info`. Nothing happens where one part would hold it all, or
    /// where the file is empty. Plain parts need room for the whole file once more, and that is asked for
    /// first; of compressed parts only what is surely needed. Until the last step `img.zqf` stays. A failure
    /// or a stop removes what was made, and the next split removes what a split has left that was cut off.
    /// `progress`, where given, gets bytes and speed and is asked for a stop. Takes the image's lock.
    /// Gives whether there was anything to do.
    bool split(uint64 partSize, bool compress, ZqTaskMon* progress = nullptr) const;
    /// Replaces the record and the plain parts by `img.zqf`. All parts are looked at before anything changes,
    /// so that nothing is lost where one is missing or has the wrong size. Each part is removed when its
    /// bytes are on the device, so that little more than one part of room is needed. A join that fails before
    /// the first part is removed leaves all as it was. One that is cut off, at any point, is taken up again
    /// by the next. Takes the image's lock.
    /// Gives whether there was anything to do.
    bool join(ZqTaskMon* progress = nullptr) const;

    struct SplitState {
        bool split = false;   ///< the ZqF file is in parts, some or all of it
        bool joining = false; ///< a join was cut off
        uint64 partSize = 0;  ///< bytes of a part by the split record; 0 where there is none
    };
    /// How the ZqF file is stored. Raises on a split record that can't be read.
    SplitState getSplitState() const;
    /// Raises unless all that a join needs is there: plain parts in their sizes, or a compressed file for
    /// each part.
    void checkSplit() const;

private:
    SxString pathPrefix;
};
