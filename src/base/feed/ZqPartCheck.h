#pragma once

#include "SxFileIO.h"
#include "ZqNetLink.h"
#include "ZqSeekTable.h"

#include <deque>

/// Compares the part of an `img.zqf` that an earlier download has left with the checksums of its stretches,
/// and keeps in mind which are wrong. Can be broken off, and goes on where it was. For one thread at a time.
class ZqPartCheck {
public:
    /// Of the file `zqf_` the first `size` bytes are in doubt; the whole image has `sizeZqf_`.
    ZqPartCheck(const SxString& zqf_, uint64 size, uint64 sizeZqf_);

    /// Compares what is whole of these stretches while the file has `fileSize` bytes, up to `nMost` of them.
    /// The last one may have to wait until more of it is there. Raises with the tag "Stopped", and where the
    /// file can't be read.
    void compare(const ZqSeekTable& table, uint64 fileSize, uint64 nMost, const ZqStopTest& stop);
    /// Whether all of them were compared.
    bool isCompared() const noexcept { return nextIdx == endIdx; }
    /// Those that were found to be wrong, in order. Whoever mends one takes it out.
    std::deque<uint64>& getWrong() noexcept { return wrong; }

private:
    const SxString zqf;
    const uint64 sizeZqf;
    uint64 nextIdx = 0, endIdx;
    std::deque<uint64> wrong;
};
