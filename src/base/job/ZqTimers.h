#pragma once

#include "SxTimer.h"

/// The timers of the library's jobs: what SxTakeTime and SxTimer::getTimerId() take. Their names are
/// registered when the program starts.
namespace Timer {

enum class ImageTimer { ZqfFromZqf };

enum class PatchTimer {
    TotalPatchTime,
    ParseMeta,
    GenNewMap,
    CopyOldData,
    CopyPatchData,
    ApplyPatch,
    CopyNewData,
    FinalizeImage,
    CopyOldMapOut,
    FindOldData,
    FreeBlocksDummy,
    CleanUnmappedData,
    PatchCurrentTraces,
    MergeCurrentTraces
};

enum class TraceTimer { ReadItems, GetExtraBlocks, GetBlocks, MergeTraces, ConstructMerge, WriteMergeTrace };

// Inline variables, not ones of a source file: every unit that uses a timer then has them initialised, also
// where the library is linked from an archive.
inline const SxTimerNames<ImageTimer> imageTimerNames{"ZqF from ZqF"};

inline const SxTimerNames<PatchTimer> patchTimerNames{
    "Total Patch time",     "Parse meta",          "Gen new map",       "Copy old data",
    "Copy patch data",      "Apply patch",         "Copy new data",     "Finalize image",
    "Copy old map out",     "Find old data",       "Free blocks dummy", "Clean unmapped data",
    "Patch current traces", "Merge current traces"};

inline const SxTimerNames<TraceTimer> traceTimerNames{
    "Read Items", "Get Extra Blocks", "Get Blocks", "Merge Traces", "Construct Merge", "Write Merge Trace"};

} // namespace Timer
