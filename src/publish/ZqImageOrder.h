#pragma once

#include "ZqBlockOrder.h"
#include "ZqImageInfo.h"
#include "ZqTaskMon.h"

/// Job that works out a new order of an image from a trace, and writes it as an index folder: `img.idx`,
/// `img.json` and `app.json` of the same RAW image. What ZqBlockOrder says of an order holds; the blocks that
/// a mount reads are those up to the image's `sizeMnt`. The image doesn't change. Progress in bytes. Takes
/// the image's lock, shared.
class ZqImageOrder : public ZqTaskMon {
public:
    /// `image` is the image folder, `trace` the trace folder, `index` the folder to make, which is absent or
    /// empty.
    ZqImageOrder(const SxString& image, const SxString& trace, const SxString& index);

    /// After the end: whether the index folder is complete.
    bool isComplete() const { return complete; }
    // After the end: the new record, and blocks: of the disk, included, and the groups of the order.
    const ZqAppParams& getApp() const { return app; }
    uint64 getNRaw() const { return nRaw; }
    uint64 getNIncluded() const { return nIncluded; }
    uint64 getNFront() const { return nFront; }
    uint64 getNNamed() const { return nNamed; }
    uint64 getNNear() const { return nNear; }
    /// Whether the record has the digest that `img.zqf` will have: it hasn't where the image isn't complete.
    bool hasDigest() const { return !app.checksumZqf.isEmpty(); }

protected:
    void main() override;

private:
    ZqBlockOrder::Image describe(const SxArray<uint64>& oldMap) const;
    /// Raises unless `img.zqf` is what its record says.
    void checkDigest();
    SxString digestInOrder(const SxArray<uint64>& order, const SxArray<uint64>& oldMap);
    void write(const ZqBlockOrder& order, const ZqImageParams& record);
    void refuseStop() const;

    const SxString image, trace, index; ///< with trailing slashes
    ZqAppParams app;
    bool complete = false;
    uint64 nRaw = 0, nIncluded = 0, nFront = 0, nNamed = 0, nNear = 0;
};
