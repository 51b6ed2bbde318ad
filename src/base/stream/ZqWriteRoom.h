#pragma once

#include "ZqDiskReserve.h"

/// How much a writer may write beside the reserve that it leaves on its disk: looks at the disk now and then,
/// and counts what is written between two looks. For one thread. Sizes in bytes.
class ZqWriteRoom {
public:
    /// Leaves nothing.
    ZqWriteRoom() = default;
    explicit ZqWriteRoom(const ZqDiskReserve& reserve_) : reserve(reserve_) {}

    const ZqDiskReserve& getReserve() const noexcept { return reserve; }
    /// Whether so much may be written, which then counts as written. Raises where the disk can't be asked.
    bool take(uint64 nBytes);

private:
    ZqDiskReserve reserve;
    uint64 left = 0;  ///< by the last look
    int64 lookNs = 0; ///< when that was
};
