#pragma once

#include "SxTypes.h"

/// What was moved of an image over the network, in bytes.
struct ZqImageFigures {
    uint64 nStreamed = 0;  ///< decoded, handed to the stream's consumer
    uint64 nOnDemand = 0;  ///< decoded, fetched as ranges
    uint64 nAhead = 0;     ///< decoded, fetched since they follow such
    uint64 nLeft = 0;      ///< decoded, given to ranges by the stream
    uint64 nTakenKept = 0; ///< decoded, given to the stream out of what was kept
    uint64 nStored = 0;    ///< decoded, kept beyond this object's life
    uint64 nTwice = 0;     ///< of the wire, received by the stream and as ranges, or by the stream again
    bool isPacked = false; ///< whether the packed form is in use
};
