#pragma once

#include "SxArray.h"
#include "SxPtr.h"
#include "ZqNetAccess.h"
#include "ZqPatchParams.h"
#include "ZqRuntimeInfo.h"
#include "ZqTaskMon.h"

#include <vector>

class ZqFastPatch;
class ZqPatchDownload;
class ZqPatchProgress;
class ZqPatchWork;
struct ZqPatchSizes;

/// Job that brings an installed image to its next version by a patch, which is a folder or the address of
/// one. It works on a private copy of the patch in the image folder (ZqPatchWork), or, where the patch may be
/// consumed, on the patch itself. ZqFastPatch does the work, beside the download. Progress in bytes of work.
/// Holds ZqImageLock::Shape exclusively.
///
/// An image that is partial, in parts, being optimised, in use or written into is refused before anything
/// changes, and so is a patch that isn't whole, or not for it. A failure is logged, published as APP_ERROR,
/// and kept in the job (hasFailure()). A stop is no failure: isComplete() tells. After a stop, a failure, a
/// kill or a power cut a job without a patch, or with the same one, goes on. On an image that is the new
/// version already it only tidies up.
class ZqPatchApply : public ZqTaskMon {
public:
    struct Options {
        SxString patch;            ///< folder or address; empty to go on with what was begun
        SxArray<SxString> headers; ///< lines for each request to an address
        bool isConsumed = false;   ///< the folder goes at the end, and no private copy is made
        ZqNetAccess access = {};   ///< the way to an address
    };

    ZqPatchApply(const SxString& image_, const Options& options_);
    ~ZqPatchApply() override;

    /// Gets `patchStats`; not null.
    SxPtr<ZqRuntimeInfo> runtimeInfo;

    /// Milliseconds between two looks at what is under way. Before start().
    void setInterval(int ms) { interval = ms; }

    /// What came of it.
    struct Result {
        SxString from, to;         ///< guids; empty where only the commit was left
        bool isAlreadyNew = false; ///< there was nothing to do but to tidy up
        bool isResumed = false;
        uint64 nParts = 0;
        uint64 bytesDownload = 0; ///< fetched
        uint64 bytesWritten = 0;  ///< new blocks put into the image
        uint64 bytesExtra = 0;    ///< of the disk, taken for a time or, by what the image grows, for good
        uint64 bytesLayer = 0;    ///< of a write layer that went
        SxString patchLeft;       ///< why the patch that was to be removed stays, a sentence; or empty
        uint32 stage = 0;         ///< ZqPatchProgress::Stage where it stopped, or the last one
        uint32 part = 0;
    };
    /// After the end: whether the image is the new version, and all is in its place.
    bool isComplete() const { return complete; }
    /// After an end before that: whether there is something to go on with.
    bool isBegun() const { return begun; }
    const Result& getResult() const { return result; }

    /// Bytes of the image's write layer that a patch would remove: 0 where nothing was written. `image` is
    /// the image folder with its trailing slash.
    static uint64 layerBytes(const SxString& image);

protected:
    void main() override;

private:
    void run();
    void takeBack(bool hadCopy) const;
    void refuseImage() const;
    /// Gives the folder of the patch, in which all but `patch.data` of an address is in its place; empty
    /// where there is nothing to do.
    SxString takePatch();
    SxString takeFolder(const SxString& folder, bool isConsumed);
    SxString takeAddress(const SxString& source, const SxString& noted);
    bool isWanted(const ZqPatchParams& params);
    void requireWhole(const SxString& patch, const ZqPatchParams& params);
    void requireRoom(const SxString& patch, uint64 nToCome);
    void apply(const SxString& patch);
    void finishDownload(const ZqFastPatch& fast);
    void count(const ZqPatchProgress& start);
    void noteEnd();
    void tidyUp();
    bool isStopped() const { return stopRequested(); }

    const SxString image; ///< with its trailing slash
    const Options options;
    const SxPtr<ZqPatchWork> work;
    SxPtr<ZqPatchDownload> download; ///< null without an address
    std::vector<ZqPatchSizes> parts;
    SxString consumed;    ///< the folder that goes at the end; empty for none
    ZqPatchParams wanted; ///< of the patch
    SxString digest;      ///< MD5 text of its patch.json
    bool isApplying = false;
    bool isThrough = false; ///< the blocks and records are those of the new version
    Result result;
    int interval = 200;
    bool complete = false, begun = false;
    bool isTold = false; ///< the failure is one that ZqFastPatch has published
};
