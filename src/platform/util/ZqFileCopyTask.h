#pragma once

#include "SxArray.h"
#include "SxMd5.h"
#include "ZqTaskMon.h"

#include <functional>

/// Copies byte ranges from one file into another, or within one file, and digests them on the way. Made for
/// lists of millions of single blocks: neighbours are read and written together, and the digest is computed
/// beside the input and output. The target is made if it is missing (permissions 0600), keeps all bytes
/// outside the ranges, and grows where a range lies beyond its end. What was copied is on the device when the
/// job ends well. After stop() it need not be, and the copy is to be repeated.
class ZqFileCopyTask : public ZqTaskMon {
public:
    /// Bytes `sourceOffset` to `sourceOffset` + `length` - 1 of the source go to `targetOffset` of the
    /// target.
    struct Range {
        uint64 sourceOffset = 0, targetOffset = 0, length = 0;
        bool operator==(const Range&) const = default;
    };
    /// Gives the range with an index from 0. Called on the job's thread, up to three times for each range and
    /// always in ascending order, and has to give the same each time.
    using RangeAt = std::function<Range(int64 rangeIdx)>;

    /// Ranges are copied in array order: where targets overlap, the last one counts. The counters count
    /// bytes; the total is known once the ranges have been looked at. The memory in use is that of the array,
    /// 8 MiB and, within one file, at most two bits for each of its blocks.
    ZqFileCopyTask(const SxString& source, const SxString& target, const SxArray<Range>& ranges);
    /// The same with `nRanges` ranges that are made when they are needed, which spares the array.
    ZqFileCopyTask(const SxString& source, const SxString& target, int64 nRanges, RangeAt rangeAt);

    /// Digest of the copied bytes in the order of the ranges; only after the end of a copy that neither
    /// failed nor was stopped. After others it isn't finished.
    SxMd5 getMD5() const;

protected:
    /// Raises before a byte is written, naming the file and the range, where a range doesn't fit into 64
    /// bits or lies beyond the end of the source, where the target is a link, and where a range in one file
    /// reads what was written before: itself from below, or any part of a block of 4096 bytes that an
    /// earlier range has written to. Raises later, naming the file and the offset, where a file can't be
    /// read or written; ranges may have been copied by then.
    void main() override;

private:
    class Check;
    class Batches;
    class Hasher;
    class Copy;

    const SxString source, target;
    const int64 nRanges;
    const RangeAt rangeAt;
    SxMd5 md5; ///< belongs to the job while it runs
};
