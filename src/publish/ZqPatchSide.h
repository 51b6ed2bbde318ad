#pragma once

#include "SxFileIO.h"
#include "SxPtr.h"
#include "ZqAppParams.h"
#include "ZqImageLock.h"
#include "ZqImageParams.h"

#include <span>
#include <vector>

class ZqBlockLikeness;
class ZqTaskMon;

/// One of the two images that a patch is made of: its records, where its blocks lie, and a fingerprint of
/// each. An item is a block by its RAW index, a slot its place in `img.zqf`. Holds the image's lock, shared.
/// After scan() the queries are safe from any thread.
class ZqPatchSide {
public:
    static constexpr uint32 NONE = ~uint32{0};
    static constexpr int64 BLOCK = 4096;

    /// `image` is the image folder. Raises where it isn't a complete image in one file, a program has written
    /// into it, or its map isn't one.
    ZqPatchSide(const SxString& image, const SxString& job);

    const SxString& getFolder() const { return folder; }
    const ZqAppParams& getApp() const { return app; }
    const ZqImageParams& getImage() const { return params; }
    /// Bytes of `img.zqf`.
    uint64 getSize() const { return size; }

    uint32 getNItems() const { return static_cast<uint32>(slots.size()); }
    /// Blocks of `img.zqf`, unused ones included.
    uint32 getNSlots() const { return static_cast<uint32>(size / BLOCK); }
    uint32 getNIncluded() const { return nIncluded; }
    bool has(uint32 item) const { return slots[item] != NONE; }
    uint32 slotOf(uint32 item) const { return slots[item]; }
    std::span<const uint32> getSlots() const { return slots; }
    /// XXH64 of the block of an item that has one.
    uint64 hashOf(uint32 item) const { return hashes[slots[item]]; }
    /// The items that are included, by their blocks' fingerprints and then by their index.
    std::vector<uint32> sortedByHash() const;

    /// Reads all blocks: takes their fingerprints, and what they are like where that is asked for. Raises
    /// where `img.zqf` hasn't the digest that its record states.
    void scan(ZqBlockLikeness* likeness, ZqTaskMon* progress);

    /// Reads blocks of one image; for one thread.
    class Reader {
    public:
        explicit Reader(const ZqPatchSide& side_);
        /// The blocks of these items, which have one, in their order.
        void read(std::span<const uint32> items, char* bytes);

    private:
        const ZqPatchSide& side;
        SxFileIO file;
    };

private:
    static SxString requireImage(const SxString& path);
    void readMap();

    const SxString folder; ///< with its trailing slash
    const SxPtr<ZqImageLock> lock;
    ZqAppParams app;
    ZqImageParams params;
    uint64 size = 0;
    std::vector<uint32> slots;  ///< by item
    std::vector<uint64> hashes; ///< by slot
    uint32 nIncluded = 0;
};
