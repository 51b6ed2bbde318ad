#pragma once

#include "SxArray.h"

/// What gives ranges of an `img.zqf` to those who wait for them. Offsets and sizes are in bytes of that file,
/// whichever form of it is on the server. Safe from any thread.
class ZqRangeSource {
public:
    /// Ranges that are worth having on the wire together, so that their round trip is paid once.
    static constexpr int64 GROUP = 6;

    virtual ~ZqRangeSource() = default;

    /// Begins to fetch ranges together that read() will then be asked for; returns at once. As many sizes as
    /// offsets. A failure shows with the reads.
    ///
    /// `likely`: stretches that somebody may ask for soon, by their offsets, the likeliest first. A source
    /// that keeps what nobody has asked for begins to fetch those, too, that aren't there or on their way;
    /// they yield to all that somebody waits for. Gives the offsets of these.
    virtual SxArray<uint64> announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes,
                                     const SxArray<uint64>& likely) = 0;
    /// Blocks until `size` bytes from `offset` on are in `buffer`. `isApart`: by requests of its own,
    /// whatever is kept of them, or on its way with the ordered download. Raises.
    virtual void read(uint64 offset, uint64 size, char* buffer, bool isApart) = 0;
    /// What came of this range was wrong: the next read() fetches it anew.
    virtual void forget(uint64 offset, uint64 size) = 0;
    /// While on, read() raises, within 20 ms where it blocks.
    virtual void cancel(bool on) = 0;
};
