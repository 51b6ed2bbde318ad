#pragma once

#include "SxArray.h"
#include "ZqNetAccess.h"
#include "ZqTaskMon.h"

/// Job that tells how far an image is with a patch, and what that will still take. Changes nothing. Takes no
/// lock, since it is asked while others are at work.
class ZqPatchStatus : public ZqTaskMon {
public:
    enum State {
        None,      ///< no patch was begun, and none is there
        Fetched,   ///< a patch is there, as a whole or in part; the image is what it was
        Begun,     ///< blocks may be on their way
        Committing ///< the blocks are there; the records take their places
    };
    struct Result {
        State state = None;
        /// Whether a patch is known: the one that was begun or fetched, or the one that was asked for. The
        /// fields below are of that.
        bool hasPatch = false;
        SxString from, to; ///< guids
        SxString source;   ///< where it comes from, as texts show it
        /// Whether the image is of the version that the patch is for, of the one that it makes, or neither.
        bool isFor = false, isMade = false;
        bool isOther = false; ///< another patch was begun than the one that was asked for
        uint64 nParts = 0;
        uint32 stage = 0, part = 0; ///< of what was begun, see ZqPatchProgress
        uint64 bytesDownload = 0;   ///< still to come
        uint64 bytesWritten = 0;    ///< of new blocks, still to come
        uint64 bytesExtra = 0;      ///< of the disk, still to be taken
        uint64 bytesLayer = 0;      ///< of a write layer that will go
        double seconds = 0;         ///< of work, at the rate at which the image can be read
    };

    /// `image_`: the image folder. `patch_`: a patch folder or an address, or empty for what was begun or
    /// fetched. `scratch_`: an empty folder.
    ZqPatchStatus(const SxString& image_, const SxString& patch_, const SxArray<SxString>& headers_,
                  const SxString& scratch_, const ZqNetAccess& access_ = {});

    const Result& getResult() const { return result; }
    /// "none", "fetched", "begun" or "committing".
    static SxString toText(State state);

protected:
    void main() override;

private:
    SxString findPatch();
    void fetch(const SxString& url) const;
    void look(const SxString& patch);
    double measureRate() const;

    const SxString image, patchName, scratch; ///< folders with trailing slashes
    const SxArray<SxString> headers;
    const ZqNetAccess access;
    Result result;
};
