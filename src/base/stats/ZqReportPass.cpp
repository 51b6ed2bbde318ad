#include "ZqReportPass.h"

#include "SxException.h"
#include "ZqFileLock.h"
#include "ZqReportUpload.h"

ZqReportPass::ZqReportPass(const ZqStatsConsent& consent_, SxString own_, const ZqHttpLimits& limits_,
                           Answered answered_)
    : consent(consent_),
      own(std::move(own_)),
      waiting(consent_),
      limits(limits_),
      answered(std::move(answered_)) {
}

bool ZqReportPass::run() const {
    ZqStatsConsents::require(consent);
    const ZqWaitingReports::List reports = waiting.read();
    if (reports.isEmpty()) return false;
    const ZqFileLock lock(waiting.getFile() + ".sending",
                          "Another client sends reports of this application at the moment",
                          "Cannot lock '" + waiting.getFile() + "'");
    bool hasSent = false;
    std::optional<SxException> refusal;
    const auto attempt = [&](const ZqWaitingReports::Report& report) {
        ZqStatsConsents::require(consent);
        try {
            hasSent = sendRun(report.id) || hasSent;
        } catch (const SxException& e) {
            if (!e.hasTag(ZqReportUpload::REFUSED)) throw;
            refusal = e;
        }
    };
    for (const bool isOwn : {true, false}) {
        for (const ZqWaitingReports::Report& report : reports) {
            if ((report.id == own) == isOwn) attempt(report);
        }
    }
    if (refusal) throw SxException(*refusal);
    return hasSent;
}

bool ZqReportPass::sendRun(const SxString& id) const {
    // Read anew: another client may have sent it until the lock was ours.
    std::optional<ZqWaitingReports::Report> report = waiting.find(id);
    if (!report) return false;
    const bool isSent = report->isSent();
    if (report->post.isValid()) {
        report->token = send(*report, false);
        waiting.change(id, [&](ZqWaitingReports::Report* sent) {
            sent->post = {};
            sent->token = report->token;
        });
    }
    // Also where another client has sent the first report.
    answered(id, report->token);
    if (!report->patch.isValid()) return !isSent;
    send(*report, true);
    waiting.change(id, [](ZqWaitingReports::Report* sent) { sent->patch = {}; });
    return true;
}

SxString ZqReportPass::send(const ZqWaitingReports::Report& report, bool update) const {
    ZqReportTarget::Filled filled;
    try {
        filled = consent.target.fill(report.id, report.token, update);
    } catch (const SxException& e) {
        // That won't change: what can't be sent doesn't wait for ever.
        waiting.remove(report.id);
        throw e.tagged(ZqReportUpload::REFUSED);
    }
    const auto document = [&] { return (update ? report.patch : report.post).toJson(); };
    return ZqReportUpload::send(filled.url, filled.headers, document, update, report.token, limits);
}
