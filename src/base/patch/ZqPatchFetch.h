#pragma once

#include "SxArray.h"
#include "ZqNetAccess.h"
#include "ZqTaskMon.h"

class ZqPatchWork;

/// Job that downloads the patch of an image from its address into the image's folder, where ZqPatchApply
/// finds it; also while the image is played. A download that was cut off goes on, and another patch takes its
/// place. Progress in bytes. Holds ZqImageLock::Shape, shared, and is the only one for its image.
class ZqPatchFetch : public ZqTaskMon {
public:
    /// `image_`: the image folder. `headers_`: lines for each request.
    ZqPatchFetch(const SxString& image_, const SxString& url_, const SxArray<SxString>& headers_,
                 const ZqNetAccess& access_ = {});

    /// After the end: whether all of the patch is there and right.
    bool isComplete() const { return complete; }
    // After the end.
    const SxString& getFrom() const { return from; } ///< guid
    const SxString& getTo() const { return to; }     ///< guid
    uint64 getNParts() const { return nParts; }
    uint64 getNFetched() const { return nFetched; } ///< bytes, by this job
    /// Whether the image is the new version already, so that there was nothing to fetch.
    bool isAlreadyNew() const { return alreadyNew; }

protected:
    void main() override;

private:
    void fetch(const ZqPatchWork& work);

    const SxString image, url; ///< the folder with its trailing slash
    const SxArray<SxString> headers;
    const ZqNetAccess access;
    SxString from, to;
    uint64 nParts = 0, nFetched = 0;
    bool complete = false, alreadyNew = false;
};
