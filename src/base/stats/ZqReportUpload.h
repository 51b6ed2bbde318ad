#pragma once

#include "SxMap.h"
#include "SxString.h"
#include "ZqHttpLimits.h"

#include <functional>

/// One report on its way to a statistics service: the exchange, and what its answer means.
class ZqReportUpload {
public:
    /// Tag of the failure of a report that the service has read and doesn't take: it won't take it later
    /// either, unlike one that didn't come through.
    static constexpr const char* REFUSED = "RefusedReport";
    /// Bytes of a token that is believed.
    static constexpr int64 MAX_TOKEN = 4096;

    /// Sends a report: the first one of a run by POST, later ones (`update`) by PATCH. `document` makes its
    /// text, once the network is ready. Gives the token of the answer to a POST, or `token` where that has
    /// none. Raises "Failed to upload runtime data." with the cause. Safe from any thread.
    static SxString send(const SxString& url, const SxMap<SxString, SxString>& headers,
                         const std::function<SxString()>& document, bool update, const SxString& token,
                         const ZqHttpLimits& limits);
};
