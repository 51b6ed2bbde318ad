#pragma once

#include "SxList.h"
#include "SxSymbol.h"
#include "ZqLoadProfilePoint.h"

/// What the order of an image's blocks rests on. A plain value.
struct ZqOrderBasis {
    uint64 nRuns = 0;     ///< traces that it comes from
    uint64 nSessions = 0; ///< different sessions that these are of
    uint64 nCore = 0;     ///< blocks that the next run will most likely read
    uint64 nTail = 0;     ///< others that a run has read
    uint64 nGroups = 0;   ///< groups of stretches that runs read together
    /// The median of the runs' load profiles; that of app.json is the worst of them.
    SxList<ZqLoadProfilePoint> median;

    /// Adds the numbers to a JSON object, as img.json and clients show them; not the median.
    void append(SxParserKit::SxSymbol* to) const;

    bool operator==(const ZqOrderBasis&) const = default;
};
