#pragma once

#include "ZqPatchCompression.h"

class ZqAppParams;

/// The record `patch.json`: which version of an application a patch makes of which other one, and what its
/// files must be. Not locked.
class ZqPatchParams {
public:
    SxString path; ///< folder of the patch, with its trailing slash
    int64 version = 2;
    /// `guid` of the app.json of the version that the patch is for, and of the one that it makes.
    SxString fromGUID = "XXXXXXXX-XXXX-4XXX-XXXX-XXXXXXXXXXXX";
    SxString toGUID = "XXXXXXXX-XXXX-4XXX-XXXX-XXXXXXXXXXXX";
    uint64 sizeMap = 0;                                              ///< bytes of map.7z
    uint64 sizeInfo = 0;                                             ///< bytes of patch.7z
    uint64 sizeData = 0;                                             ///< bytes of patch.data
    ZqPatchCompression::Type compression = ZqPatchCompression::ZSTD; ///< of the patch streams
    SxString hashMap = "XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXX";           ///< MD5 text of map.7z
    SxString hashInfo = "XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXX";          ///< MD5 text of patch.7z
    SxString hashData = "XXXXXXXXXXXXXXXXXXXXXXXXXXXXXXXX";          ///< MD5 text of patch.data
    /// Build ids, `checksums.mnt` of the two app.json; empty where the patch doesn't state them.
    SxString fromMnt, toMnt;

    ZqPatchParams() = default;
    /// Defaults, then read(). Raises as read() does.
    explicit ZqPatchParams(const SxString& path_);

    /// Fills the record from `directory` + "patch.json"; empty means the field `path`. Optional keys that are
    /// absent give their defaults; `path` stays. Where it fails the record stays as it was. Raises "File ...
    /// not found.", "Required schema file ... not found", or "Reading of file ... failed" with the cause.
    void read(const SxString& directory = SxString());
    /// Writes the record likewise, replacing the file as a whole, and makes its folder. Raises "Failed to
    /// write file ..." with the cause.
    void write(const SxString& directory = SxString()) const;

    // Build ids tell where the patch states them, guids alone where it doesn't.
    /// Whether the image of that record is of the version that the patch is for.
    bool isFor(const ZqAppParams& app) const;
    /// Whether it may be of the version that the patch makes.
    bool isNew(const ZqAppParams& app) const;
    /// The `app.json` of the patch folder `folder`. Raises where it can't be read or used, and where it isn't
    /// that of the version that the patch makes.
    ZqAppParams readNew(const SxString& folder) const;
    /// Whether it surely is: nothing tells both versions apart where they share a guid and have no build ids.
    bool isMade(const ZqAppParams& app) const;

    bool operator==(const ZqPatchParams&) const = default;
};
