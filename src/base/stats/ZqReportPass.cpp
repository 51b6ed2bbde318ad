#include "ZqReportPass.h"

#include "SxException.h"
#include "ZqFileLock.h"
#include "ZqReportUpload.h"

namespace {
constexpr const char* UNIT = "src/base/ZqReportPass";
}

ZqReportPass::ZqReportPass(const ZqStatsConsent& consent_, const ZqHttpLimits& limits_, Answered answered_)
    : consent(consent_),
      waiting(consent_),
      limits(limits_),
      answered(std::move(answered_)) {
}

bool ZqReportPass::run() const {
    requireConsent();
    const ZqWaitingReports::List reports = waiting.read();
    if (reports.isEmpty()) return false;
    const ZqFileLock lock(waiting.getFile() + ".sending",
                          "Another client sends reports of this application at the moment",
                          "Cannot lock '" + waiting.getFile() + "'");
    bool hasSent = false;
    std::optional<SxException> refusal;
    for (const ZqWaitingReports::Report& report : reports) {
        requireConsent();
        try {
            hasSent = sendRun(report.id) || hasSent;
        } catch (const SxException& e) {
            if (!e.hasTag(ZqReportUpload::REFUSED)) throw;
            refusal = e;
        }
    }
    if (refusal) throw SxException(*refusal);
    return hasSent;
}

void ZqReportPass::requireConsent() const {
    const std::optional<ZqStatsConsent> current = ZqStatsConsents::find(consent.guid);
    if (!current || current->givenMs != consent.givenMs)
        throw SxException("The consent to reports was taken back", UNIT, __LINE__);
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
