#include "ZqImageReport.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqHttpLimits.h"
#include "ZqImageFiles.h"
#include "ZqImageFolder.h"

ZqImageReport::ZqImageReport(const SxString& image) {
    SxList<SxException> failures;
    const SxList<ZqRunRecord> records = ZqRunRecord::readLast(image, 1, &failures);
    if (!failures.isEmpty()) throw SxException(failures.first());
    const SxString runtime = ZqImageFolder::prefix(image) + ZqImageFiles::RUNTIME_JSON;
    if (!records.isEmpty()) {
        record = records.last();
        isRecord = true;
        source = "the record of the last run";
    } else if (!SxFSAction::isGone(runtime)) {
        record = ZqRunRecord::read(runtime);
        source = runtime;
    } else {
        source = "nothing, since the image has no run";
    }
    record.info.path = image;
}

void ZqImageReport::send(const ZqReportTarget& target, const SxList<SxString>& sections, bool update,
                         const ZqHttpLimits& limits) {
    const ZqReportTarget::Filled filled = target.fill(record.info.id, record.info.clientToken, update);
    const SxString before = record.info.clientToken;
    record.info.upload(filled.url, filled.headers, sections, update, limits);
    if (isRecord && !(record.info.clientToken == before)) record.rewrite();
}
