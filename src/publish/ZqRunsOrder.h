#pragma once

#include "SxList.h"
#include "ZqTaskMon.h"

/// Job that merges the traces that runs have left in an image's folder, and works out the order of the image
/// by them, as an index folder: `trace merge` and `image order` in one. The runs stay. Progress in bytes.
/// Takes the image's lock, shared.
class ZqRunsOrder : public ZqTaskMon {
public:
    /// `folder_` exists and is empty: the index folder is made in it, as getIndex(), and the merged trace
    /// lies there until then.
    ZqRunsOrder(const SxString& image_, const SxString& folder_);

    /// With its trailing slash.
    SxString getIndex() const { return folder + "index/"; }

    // After the end.
    /// Whether the index folder is complete.
    bool isComplete() const { return complete; }
    int64 getNTraces() const { return nTraces; }
    /// A folder among the traces that wasn't merged.
    struct Left {
        SxString name;
        SxString why; ///< a clause
    };
    const SxList<Left>& getLeft() const { return left; }

protected:
    void main() override;

private:
    void merge(const SxString& to);
    /// Why a trace can't be merged; empty where it can.
    SxString findObstacle(const SxString& trace, const SxString& buildId, uint64 nRaw) const;

    const SxString image, folder; ///< with trailing slashes
    bool complete = false;
    int64 nTraces = 0;
    SxList<Left> left;
};
