#pragma once

#include "SxFileIO.h"
#include "ZqDefragJob.h"
#include "ZqMovePlan.h"
#include "ZqOptimizeFolder.h"

class ZqAppParams;

/// Job that writes a new `img.zqf` in the order of an index folder, from that of an image which may be
/// partial: it copies as far as the old file reaches. The image stays as it is. A target that is there is
/// gone on with: its length alone proves nothing after a power cut.
///
/// The target lies in the index folder, or, with keepNote(), in the image's work folder.
///
/// Raises "ZqF optimization failed." with the cause, before the target is touched where the maps don't serve.
class ZqImageDefrag : public ZqDefragJob {
public:
    /// `index` is an index folder, see ZqReorderInputs.
    ZqImageDefrag(const SxString& image, const SxString& index);

    /// Writes into the image's work folder, and keeps a note there of which maps and which file the target is
    /// made. Where it says that these are the ones, a target is taken but for its end, and else it is
    /// compared as a whole. `consumed`: see ZqOptimizeNote. Before start().
    void keepNote(const SxString& consumed_);

    /// Other blocks between two syncs than those that serve best; before start().
    void setPiece(uint64 nBlocks) { piece = nBlocks; }

    /// After the end: blocks that are kept beyond the target's end.
    uint64 getNBeyond() const { return nBeyond; }
    /// After the end: blocks that the old file had, and the target hasn't.
    uint64 getNLost() const { return nLost; }

protected:
    void reorder() override;

private:
    void countBlocks(uint64 sizeOld);
    void forecast(SxFileIO* zqf);
    void planAhead(const ZqAppParams& oldApp, const ZqAppParams& newApp);
    void carryAhead(const ZqAppParams& oldApp, const ZqAppParams& newApp);
    bool isKnown(const ZqOptimizeNote& note) const;
    void requireRoom(const SxString& folder) const;
    static void cutTarget(const SxString& path, uint64 first);
    uint64 findStart(SxFileIO* zqf, const SxString& path, bool known);
    /// The first of a target's `end` blocks that isn't what it should be; `end` where all are.
    uint64 findDifference(SxFileIO* zqf, SxFileIO* file, uint64 end);
    std::span<const ZqMovePlan::Position> sourceOf(uint64 first, uint64 end) const {
        return std::span(source).subspan(first, end - first);
    }
    void copy(SxFileIO* zqf, SxFileIO* file, uint64 first);
    std::vector<ZqMovePlan::Position> source;
    std::vector<char> buffer;
    uint64 piece;       ///< blocks that are read and written together, and then synced
    uint64 nTarget = 0; ///< blocks that the target can have
    uint64 nBeyond = 0, nLost = 0;
    const ZqOptimizeFolder work;
    bool isNoted = false;
    SxString consumed;
};
