#pragma once

#include "SxArray.h"
#include "SxFileIO.h"
#include "SxMutex.h"
#include "SxPtr.h"
#include "ZqDiskReserve.h"

#include <memory>
#include <vector>

/// Stretches that lie beyond the end of `img.zqf` so far, kept beside it from one run to the next: the sparse
/// file `img.ahead`, with each stretch where it will stand in `img.zqf`, and `img.ahead.idx` with a checksum
/// of each. Nothing is synced: what a power cut has torn doesn't have its checksum, and counts as absent.
/// Stretches are numbered from 0; all sizes are in bytes. One object for an image at a time. Its operations
/// are safe from any thread, but no two may write or drop the same stretch at the same time.
class ZqStretchStore {
public:
    /// Takes what is in `folder` where that is of the same order, and begins anew where it isn't, or is no
    /// such store: `key` is a text that no other order of blocks has. `sizeZqf` is that of the complete
    /// image, `sizeStretch` that of each stretch but the last; those that end at or before `nPassed` are
    /// there already. Raises where nothing can be kept in the folder.
    ZqStretchStore(const SxString& folder, const SxString& key, uint64 sizeZqf_, uint64 sizeStretch_,
                   uint64 nPassed, const ZqDiskReserve& reserve_);
    ZqStretchStore(const ZqStretchStore&) = delete;
    ZqStretchStore& operator=(const ZqStretchStore&) = delete;
    /// What is in `folder`, of that order, to be read and listed only: the files stay as they are. Null where
    /// they are of another order, or none.
    static std::unique_ptr<ZqStretchStore> openToRead(const SxString& folder, const SxString& key,
                                                      uint64 sizeZqf_, uint64 sizeStretch_);
    /// A text for the order of the blocks that has these digests; empty where they tell no order.
    static SxString keyOf(const SxString& checksumZqf, const SxString& checksumIdx,
                          const SxString& checksumMnt);
    /// Bytes of the disk that such files take in a folder.
    static uint64 sizeIn(const SxString& folder);
    /// Removes the files from a folder. Raises where they can't be.
    static void remove(const SxString& folder);

    /// The stretches that are there, in order.
    std::vector<uint64> list() const;
    /// Null where it isn't there, or isn't what was written.
    SxPtr<SxArray<char>> read(uint64 stretchIdx);
    /// False where the disk has no room for it, beside the reserve and some for the image's own growth;
    /// raises where it can't be written otherwise.
    bool write(uint64 stretchIdx, const SxArray<char>& bytes);
    void drop(uint64 stretchIdx);
    /// `img.zqf` has grown to `size` bytes: gives the room of the stretches back that it has.
    void pass(uint64 size);

private:
    ZqStretchStore(uint64 sizeZqf_, uint64 sizeStretch_, const ZqDiskReserve& reserve_);
    uint64 sizeOf(uint64 stretchIdx) const;
    uint64 countPassed(uint64 size) const;
    std::string header(const SxString& key) const;
    bool openOld(const SxString& folder, const SxString& key, const char* mode);
    void makeNew(const SxString& folder, const SxString& key) const;
    void mark(uint64 stretchIdx, uint64 checksum);
    void clear(uint64 first, uint64 end);

    const uint64 sizeZqf, sizeStretch, nStretches;
    const ZqDiskReserve reserve;
    bool isReadOnly = false;
    SxFileIO data, index; ///< used by their descriptors alone, at offsets
    mutable SxMutex mutex;
    std::vector<uint64> checksums SX_GUARDED_BY(mutex); ///< by stretch; 0 where it isn't there
    uint64 nDropped SX_GUARDED_BY(mutex) = 0;           ///< stretches below it have been passed
};
