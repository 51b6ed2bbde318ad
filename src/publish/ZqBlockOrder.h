#pragma once

#include "SxArray.h"
#include "ZqAppParams.h"
#include "ZqTrace.h"

#include <vector>

/// The ZqF order of an image's blocks by a trace, as a rule the merged trace of several runs, and the load
/// profile that comes with it. A plain value; not locked. ZqImageOrder writes the order as an index folder
/// for an image that exists, and ZqImageBuild cuts a new image by it; both give the same order for the same
/// disk, byte for byte.
///
/// First come the blocks that a mount reads, whether or not the trace has them. Then those that the trace
/// names, each where the trace has it first. Then those that stand between two of these on the disk with few
/// others, the shorter gaps first: the rest of a file that was read in part, or another file of a folder that
/// was used, is what other runs want most. Then all others in RAW order. Blocks that aren't included have no
/// place, and a trace may name them.
///
/// It knows no file system. It goes by the blocks that a mount reads, and by how near a block stands to one
/// that was used. The file systems' tools lay a file down in one piece, and a folder's files side by side, so
/// a short gap between used blocks is the rest of a file or a neighbour in its folder. Metadata is in front
/// already.
///
/// Named blocks have no others between them. With gaps of up to 8 blocks filled on the way, the start of a
/// large game was 4.8 % longer, and these gaps held 1.6 % of what a run that wasn't traced read beyond the
/// trace.
///
/// All named blocks are alike: a merged trace says how early a block was read by any run, and not by how
/// many. What one level of five reads at its start is fetched before every start, since none of the runs must
/// wait, and runs that play another level never use it. A mark doesn't count either: of a block that one run
/// wrote and another read, a merged trace may only have the write.
///
/// Times don't order the blocks. The recorder writes on a steady clock, so where times go backward an
/// operation on the trace has made them, and its order is meant. The profile takes the earliest time of a
/// block, which asks for too much rather than too little.
class ZqBlockOrder {
public:
    /// What is put in order.
    struct Image {
        SxString name;              ///< for the texts of failures
        SxString buildId;           ///< `checksums.mnt`
        std::vector<bool> included; ///< by RAW index: whether `img.zqf` holds the block
        SxArray<uint64> front;      ///< RAW indices of the included blocks that a mount reads, in their order
    };

    /// Reads the trace folder `trace` (with its trailing slash). The order of its items is that of their
    /// file; marks don't count. Raises where it is a trace of another build, is cut off or damaged, names
    /// blocks beyond the image, or none that is included.
    ZqBlockOrder(const Image& image, const SxString& trace);

    /// RAW indices by ZqF index, without a gap.
    const SxArray<uint64>& getOrder() const { return order; }
    /// The map, ZqF indices by RAW index.
    const SxArray<uint64>& getMap() const { return map; }
    /// When the runs of the trace need how much of the ZqF file. Times count from the first access to a block
    /// that no mount reads, since that is the application's. The earliest time of each block counts.
    const SxList<ZqLoadProfilePoint>& getProfile() const { return profile; }
    // Blocks of the first three groups.
    uint64 getNFront() const { return nFront; }
    uint64 getNNamed() const { return nNamed; }
    uint64 getNNear() const { return nNear; }

    /// Writes sizes and profile of the order into the record of an image; its digests stay.
    void apply(ZqAppParams* app) const;
    /// Raises unless the trace folder `trace` has a record of that build, and is no series of runs; `name` is
    /// the image's.
    static void requireBuild(const SxString& trace, const SxString& buildId, const SxString& name);

private:
    static void requireFit(const Image& image, const SxString& trace);
    bool place(const Image& image, uint64 rawIdx);
    void placeNear(const Image& image);
    void makeMap(uint64 nRaw);
    void makeProfile(const SxString& trace);

    std::vector<bool> placed; ///< by RAW index
    SxArray<uint64> order, map;
    SxList<ZqLoadProfilePoint> profile;
    uint64 nFront = 0, nNamed = 0, nNear = 0;
};
