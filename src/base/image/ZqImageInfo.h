#pragma once

#include "SxPtr.h"
#include "ZqAppParams.h"
#include "ZqImage.h"
#include "ZqImageParams.h"

/// What an image folder holds at this moment. A value: what is read stays as it was. Not locked.
class ZqImageInfo {
public:
    enum State { Complete, Partial, Optimizing, Patching };

    /// Reads the records and the map of the image folder `path`, under a shared lock. Raises where one of
    /// them can't be read.
    explicit ZqImageInfo(const SxString& path);

    /// Whether the folder `path` has all records and the beginning of `img.zqf`. Takes no lock.
    static bool holdsPart(const SxString& path);
    /// Whether all that belongs to a complete image is in the folder `path`, as far as sizes tell. Takes no
    /// lock. Raises where app.json can't be read.
    static bool isComplete(const SxString& path);

    ZqAppParams app;
    ZqImageParams image;
    State state = Partial;
    uint64 sizeZqf = 0;      ///< bytes of `img.zqf` now; 0 where it isn't there
    uint64 sizeComplete = 0; ///< bytes of the complete `img.zqf`, by app.json, or else by the map
    uint64 nRaw = 0;         ///< RAW blocks
    uint64 nIncluded = 0;    ///< RAW blocks that the complete ZqF file holds
    uint64 nPresent = 0;     ///< of these, those that lie below the present end of `img.zqf`
    uint64 nRuns = 0;        ///< runs of RAW neighbours that are neighbours in the ZqF file, in ZqF order
    bool hasHints = false;   ///< of this map
    uint64 nHintGroups = 0, nHotStretches = 0;
    ZqImage::SplitState storage;

    /// "complete", "partial", "optimizing" or "patching".
    static SxString stateToString(State state);
    SxString getStateText() const { return stateToString(state); }

    /// Raises unless all of `img.zqf` is there, in one file; `path` is the image folder, for the text.
    void requireComplete(const SxString& path) const;

private:
    void countBlocks(const SxArray<uint64>& map);
};
