#pragma once

#include "SxMap.h"
#include "SxSystemThread.h"
#include "ZqHttpLimits.h"
#include "ZqRuntimeInfo.h"
#include "ZqStatsConsent.h"
#include "ZqStatsWish.h"

#include <atomic>
#include <functional>
#include <optional>

/// Tells a statistics service of one run, where the user has consented to that, on a thread of its own: the
/// first report when the application has started or the run has failed before that, the later one at the end.
/// Both are on the disk before they are sent. So nothing that a service does or leaves undone holds up the
/// run, and what can't be sent waits for the next one. But for open(), nothing raises: failures go to the log
/// and to getFailure(). All but the queries belong to the run's thread; those are safe from any.
class ZqStatsReporter : private SxSystemThread {
public:
    /// Longest time that a run's end waits for the service, in milliseconds.
    static constexpr int64 END_MS = 5000;
    /// Fills what a first report has of the machine, where that is wanted, and the versions.
    using Facts = std::function<void(ZqRuntimeInfo* info, bool wantsMachine)>;

    /// `endMs_`: what end() waits.
    explicit ZqStatsReporter(int64 endMs_ = END_MS);
    /// Ends what is under way at once.
    ~ZqStatsReporter() override;

    // Before open(), in the place of the usual ones.
    void setLimits(const ZqHttpLimits& limits_) { limits = limits_; }
    void setFacts(Facts facts_) { facts = std::move(facts_); }

    /// Raises what is wrong with a wish, whatever the application.
    static void check(const ZqStatsWish& wish);
    /// Takes, keeps or takes back the consent of the user to reports of the application `guid`. Without one,
    /// nothing is ever sent. Raises what is wrong with the wish, and where it can't be noted. Without a wish
    /// nothing raises: where the consent can't be read, nothing is sent.
    void open(const ZqStatsWish& wish, const SxString& guid);
    bool hasConsent() const { return consent.has_value(); }
    /// Whether the programs that run at the begin are to be told.
    bool wantsApps() const;

    /// The application has started. Copies the record and returns.
    void applicationStarts(const ZqRuntimeInfo& info);
    /// The run has failed before that. One that a player has stopped before that hasn't, and tells nothing.
    void hasFailed(const ZqRuntimeInfo& info);
    /// The run has ended. Waits up to `endMs` for what is to be sent, but no longer than until `stop` says
    /// so, which is asked every 10 ms. Does nothing where none of the two was called before.
    void end(const ZqRuntimeInfo& info, const std::function<bool()>& stop);
    /// What the service has given for this run, or the record had before; may be empty.
    SxString getToken() const;
    /// What it has given for former runs, by their ids, whose first report went out now.
    SxMap<SxString, SxString> getOtherTokens() const;
    /// Why something couldn't be sent or noted, as one line; empty while all goes well.
    SxString getFailure() const;

protected:
    void main() override;

private:
    void begin(const ZqRuntimeInfo& info);
    void storeFirst();
    void storeLater(const ZqRuntimeInfo& info);
    void sendWaiting();
    void sendOnce();
    bool goesOn();
    template<class Act>
    bool attempt(Act&& act);

    const int64 endMs;
    ZqHttpLimits limits;
    Facts facts;
    std::optional<ZqStatsConsent> consent;
    ZqRuntimeInfo first; ///< the thread's, once that has started
    bool hasBegun = false;
    std::atomic<bool> isStored{false}, isStopping{false};

    mutable SxMutex mutex;
    bool isServing SX_GUARDED_BY(mutex) = false; ///< the thread looks once more for something to send
    bool hasMore SX_GUARDED_BY(mutex) = false;
    SxString token SX_GUARDED_BY(mutex), failure SX_GUARDED_BY(mutex);
    SxMap<SxString, SxString> otherTokens SX_GUARDED_BY(mutex);
};
