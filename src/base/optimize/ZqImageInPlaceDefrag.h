#pragma once

#include "SxFileIO.h"
#include "ZqDefragJob.h"
#include "ZqMovePlan.h"
#include "ZqOptimizeFolder.h"

/// Job that brings a complete `img.zqf` to a new order within the file, each block moved once. It may be
/// killed, stopped or lose its power at any point, and a job that goes on finishes what it began: see
/// ZqMovePlan for why, and ZqOptimizeFolder for what it keeps. Until ZqImageOptimize has put the new records
/// in place the image has `optimize.lock`, and neither order describes it.
///
/// Raises "ZqF optimization failed." with the cause. What it refuses it refuses before anything of the image
/// changes. `bytes` of the statistics counts what was written into `img.zqf`.
class ZqImageInPlaceDefrag : public ZqDefragJob {
public:
    /// `index` is an index folder, see ZqReorderInputs; it is copied into the work folder.
    ZqImageInPlaceDefrag(const SxString& image, const SxString& index);
    /// Goes on with what was begun in the image folder.
    explicit ZqImageInPlaceDefrag(const SxString& image);

    /// The index folder that is removed at the end; before start().
    void setConsumed(const SxString& path) { consumed = path; }
    /// Other limits than those that serve best; before start().
    void setLimits(const ZqMovePlan::Limits& limits_) { limits = limits_; }
    /// Raises where the blocks of an image, whose folder has a trailing slash, aren't those that have moved:
    /// for who goes on with the records alone.
    static void requireMoved(const SxString& image);
    /// After the end: whether `img.zqf` isn't what it was, byte by byte.
    bool changesBlocks() const { return changed; }

protected:
    void reorder() override;

private:
    using Source = std::vector<ZqMovePlan::Position>;

    Source begin();
    Source goOn() const;
    /// Raises where a block of `source` isn't in the file, which has that size.
    void requireBlocks(const Source& source, uint64 sizeOld) const;
    void forecast(Source source);
    /// Looks at what blocks are where they belong, and which positions get none.
    void countBlocks(const ZqMovePlan& plan, uint64 sizeOld, uint64 sizeNew);
    void makeWorkFolder(const ZqOptimizeNote& note, uint64 nHeads) const;
    void copyIndex(const SxString& digest) const;
    void move(const ZqOptimizeNote& note, Source source);
    void clearUnused(const ZqMovePlan& plan, const ZqOptimizeNote& note, SxFileIO* zqf);
    static Source movedAmong(const ZqMovePlan& plan);
    bool isStaged() const { return indexPath == work.getStaged(); }
    /// So many bytes more are in their place.
    void advance(uint64 bytes);

    const ZqOptimizeFolder work;
    const bool isResumed;
    SxString consumed;
    ZqMovePlan::Limits limits;
    uint64 inPlace = 0; ///< bytes of blocks in their place
    bool changed = false;
};
