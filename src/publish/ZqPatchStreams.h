#pragma once

#include "SxException.h"
#include "SxLatch.h"
#include "SxMutex.h"
#include "ZqJobsTogether.h"
#include "ZqPatchCompression.h"
#include "ZqPatchInfo.h"
#include "ZqPatchPlan.h"

#include <atomic>
#include <memory>
#include <optional>

/// Makes the streams of a patch's parts, as many side by side as the machine has cores. The owner takes them
/// in their order. Ended early, it stops the tools.
class ZqPatchStreams {
public:
    /// `scratch_` is a folder for files that come and go, with its trailing slash. `progress_` counts the
    /// bytes of new blocks, and is asked for a stop. The others outlive this object.
    ZqPatchStreams(const ZqPatchSide& older_, const ZqPatchSide& newer_,
                   const std::vector<ZqPatchPart>& parts_, const SxString& scratch_,
                   ZqPatchCompression::Type compression_, int level_, ZqTaskMon* progress_);
    ~ZqPatchStreams();
    ZqPatchStreams(const ZqPatchStreams&) = delete;
    ZqPatchStreams& operator=(const ZqPatchStreams&) = delete;

    /// Waits for the stream of the next part, in part order, and gives it to `take`, piece by piece. Gives
    /// the part's lists, size and digests. Raises where it could not be made, and after a stop.
    ZqPatchInfo next(const std::function<void(const char* bytes, int64 n)>& take);

private:
    struct Made {
        SxLatch isEnded;
        bool isRight = false; ///< set before the latch
        SxMd5 oldMd5, newMd5;
    };

    void makeParts();
    void note(const SxException& e) SX_EXCLUDES(mutex);
    [[noreturn]] void raiseFailure() SX_EXCLUDES(mutex);
    size_t claim() SX_EXCLUDES(mutex);
    void make(size_t part);
    SxMd5 write(const ZqPatchSide& side, const std::vector<uint32>& items, const SxString& file) const;
    void runTool(size_t part) const;
    SxString fileOf(size_t part, const char* what) const;
    bool isStopped() const;

    const ZqPatchSide &older, &newer;
    const std::vector<ZqPatchPart>& parts;
    const SxString scratch;
    const ZqPatchCompression::Type compression;
    const int level;
    ZqTaskMon* const progress;
    std::vector<std::unique_ptr<Made>> made; ///< by part
    size_t nTaken = 0;
    SxMutex mutex;
    size_t nClaimed SX_GUARDED_BY(mutex) = 0;
    std::optional<SxException> failure SX_GUARDED_BY(mutex); ///< the first
    std::atomic<bool> isEnding{false};
    ZqJobsTogether makers; ///< goes first
};
