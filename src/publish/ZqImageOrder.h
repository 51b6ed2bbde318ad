#pragma once

#include "ZqImageInfo.h"
#include "ZqLeftTrace.h"
#include "ZqTaskMon.h"

#include <vector>

class ZqBlockOrder;
class ZqFileTable;
struct ZqOrderImage;

/// Job that works out a new order of an image from the traces of single runs, and writes it as an index
/// folder: `img.idx`, `img.json`, `app.json` and `img.hints` of the same RAW image. What ZqBlockOrder says of
/// an order holds; the blocks that a mount reads are those up to the image's `sizeMnt`. Which files the
/// blocks belong to is told by `img.files`; a complete image that has none gets it, as far as its drive's
/// file system is known. Nothing else of the image changes. Progress in bytes. Takes the image's lock,
/// shared.
class ZqImageOrder : public ZqTaskMon {
public:
    /// `image` is the image folder, `traces` are trace folders, `index` is the folder to make, which is
    /// absent or empty.
    ZqImageOrder(const SxString& image, const SxList<SxString>& traces, const SxString& index);
    /// The folders in which runs of the image have left their traces, or what else lies beside these; none
    /// where there is no folder for traces.
    static SxList<SxString> findTraces(const SxString& image);

    /// After the end: whether the index folder is complete.
    bool isComplete() const { return complete; }
    // After the end: the new record, and blocks: of the disk, included, and the groups of the order.
    const ZqAppParams& getApp() const { return app; }
    uint64 getNRaw() const { return nRaw; }
    uint64 getNIncluded() const { return nIncluded; }
    uint64 getNFront() const { return nFront; }
    uint64 getNCore() const { return nCore; }
    uint64 getNTail() const { return nTail; }
    uint64 getNNear() const { return nNear; }
    /// After the end: what the order rests on; nothing without traces.
    const std::optional<ZqOrderBasis>& getBasis() const { return basis; }
    /// After the end: traces that the order doesn't come from.
    const std::vector<ZqLeftTrace>& getLeft() const { return left; }
    /// After the end: why the order doesn't go by files, a clause; empty where it does.
    const SxString& getWhyNoFiles() const { return whyNoFiles; }
    /// Whether the record has the digest that `img.zqf` will have: it hasn't where the image isn't complete.
    bool hasDigest() const { return !app.checksumZqf.isEmpty(); }

protected:
    void main() override;

private:
    ZqOrderImage describe(const ZqImageInfo& info, const SxArray<uint64>& oldMap);
    void keep(const ZqFileTable& files) const;
    /// Raises unless `img.zqf` is what its record says.
    void checkDigest();
    SxString digestInOrder(const SxArray<uint64>& order, const SxArray<uint64>& oldMap);
    void write(const ZqBlockOrder& order, ZqImageParams record);
    void refuseStop() const;

    const SxString image, index; ///< with trailing slashes
    const SxList<SxString> traces;
    ZqAppParams app;
    bool complete = false;
    uint64 nRaw = 0, nIncluded = 0, nFront = 0, nCore = 0, nTail = 0, nNear = 0;
    std::optional<ZqOrderBasis> basis;
    std::vector<ZqLeftTrace> left;
    SxString whyNoFiles;
};
