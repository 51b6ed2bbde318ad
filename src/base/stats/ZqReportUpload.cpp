#include "ZqReportUpload.h"

#include "SxException.h"
#include "ZqHttp.h"
#include "ZqLog.h"
#include "zqnetio.h"

#include <algorithm>

using SxParserKit::SxSymbol;

namespace {

constexpr const char* UNIT = "src/base/ZqReportUpload";
constexpr const char* LOG_PREFIX = "ZqRuntimeInfo::upload: ";
constexpr int OK = 200;
constexpr int64 MAX_LOGGED = 1000; ///< characters

/// Of a service that may take the same report later.
bool isForNow(int status) {
    return status == 408 || status == 429 || status >= 500;
}

void requireOk(const ZqHttpResponse& response) {
    const int status = response.statusCode();
    if (status == OK) return;
    SxString text = response.getResponse().validUtf8();
    text.updateNChars(MAX_LOGGED);
    zqLogMsg("base", SxString(LOG_PREFIX) + "response status code = " + status);
    zqLogMsg("base", LOG_PREFIX + text.makeVisible());
    const SxException cause(SxString("The service has answered with the status ") + status, UNIT, __LINE__);
    SxException failure(cause, "request failed", UNIT, __LINE__);
    throw isForNow(status) ? failure : failure.tagged(ZqReportUpload::REFUSED);
}

/// The failures don't show the token.
SxString tokenOf(const SxSymbol& answer, const SxString& former) {
    const bool hasToken = answer.getType() == SxParserAst::Object && answer.hasElem("clientToken");
    if (!hasToken) return former;
    const SxSymbol elem = answer.getElem("clientToken");
    if (elem.getType() != SxParserAst::String)
        throw SxException("The service's 'clientToken' isn't a text", UNIT, __LINE__);
    SxString token = elem.toString();
    const auto isControl = [](char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7f; };
    if (std::any_of(token.str().begin(), token.str().end(), isControl))
        throw SxException("The service's 'clientToken' holds a control character", UNIT, __LINE__);
    if (static_cast<int64>(token.str().size()) > ZqReportUpload::MAX_TOKEN) {
        throw SxException(SxString("The service's 'clientToken' has more than ") + ZqReportUpload::MAX_TOKEN +
                              " bytes",
                          UNIT, __LINE__);
    }
    return token;
}

void startNetwork() {
    const ZqNetioStatus status = zqNetioStart(1);
    if (status != 0) throw SxException(zqNetioStrError(status), UNIT, __LINE__);
}

/// On each way out, also where the start has failed.
struct NetworkEnd {
    NetworkEnd() = default;
    ~NetworkEnd() { zqNetioStop(); }
    NetworkEnd(const NetworkEnd&) = delete;
    NetworkEnd& operator=(const NetworkEnd&) = delete;
};

} // namespace

SxString ZqReportUpload::send(const SxString& url, const SxMap<SxString, SxString>& headers,
                              const std::function<SxString()>& document, bool update, const SxString& token,
                              const ZqHttpLimits& limits) {
    const NetworkEnd end;
    try {
        startNetwork();
        if (update) {
            requireOk(*ZqHttp::PATCH(url, headers, document(), limits));
            return token;
        }
        const SxPtr<ZqHttpResponse> response = ZqHttp::POST(url, headers, document(), limits);
        requireOk(*response);
        try {
            return tokenOf(response->toJSON(), token);
        } catch (const SxException& e) {
            throw e.tagged(REFUSED);
        }
    } catch (const SxException& e) {
        throw SxException(e, "Failed to upload runtime data.", UNIT, __LINE__);
    }
}
