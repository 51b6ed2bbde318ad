#pragma once

#include "SxString.h"

/// The record `stream.json` of an image folder: where the image comes from, and which application a run has
/// started from it, so that the next run can go on. Written by runs alone. Not locked.
class ZqStreamRecord {
public:
    SxString url;         ///< address of the image's folder; empty where none is known
    int64 nStarts = 0;    ///< applications started so far
    SxString application; ///< process group of the last of them, see SxProcessGroup::toText(); empty for none

    /// Fills the record from the image folder `image`; all defaults where it has no record. Raises
    /// "Failed to read file ..." with the cause.
    void read(const SxString& image);
    /// Replaces the record of the image folder as a whole. Raises "Failed to write file ..." with the cause.
    void write(const SxString& image) const;
};
