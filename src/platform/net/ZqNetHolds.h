#pragma once

#include "ZqTransfer.h"

#include <atomic>
#include <functional>

/// When what yields on a link, ordered streams and what is fetched ahead, is held: for requests that go
/// first, for a while after those on demand, and for the rate limit. setRateLimit(), getRateLimit(),
/// isAtLimit(), hasten() and share() are safe from any thread, the rest belongs to the network thread; times
/// are those of the steady clock.
class ZqNetHolds {
public:
    using Kind = ZqTransfer::Kind;
    /// Whether a request of a kind is under way that holds others; with `hasBegun`, whether its answer comes.
    using WireTest = std::function<bool(Kind kind, bool hasBegun)>;

    static bool yields(Kind kind) { return kind == Kind::Ordered || kind == Kind::Ahead; }

    /// Bytes per second of all that yields; 0 for no limit.
    void setRateLimit(double bytesPerSecond) { rateLimit.store(bytesPerSecond); }
    double getRateLimit() const noexcept { return rateLimit.load(); }
    /// Whether the link has brought more of late than the rate limit lets pass.
    bool isAtLimit(int64 nowNs) const noexcept;
    /// Somebody waits for the ordered streams, up to a moment from now.
    void hasten(int64 nowNs);
    /// Whether ordered streams may use the link as long as requests that go first have no answer yet.
    void share(bool on) { shared.store(on); }

    /// A request on demand was answered well; `tripNs`: the link's round trip.
    void noteAnswer(int64 tripNs, int64 nowNs);
    /// `n` bytes of what yields have come.
    void noteTaken(int64 n, int64 nowNs);
    /// Whether a request of that kind is to be held.
    bool mustHold(Kind kind, const WireTest& isOnTheWire, int64 nowNs) const;
    /// When time alone ends a hold.
    int64 getUntilNs() const noexcept;

private:
    std::atomic<double> rateLimit{0.};
    std::atomic<bool> shared{false};
    std::atomic<int64> hastenedUntilNs{0};
    std::atomic<int64> atLimitUntilNs{0};
    int64 quietUntilNs = 0; ///< the ordered streams are held until then for the next on-demand request
    int64 quietSinceNs = 0; ///< when that began
    int64 quietBudgetNs = QUIET_BUDGET_NS;
    int64 limitedUntilNs = 0; ///< when what yields may take bytes again

    /// This is what such holds may take in all; the time between them gives a half of its own length back.
    /// When it is used up a hold lasts one round trip only, within lower bounds: an application that asks
    /// without end must not keep the download back.
    static constexpr int64 QUIET_BUDGET_NS = 10'000'000'000;
};
