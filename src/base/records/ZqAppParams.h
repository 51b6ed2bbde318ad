#pragma once

#include "ZqDriveKinds.h"
#include "ZqLoadProfilePoint.h"
#include "ZqRegistry.h"

/// The record `app.json`: how one streamed application runs. Every job keeps a copy of its own and reads the
/// fields directly. Not locked.
class ZqAppParams {
public:
    /// The newest format of images that this library knows.
    static constexpr int64 ZQF_VERSION = 1;

    int64 version = 2;
    int64 zqfVersion = ZQF_VERSION;           ///< format of the image
    SxString guid;                            ///< identity of the application
    SxString cmd = "{{ZQDRIVE}}/path/to/app"; ///< "{{ZQDRIVE}}" stands for the mounted drive
    SxList<SxString> args;
    SxString name;       ///< process to look for when the command is only a launcher
    int64 delay = 5;     ///< seconds before that search
    int64 cacheSize = 0; ///< driver cache, in units of 1000000 bytes
    ZqDriveKinds::MountMode mountMode = ZqDriveKinds::ReadOnly;
    SxList<SxString> access; ///< launcher words
    SxList<ZqRegistry::Item> registry;
    int64 underflowDelay = 5; ///< seconds before the window search
    SxString window;          ///< title of the application's window
    bool suspendDrive = false;
    bool suspendProc = false;
    uint64 minOnDemand = 819200;  ///< bytes
    uint64 maxOnDemand = 8192000; ///< bytes
    SxList<ZqLoadProfilePoint> loadprofile;
    uint64 minPreload = 0;                          ///< units of 1000000 bytes; "minPreload", "minPreloadMB"
    uint64 minBandwidth = 0;                        ///< megabit per second
    uint64 sizeZqf = 0;                             ///< bytes of the complete `img.zqf`
    uint64 sizeIdx = 0;                             ///< bytes of `img.idx`
    uint64 sizeMnt = 0;                             ///< least bytes of `img.zqf` for a mount
    SxString checksumZqf, checksumIdx, checksumMnt; ///< MD5 texts
    SxString pathPrefix;                            ///< folder of the file, with its trailing slash
    SxList<SxString> dirmap, filemap;               ///< folders and files to redirect

    /// All defaults, with a new guid.
    ZqAppParams();
    /// Defaults without a guid, then read(). Raises as read() does.
    explicit ZqAppParams(const SxString& pathPrefix);

    /// Fills the record from `pathPrefix` + "app.json"; empty means the field `pathPrefix`. An absent
    /// optional key leaves its field as it is; lists are replaced. Raises "Failed to read file ..." with the
    /// cause; fields that were read until then keep their new values.
    void read(const SxString& pathPrefix = SxString());
    /// The same from the file `file`, whatever its name.
    void readFile(const SxString& file);
    /// The same from a text; failures name it `textName`.
    void readText(const SxString& text, const SxString& textName);
    /// Writes the record likewise, replacing the file as a whole, and makes its folder.
    void write(const SxString& pathPrefix = SxString()) const;

    /// Raises where the image is of a newer format than this library knows.
    void requireKnownFormat() const;
    /// "true" or "false".
    static SxString boolToString(bool value);
    /// Bytes of `img.zqf` that must be there before the start at this download speed (megabit per second).
    /// Without a load profile, or at speed 0, the whole image.
    uint64 getNInit(double speedMbit) const;
    /// Bytes per second that the load profile asks for once `nInit` bytes are there; 0 without a profile.
    uint64 getBpS(uint64 nInit) const;

    bool operator==(const ZqAppParams&) const = default;
};
