#pragma once

#include "SxTypes.h"

#include <string>

/// Which version of an image a write layer was made on: the start of a digest of `checksums.mnt`, or where
/// that is empty, of the guid of `img.json`. Neither changes when the image is re-ordered or a layer is moved
/// into it. Both change with another version, over which the layer's blocks would make a mix that nobody
/// notices. Zeros where the image has neither.
struct LayerIdentity {
    uint64 high = 0;
    uint32 low = 0;

    /// Reads it from the records in `folder` (with its trailing slash), since the control library's mount
    /// call has no place for it. A record that isn't there tells nothing; raises on one that can't be read.
    static LayerIdentity of(const std::string& folder);

    /// As hexadecimal digits; empty where it isn't known.
    std::string toText() const;
    bool isKnown() const { return high != 0 || low != 0; }
    /// Whether both may be of one image.
    bool fits(const LayerIdentity& other) const {
        return !isKnown() || !other.isKnown() || (high == other.high && low == other.low);
    }
};
