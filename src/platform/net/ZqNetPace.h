#pragma once

#include "SxTypes.h"

#include <atomic>

/// What a link carries: the rate of its ordered streams, its round trip, and from both the window that such a
/// stream needs. The getters are safe from any thread, the rest belongs to the network thread.
class ZqNetPace {
public:
    /// The measuring of one stream. What comes right after a begin or a hold has waited in buffers and tells
    /// nothing; so each of them begins it anew.
    struct Span {
        int64 sinceNs = 0; ///< from when on bytes count; 0 while they don't
        int64 nBytes = 0;
        bool wasHeld = false;   ///< what comes first has waited in buffers
        bool isSettled = false; ///< of a stream: a piece has come after that, and its bytes don't count
    };

    /// `n` bytes of a stream came at `nowNs`, steady clock.
    void measure(Span* span, int64 nowNs, int64 n);
    /// The same of a range: tells what the link carries where the streams are held all the time. Only after a
    /// hold has anything waited in buffers.
    void measureRange(Span* span, int64 nowNs, int64 n);
    /// A request that was answered, without a redirect, after so many microseconds.
    void noteRoundTrip(int64 us, int64 nowNs);

    /// Bytes per second, smoothed; 0 not known yet.
    double getRate() const noexcept { return rate.load(); }
    /// The best rate of the last 15 to 30 s, ranges too; 0 where none was measured. For the network thread.
    double getBestRate(int64 nowNs) const;
    /// Shortest round trip of late in microseconds; 0 not known yet.
    int64 getRoundTripUs() const noexcept { return roundTripUs.load(); }
    /// Bytes of such a round trip at the best rate of late; 0 not known yet.
    double getTripBytes() const noexcept { return tripBytes.load(); }

private:
    void noteBest(double measured, int64 nowNs);
    void noteTrip();

    std::atomic<double> rate{0.}, tripBytes{0.};
    std::atomic<int64> roundTripUs{0};
    /// The best of this span of time and of the one before.
    double bestRate = 0., bestRateBefore = 0.;
    int64 bestTripUs = 0, bestTripUsBefore = 0;
    int64 rateSinceNs = 0, tripSinceNs = 0;
};
