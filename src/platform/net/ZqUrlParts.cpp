#include "ZqUrlParts.h"

#include <curl/curl.h>

#include <memory>

namespace {

struct FreeUrl {
    void operator()(CURLU* url) const { curl_url_cleanup(url); }
};

std::string partOf(CURLU* url, CURLUPart what) {
    char* part = nullptr;
    if (curl_url_get(url, what, &part, CURLU_DEFAULT_PORT) != CURLUE_OK) return {};
    std::string text(part);
    curl_free(part);
    return text;
}

} // namespace

std::optional<ZqUrlParts> ZqUrlParts::of(const std::string& url) {
    const std::unique_ptr<CURLU, FreeUrl> parsed(curl_url());
    if (!parsed) return {};
    if (curl_url_set(parsed.get(), CURLUPART_URL, url.c_str(), CURLU_NON_SUPPORT_SCHEME) != CURLUE_OK)
        return {};
    return ZqUrlParts{partOf(parsed.get(), CURLUPART_SCHEME), partOf(parsed.get(), CURLUPART_HOST),
                      partOf(parsed.get(), CURLUPART_PORT)};
}
