#pragma once

#include "SxString.h"

/// The folder of one image, by its path.
class ZqImageFolder {
public:
    /// The path with one trailing slash, as the record and image classes take it.
    static SxString prefix(const SxString& path);
    /// Whether the folder holds anything of an image.
    static bool holdsImage(const SxString& path);
    /// Whether the folder is there and empty, or isn't there.
    static bool isFree(const SxString& path);
};
