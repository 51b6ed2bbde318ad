#pragma once

#include "SxString.h"

/// The room that a download leaves on its disk for everything else: the smaller of 1 GiB and a tenth of what
/// was free when it began. Whoever writes what is downloaded, in whatever process, looks here before it does.
/// Safe from any thread. Sizes are in bytes.
class ZqDiskReserve {
public:
    /// The most that is left.
    static constexpr uint64 MAX = uint64{1} << 30;

    /// Leaves nothing.
    ZqDiskReserve() = default;
    /// Measures the disk of `folder_`, which need not exist yet. `nHeld`: bytes that the download has put
    /// there already. They count as free, so that a download in several runs leaves as much as one in a
    /// single run would. Raises "Cannot find the free space of ..." with the cause.
    ZqDiskReserve(const SxString& folder_, uint64 nHeld);

    uint64 getSize() const noexcept { return size; }
    /// Bytes that may be written now. Raises as the constructor does.
    uint64 getRoom() const;
    /// Bytes that must become free until `nBytes` more may be written; 0 where they fit. Raises as the
    /// constructor does.
    uint64 getMissing(uint64 nBytes) const;

private:
    SxString folder; ///< empty for none
    uint64 size = 0;
};
