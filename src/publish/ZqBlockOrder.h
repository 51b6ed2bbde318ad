#pragma once

#include "ZqImageParams.h"
#include "ZqOrderGroups.h"
#include "ZqOrderProfiles.h"
#include "ZqOrderRuns.h"

class ZqBlockUse;

/// The ZqF order of an image's blocks by the traces of single runs, and the load profile and the hints that
/// come with it. A plain value; not locked. ZqImageOrder writes the order as an index folder for an image
/// that exists, and ZqImageBuild cuts a new image by it; both give the same order for the same disk, byte for
/// byte.
///
/// First come the blocks that a mount reads, whether or not a trace has them. Then comes the core: what the
/// next run will most likely read (ZqReadChance), by how early it is needed (ZqBlockUse). Then comes the
/// tail, what only some runs have read, so that what is read together lies together (zqOrderTail). Then come
/// the blocks that no run has read: by their files, where those are known (zqUnreadOrder); else first those
/// that stand between two read ones with few others. All that is left comes in RAW order. Blocks that aren't
/// included have no place, and a trace may name them.
///
/// A block belongs in the core if that pays: its chance, times what it costs on demand, must be more than
/// what it costs in order, where those who don't read it fetch it, too. On demand it costs its part of a
/// round trip and of its stretch, counted for a link of 20 Mbit/s and 20 ms. Blocks that the same runs have
/// read share a stretch; where they are few, they have it for themselves, and so cost more. With one run, or
/// where all runs have read a block, there is nothing to weigh.
///
/// Interleaving all that runs read block by block instead, as a merged trace has it, makes each further trace
/// a burden: any stretch then has crumbs of all levels.
///
/// Times don't order blocks. The recorder writes on a steady clock, so where times go backward an operation
/// on the trace has made them, and the order of its items is meant. A mark doesn't count either.
class ZqBlockOrder {
public:
    /// Reads the trace folders `traces`. Those that can't serve are left out; raises where none is left. No
    /// traces at all give the disk's own order. Raises what `pace` raises.
    ZqBlockOrder(const ZqOrderImage& image, const SxList<SxString>& traces, const ZqOrderRuns::Pace& pace);

    /// RAW indices by ZqF index, without a gap.
    const SxArray<uint64>& getOrder() const { return order; }
    /// The map, ZqF indices by RAW index. To save memory it is made anew by each call.
    SxArray<uint64> makeMap() const;
    /// The worst of the runs at each second (ZqOrderProfiles).
    const ZqOrderProfiles::Profile& getProfile() const { return profile; }
    /// What the order rests on; nothing without traces.
    const std::optional<ZqOrderBasis>& getBasis() const { return basis; }
    /// Traces that it doesn't come from.
    const std::vector<ZqLeftTrace>& getLeft() const { return left; }

    // Blocks: of a mount, of the core, of the tail, and others that stand close to read ones.
    uint64 getNFront() const { return nFront; }
    uint64 getNCore() const { return nCore; }
    uint64 getNTail() const { return nTail; }
    uint64 getNNear() const { return nNear; }

    /// Writes sizes and profile of the order into the record of an image; its digests stay.
    void apply(ZqAppParams* app) const;
    /// Writes the hints of the order to `folder`, where its map with that digest is. Without groups there are
    /// none.
    void writeHints(const SxString& folder, const SxString& checksumIdx) const;

private:
    void placeRead(const ZqOrderImage& image, const ZqBlockUse& use);
    void placeUnread(const ZqOrderImage& image, const ZqBlockUse& use);
    void placeGaps(const ZqOrderImage& image);
    void placeRest(const ZqOrderImage& image);
    void place(uint64 rawIdx);
    /// Follows the runs through the order.
    void judge(const ZqOrderRuns& runs);

    std::vector<bool> placed; ///< by RAW index; blocks that aren't included count as placed
    uint64 nRaw = 0;
    SxArray<uint64> order;
    ZqOrderProfiles::Profile profile;
    std::optional<ZqOrderBasis> basis;
    std::vector<ZqOrderHints::Group> groups;
    std::vector<ZqLeftTrace> left;
    uint64 nFront = 0, nCore = 0, nTail = 0, nNear = 0;
};
