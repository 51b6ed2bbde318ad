#include "SxException.h"
#include "ZqStatsConsent.h"

#include <cstdlib>

// statistics.json: any bytes are read, or refused by an SxException; what was read survives being written,
// and each of its requests can be sent as it is: no text in it begins a header of its own.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    ZqStatsConsents::List consents;
    try {
        consents = ZqStatsConsents::parse(SxString(std::string(reinterpret_cast<const char*>(data), size)));
    } catch (const SxException&) {
        return 0;
    }
    for (const ZqStatsConsent& consent : consents) {
        const ZqReportTarget::Filled filled = consent.target.fill("id", "token", true);
        for (const auto& [name, value] : filled.headers) {
            if ((name + value).str().find_first_of("\r\n") != std::string::npos) std::abort();
        }
        if (consent.sections.isEmpty()) std::abort();
    }
    if (!(ZqStatsConsents::parse(ZqStatsConsents::toText(consents)) == consents)) std::abort();
    return 0;
}
