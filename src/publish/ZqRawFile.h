#pragma once

#include "SxTemporaryFile.h"
#include "ZqNewFolder.h"

/// The file `img.raw` of a folder while it is made under another name, one of its own. Goes again unless
/// commit() comes. Of several that are made at the same time the last one's stays, as a whole. One thread.
class ZqRawFile {
public:
    static constexpr const char* NAME = "img.raw";

    /// Makes the folder `dir` where it is missing, and removes what runs that were cut off left there.
    explicit ZqRawFile(const SxString& dir);

    /// The file to write, which is there: whoever writes it opens it and makes no other in its place.
    const SxString& getPath() const { return file.getPath(); }
    /// Puts the file, which is synced, in its place.
    void commit();

private:
    ZqNewFolder made;
    SxTemporaryFile file;
};
