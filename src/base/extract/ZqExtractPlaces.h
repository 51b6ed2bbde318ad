#pragma once

#include "SxString.h"

/// Where an extraction works: the image, the installation, and what stands beside them meanwhile. All are
/// host paths without a slash at the end. A value, worked out from what is there at the moment.
struct ZqExtractPlaces {
    /// `image` and `destination` are paths of the library.
    ZqExtractPlaces(const SxString& image, const SxString& destination);

    /// What the mark (ZqExtractNote::MARK) of an installation of this image ends in.
    SxString markEnd() const;

    SxString image;       ///< with all links resolved; what it leads to may be gone
    SxString link;        ///< the link that was given in its place; empty for none
    SxString moved;       ///< what the image is called while it is removed
    SxString movedLink;   ///< what the link is called then; it leads there
    SxString parent;      ///< of the installation, with all links resolved
    SxString destination; ///< the installation
    SxString staging;     ///< what that is called until it is complete
    SxString lock;        ///< of the one who makes it
};
