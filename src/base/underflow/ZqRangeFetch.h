#pragma once

#include "SxArray.h"
#include "SxPtr.h"
#include "SxSystemThread.h"

class ZqRangeSource;

/// A stretch of `img.zqf` on its way from a source of ranges, on a thread of its own. Offsets are bytes.
class ZqRangeFetch : public SxSystemThread {
public:
    /// `isApart`: as ZqRangeSource::read() has it.
    ZqRangeFetch(const SxPtr<ZqRangeSource>& from, uint64 offset, uint64 length, bool isApart);
    ~ZqRangeFetch() override { wait(); }

    const uint64 offset, length;
    const bool isApart;
    const int64 beginMs; ///< of the steady clock
    const SxPtr<ZqRangeSource> from;

    // Once it has ended.
    bool hasCome = false;
    SxArray<char> data;
    bool isInvalid = false; ///< it hasn't come, since the source gave a status that it has not
    SxString failure;       ///< why it hasn't come otherwise

protected:
    void main() override;
};
