#pragma once

#include "ZqHttpLimits.h"
#include "ZqStatsConsent.h"
#include "ZqWaitingReports.h"

#include <functional>

/// Sends what waits for a consent, that of the run under way before that of others, which may be many and
/// slow, and then the oldest first; of a run the first report before the later one. What the service has
/// taken is forgotten before the next one is sent. One client at a time sends those of an application.
class ZqReportPass {
public:
    /// Told the token of a run whose first report the service has; may be empty.
    using Answered = std::function<void(const SxString& id, const SxString& token)>;

    /// `own_`: id of the run that is under way.
    ZqReportPass(const ZqStatsConsent& consent_, SxString own_, const ZqHttpLimits& limits_,
                 Answered answered_);

    /// Gives whether something was sent; raises what has failed. A report that the service refuses doesn't
    /// hold up the others; where nothing gets through, and after a stop, none of them is tried. Without
    /// the consent nothing is sent.
    bool run() const;

private:
    bool sendRun(const SxString& id) const;
    SxString send(const ZqWaitingReports::Report& report, bool update) const;

    const ZqStatsConsent consent;
    const SxString own;
    const ZqWaitingReports waiting;
    const ZqHttpLimits limits;
    const Answered answered;
};
