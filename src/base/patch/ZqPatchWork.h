#pragma once

#include "SxString.h"

/// Where the patch comes from that an image is being brought forward by: the file `origin.json` of its work
/// folder.
struct ZqPatchOrigin {
    SxString source; ///< the patch folder with its trailing slash, or the address of one
    bool isConsumed = false;
    SxString digest;        ///< MD5 text of its patch.json
    SxString toGUID, toMnt; ///< of the version that it makes, as ZqPatchParams has them
};

/// The folder `patch.work` of an image, which holds a private copy of the patch, and where that comes from.
/// Whoever calls holds ZqImageLock::Shape. docs/file-formats.md has the files.
class ZqPatchWork {
public:
    /// `image` is the image folder with its trailing slash.
    explicit ZqPatchWork(const SxString& image_);

    const SxString& getPath() const { return path; }
    /// The private copy, with its trailing slash.
    SxString getCopy() const { return path + "patch/"; }
    bool hasCopy() const;
    /// Whether the private copy is of the patch with that digest of its patch.json.
    bool hasCopyOf(const SxString& digest) const;

    bool hasOrigin() const;
    /// Raises where it can't be read.
    ZqPatchOrigin readOrigin() const;
    /// Makes the folder where it is missing. On the device at the end. Comes before the copy that it is of.
    void writeOrigin(const ZqPatchOrigin& origin) const;

    /// An empty folder in which a private copy is made.
    SxString stage() const;
    /// What was staged, and is on the device, becomes the private copy in the place of one that is there.
    void takeStaged() const;
    /// Makes the private copy of the patch folder `patch`: second names of its files where the file system
    /// can, else copies. On the device at the end.
    void takeFolder(const SxString& patch) const;
    void remove() const;
    /// Removes all but a lock that somebody holds there.
    void clear() const;
    void removeStaged() const;

private:
    const SxString image, path;
};
