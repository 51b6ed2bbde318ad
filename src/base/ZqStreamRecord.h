#pragma once

#include "SxString.h"

#include <functional>

/// The record `stream.json` of an image folder: where the image comes from, and which application a run has
/// started from it, so that the next run can go on. Written by runs alone. Between processes it isn't locked:
/// the one that completes the image is the one that writes it.
class ZqStreamRecord {
public:
    SxString url;         ///< address of the image's folder; empty where none is known
    int64 nStarts = 0;    ///< applications started so far
    SxString application; ///< process group of the last of them, see SxProcessGroup::toText(); empty for none
    SxString verified;    ///< digest that the complete `img.zqf` was found to have; empty for none

    /// Fills the record from the image folder `image`; all defaults where it has no record. Raises
    /// "Failed to read file ..." with the cause.
    void read(const SxString& image);
    /// Replaces the record of the image folder as a whole. Raises "Failed to write file ..." with the cause.
    void write(const SxString& image) const;
    /// Reads the record, lets `change` change it, and writes it. Of several threads one goes after the other.
    static void update(const SxString& image, const std::function<void(ZqStreamRecord* record)>& change);
};
