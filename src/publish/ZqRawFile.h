#pragma once

#include "ZqNewFolder.h"

/// The file `img.raw` of a folder while it is made under another name. Goes again unless commit() comes. One
/// thread.
class ZqRawFile {
public:
    static constexpr const char* NAME = "img.raw";

    /// Makes the folder `dir` where it is missing, and removes what a run that was cut off left there.
    explicit ZqRawFile(const SxString& dir);
    ~ZqRawFile();
    ZqRawFile(const ZqRawFile&) = delete;
    ZqRawFile& operator=(const ZqRawFile&) = delete;

    /// The file to write.
    const SxString& getPath() const { return temporary; }
    /// Puts the file, which is synced, in its place.
    void commit();

private:
    const SxString folder, temporary;
    ZqNewFolder made;
};
