#pragma once

#include "SxTypes.h"

#include <array>

/// Tells whether a request gets on: the one rule for all limits of silence. For the network thread; times are
/// those of the steady clock.
///
/// A byte alone is no progress. A flow that is dying, one bad machine of several with the same address, or a
/// shaper may bring one a second and hold a game for hours, while a fresh connection would bring the whole
/// file at once. So a clock of silence begins anew only when a useful amount has come since it began: what
/// getUsefulRate() makes of its limit. What comes before the answer, interim answers and lines of a head, is
/// none. Bytes of a TLS record that isn't complete yet are some.
///
/// A link that is slow for all must not be taken for that: what is asked for again costs it round trips, and
/// what was under way. So the rate is low, some 400 bytes a second. Requests beside each other share it.
/// Where the link has carried more of late it is a 64th of that, up to 8 KiB a second, at which every request
/// is left alone. Time in which a request is held, by others or by its own consumer, doesn't count.
class ZqNetProgress {
public:
    /// The clocks, by what they limit.
    enum Clock {
        Stall,  ///< until it is given up (10 s, see ZqNetSettings)
        Second, ///< until it gets a second one beside it (3 s, see ZqNetSettings)
        Hold,   ///< as long as it holds others back (1 s)
        N_CLOCKS
    };
    using Limits = std::array<int64, N_CLOCKS>; ///< nanoseconds

    /// Bytes per second that one of `nBeside` requests has to bring, on a link that has carried `bestRate` of
    /// late, 0 not known.
    static double getUsefulRate(double bestRate, int64 nBeside);
    /// Bytes after which a request that was given up once, or is compared with another, has shown its use.
    static constexpr int64 USEFUL_BYTES = 4096;

    /// How long one is let go on that has brought something, but too little, where the `nSlow` before it were
    /// given up as slow. `limit` doubles with each of them, up to eight times as much (10 s become 80 s), so
    /// that a link that is slower than all this expects goes on, too.
    static int64 getPatience(int64 limit, int64 nSlow);

    explicit ZqNetProgress(const Limits& limits_) : limits(limits_) {}

    /// Begins all clocks anew: it was asked for, or its answer has begun.
    void begin(int64 nowNs);
    /// `n` bytes have come; the rest as for getUsefulRate().
    void take(int64 n, double bestRate, int64 nBeside, int64 nowNs);
    /// So much time doesn't count.
    void skip(int64 ns);
    /// When the clock began.
    int64 getSinceNs(Clock clock) const { return spans[clock].sinceNs; }
    /// Bytes since then.
    int64 getBytes(Clock clock) const { return spans[clock].nBytes; }

private:
    struct Span {
        int64 sinceNs = 0, nBytes = 0;
    };
    Limits limits;
    std::array<Span, N_CLOCKS> spans;
};
