#pragma once

#include "ZqReportTarget.h"
#include "ZqRunRecord.h"

struct ZqHttpLimits;

/// A report on an image that its user sends by hand: the machine's facts as they are now, and the figures of
/// the image's last run. Not locked.
class ZqImageReport {
public:
    /// Takes the figures from the last record of a run, else from `runtime.json`, else there are none. Raises
    /// where these files are there and can't be read.
    explicit ZqImageReport(const SxString& image);

    /// Where the figures are from, as a clause.
    const SxString& getSource() const { return source; }
    /// Takes the facts of the machine. Gives why the drive service tells no version; those are empty then.
    SxString takeFacts() { return record.info.getKnownSpecs(); }
    /// What would be sent; see ZqRuntimeInfo::toReport().
    SxParserKit::SxSymbol toDocument(const SxList<SxString>& sections, bool update) const {
        return record.info.toReport(sections, update);
    }
    /// Sends that. The token that comes is noted in the record of the run. Raises what ZqReportTarget::fill()
    /// and ZqRuntimeInfo::upload() raise, and where the token can't be noted.
    void send(const ZqReportTarget& target, const SxList<SxString>& sections, bool update,
              const ZqHttpLimits& limits);

private:
    ZqRunRecord record;
    bool isRecord = false; ///< of a run, and not `runtime.json`
    SxString source;
};
