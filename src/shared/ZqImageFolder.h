#pragma once

#include "SxString.h"

/// The folder of one image, by its path. Safe from any thread.
class ZqImageFolder {
public:
    /// The path with one trailing slash, as the record and image classes take it.
    static SxString prefix(const SxString& path);
    /// Whether the folder holds anything of an image.
    static bool holdsImage(const SxString& path);
    /// Whether the folder is there and empty, or nothing has that name. Raises where it can't be listed.
    static bool isFree(const SxString& path);
    /// Whether a drive has written to the write layer of the image: its index has a record. The files alone
    /// say nothing, since a drive makes them as it comes up, to have room in reserve. An ext4 drive that
    /// could write has written its superblock, which counts. An index that isn't known counts, too. Raises
    /// where that can't be told.
    static bool hasWrittenLayer(const SxString& path);
    /// Raises where the folder `name` of an image, such as "runs/", is a link: what is to be written there
    /// would lie somewhere else, and so would what is removed.
    static void requireNoLink(const SxString& path, const SxString& name);
    /// Raises where fewer than `need` bytes are free on the disk of the folder `path`, which need not exist
    /// yet.
    static void requireSpace(const SxString& path, uint64 need);
};
