#pragma once

#include "SxPtr.h"
#include "ZqRuntimeInfo.h"
#include "ZqTaskMon.h"

class ZqDefragJob;
class ZqImageInPlaceDefrag;
class ZqImageLock;
class ZqOptimizeFolder;
struct ZqOptimizeNote;

/// Job that brings an installed image to the block order of an index folder: `img.idx` or `img.idx.7z`,
/// `img.json` and `app.json` of the same RAW image in another order. A complete image is re-ordered within
/// its file (ZqImageInPlaceDefrag), a partial one is copied as far as it is there (ZqImageDefrag). Then the
/// new records replace the old ones. Progress in bytes. Holds ZqImageLock::Shape exclusively.
///
/// A failure is logged, published as APP_ERROR, and kept in the job (hasFailure()). A stop is no failure:
/// isComplete() tells. After a stop, a failure, a kill or a power cut nothing is lost, and a job without an
/// index folder goes on, unless a partial image has become complete since. While blocks move within the
/// image, or records and a copy take their places, it has `optimize.lock`, and nothing else takes it.
class ZqImageOptimize : public ZqTaskMon {
public:
    /// Both with or without trailing slashes. The job works on a copy of the index folder in the image
    /// folder. Unless keepIndex(), the index folder is removed at the end, see ZqConsumedIndex.
    ZqImageOptimize(const SxString& imagePath_, const SxString& indexPath_);
    /// Goes on with what was begun in the image folder, whichever way.
    explicit ZqImageOptimize(const SxString& imagePath_);

    /// Gets `defragStats`; not null.
    SxPtr<ZqRuntimeInfo> runtimeInfo;

    /// Leaves the index folder as it is. Before start().
    void keepIndex() { consumes = false; }
    /// The same, and failures call it so, as one that was fetched. Before start().
    void keepIndex(const SxString& name) {
        consumes = false;
        indexName = name;
    }
    /// Other limits than those that serve best: for the moves in place, see ZqMovePlan::Limits, and the
    /// blocks of a copy between two syncs. Before start().
    void setLimits(uint64 nHeads_, uint64 nSteps_, uint64 nPiece_) {
        nHeads = nHeads_;
        nSteps = nSteps_;
        nPiece = nPiece_;
    }

    enum Mode {
        None, ///< `img.zqf` stays as it is, only the records change
        InPlace,
        Copy
    };
    /// What came of it. Blocks count as in the new order.
    struct Result {
        Mode mode = None;
        bool isResumed = false;
        uint64 nTotal = 0;     ///< blocks that the new order includes
        uint64 nMoved = 0;     ///< blocks that belonged elsewhere
        uint64 nKept = 0;      ///< blocks in their place
        uint64 nBeyond = 0;    ///< for a copy: blocks that are kept beyond the end of `img.zqf`
        uint64 nLost = 0;      ///< for a copy: blocks that were there, and aren't any longer
        uint64 bytes = 0;      ///< written into `img.zqf` by this run
        uint64 bytesExtra = 0; ///< of the disk, taken for a time or for good
        double forecastSeconds = 0;
        SxString indexLeft; ///< why the index folder that was to be removed stays, a sentence; or empty
    };
    /// Works out what the job would come to, and changes nothing. Before start().
    void setForecastOnly() { forecastOnly = true; }
    /// After the end: whether the image has the new order, and all is in its place.
    bool isComplete() const { return complete; }
    /// After an end before that: whether a job without an index folder can go on.
    bool isBegun() const { return begun; }
    const Result& getResult() const { return result; }

protected:
    void main() override;

private:
    SxPtr<ZqImageLock> takeImage() const;
    void begin();
    void requireIndex() const;
    void requireImage() const;
    void cutDoubtful() const;
    void sweep() const;
    /// The copy of the index folder that a worker takes.
    SxString takeIndex() const;
    void reorderInPlace();
    void runInPlace(ZqImageInPlaceDefrag* worker);
    /// Takes the worker's figures.
    void count(const ZqDefragJob& worker);
    void copy(const SxString& index, const SxString& name);
    void runWorker(ZqDefragJob* worker);
    void noteWork(const ZqDefragJob& worker) const;
    void goOn();
    void goOnWithCopy();
    void finish();
    void requireNew(const ZqOptimizeNote& note, uint64 sizeCopied) const;
    SxException lost() const;

    const SxString imagePath, indexPath; ///< with trailing slashes; no index folder to go on
    const bool isResumed;
    bool consumes = true, forecastOnly = false;
    SxString indexName; ///< as it was given
    SxString consumed;  ///< the index folder that goes at the end; empty for none
    const SxPtr<ZqOptimizeFolder> work;
    uint64 nHeads = 0, nSteps = 0, nPiece = 0; ///< limits; 0 where those that serve best are taken
    Result result;
    bool complete = false, begun = false;
};
