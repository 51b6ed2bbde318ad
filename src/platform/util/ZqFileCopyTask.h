#pragma once

#include "SxArray.h"
#include "SxMd5.h"
#include "ZqTaskMon.h"

/// Copies byte ranges from one file into another, or within one file, and digests them on the way. Made for
/// lists of millions of single blocks: neighbours are read and written together, and the digest is computed
/// beside the input and output. The target is made if it is missing (permissions 0600), keeps all bytes
/// outside the ranges, and grows where a range lies beyond its end. What was copied is on the device when the
/// job ends, also after stop().
class ZqFileCopyTask : public ZqTaskMon {
public:
    /// Bytes `sourceOffset` to `sourceOffset` + `length` - 1 of the source go to `targetOffset` of the
    /// target.
    struct Range {
        uint64 sourceOffset = 0, targetOffset = 0, length = 0;
        bool operator==(const Range&) const = default;
    };

    /// The result is that of copying each range as a whole in array order, so in one file a range takes the
    /// bytes that earlier ones have left there. The counters count bytes.
    ZqFileCopyTask(const SxString& source, const SxString& target, const SxArray<Range>& ranges);

    /// Digest of the copied bytes in the order of the ranges; only after the end of a copy that neither
    /// failed nor was stopped.
    SxMd5 getMD5() const;

protected:
    /// Raises, naming the file and the offset, where a range lies beyond the end of the source or a file
    /// can't be read or written. Ranges before that one may have been copied.
    void main() override;

private:
    class Copy;
    class Helper;

    const SxString source, target;
    const SxArray<Range> ranges;
    SxMd5 md5; ///< belongs to the job while it runs
};
