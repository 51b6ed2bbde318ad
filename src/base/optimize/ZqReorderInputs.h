#pragma once

#include "ZqAppParams.h"
#include "ZqImageParams.h"
#include "ZqMovePlan.h"

/// What both ways to bring an image to a new order look at before they change anything, and what they learn
/// by it. The new order is that of an index folder: `img.idx` or `img.idx.7z`, `img.json` and `app.json` of
/// the same RAW image. One thread.
class ZqReorderInputs {
public:
    /// Both with trailing slashes. Failures call the index folder `indexName`: it may be a private copy.
    ZqReorderInputs(const SxString& image_, const SxString& index_, const SxString& indexName_);

    /// Unpacks maps that are there packed only, and logs that of the index folder where `isTold` is set.
    /// Raises unless all is there and both are of the same RAW image, and where a map hasn't the digest that
    /// is stated for it.
    /// `leavesImage`: nothing is unpacked into the image folder, but into the index folder.
    void check(bool isTold, bool leavesImage = false);
    /// By position in the new order: where the block is that belongs there. Raises, with the first bad entry,
    /// where a map names a position twice or beyond the image, or they don't include the same blocks.
    std::vector<ZqMovePlan::Position> makeSource() const { return makeSource(newApp.sizeZqf); }
    /// The same without check(), for a complete `img.zqf` of that size in the new order.
    std::vector<ZqMovePlan::Position> makeSource(uint64 sizeNew) const;

    // After check().
    const ZqAppParams& getOldApp() const { return oldApp; }
    const ZqAppParams& getNewApp() const { return newApp; }
    const SxString& getGuid() const { return guid; }
    // MD5 texts of the maps.
    const SxString& getOldDigest() const { return oldDigest; }
    const SxString& getNewDigest() const { return newDigest; }

private:
    SxString shown(const char* name) const { return indexName + name; }
    static void requireMap(const SxString& folder, const SxString& name, bool isTold);
    SxString takeOldMap(bool leavesImage) const;
    void requireFiles() const;
    void requireOwnFile() const;
    SxString digestOf(const SxString& map, const SxString& folder, const SxString& name,
                      const ZqAppParams& app, bool* isStated) const;
    void requireSize() const;
    void dropForeignHints() const;
    void carryVolume(const ZqImageParams& from, ZqImageParams to) const;

    const SxString image, index, indexName;
    SxString oldMap; ///< the image's map; a file
    ZqAppParams oldApp, newApp;
    SxString guid, oldDigest, newDigest;
};
