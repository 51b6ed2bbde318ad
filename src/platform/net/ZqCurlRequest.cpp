#include "ZqCurlRequest.h"

#include "SxOs.h"
#include "ZqNetFailure.h"
#include "ZqNetLink.h"

#include <curl/curl.h>

namespace {
constexpr const char* UNIT = "src/platform/net/ZqCurlRequest";
}

void ZqCurlRequest::CloseEasy::operator()(CURL* handle) const {
    curl_easy_cleanup(handle);
}

void ZqCurlRequest::FreeList::operator()(curl_slist* list) const {
    curl_slist_free_all(list);
}

ZqCurlRequest::ZqCurlRequest(const ZqTransfer::Request& request, const ZqNetSettings& settings,
                             const ZqNetPools::Place& place, long bufferSize)
    : easy(curl_easy_init()) {
    CURL* handle = easy.get();
    if (!handle) throw SxException("Out of memory", UNIT, __LINE__);
    curl_easy_setopt(handle, CURLOPT_URL, request.url.ascii());
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_REDIR_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(handle, CURLOPT_MAXREDIRS, 10L);
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "tavrin/" TAVRIN_VERSION);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    // A name that is being resolved mustn't hold up a stop.
    curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);
    curl_easy_setopt(handle, CURLOPT_TCP_KEEPALIVE, 1L);
    curl_easy_setopt(handle, CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(settings.connectMs));
    static_assert(ERROR_SIZE >= CURL_ERROR_SIZE);
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText.data());
    curl_easy_setopt(handle, CURLOPT_HTTP_VERSION,
                     static_cast<long>(place.isHttp2 ? CURL_HTTP_VERSION_2TLS : CURL_HTTP_VERSION_1_1));
    // To wait for a connection that may take several requests pays over HTTP/2 only, and else lasts until the
    // first request has ended.
    curl_easy_setopt(handle, CURLOPT_PIPEWAIT, place.mayShare ? 1L : 0L);
    curl_easy_setopt(handle, CURLOPT_BUFFERSIZE, bufferSize);
    if (request.fresh) curl_easy_setopt(handle, CURLOPT_FRESH_CONNECT, 1L);
    setAccess(settings, request.url);
    if (!request.range.isEmpty()) curl_easy_setopt(handle, CURLOPT_RANGE, request.range.ascii());
    setHeaders(request);
}

/// What isn't set here libcurl takes from the environment: `https_proxy`, `http_proxy`, `all_proxy`,
/// `no_proxy`.
void ZqCurlRequest::setAccess(const ZqNetSettings& settings, const SxString& url) {
    CURL* handle = easy.get();
    const ZqNetAccess& access = settings.access;
    if (!access.trustFile.isEmpty()) {
        const std::string file = SxOs::hostPath(access.trustFile);
        curl_easy_setopt(handle, CURLOPT_CAINFO, file.c_str());
        curl_easy_setopt(handle, CURLOPT_PROXY_CAINFO, file.c_str());
        // The system's folder would count beside the file otherwise.
        curl_easy_setopt(handle, CURLOPT_CAPATH, nullptr);
        curl_easy_setopt(handle, CURLOPT_PROXY_CAPATH, nullptr);
    }
    if (!settings.trustFolder.isEmpty()) {
        curl_easy_setopt(handle, CURLOPT_CAPATH, settings.trustFolder.ascii());
        curl_easy_setopt(handle, CURLOPT_PROXY_CAPATH, settings.trustFolder.ascii());
    }
    const SxString proxy = access.proxyFor(url);
    if (proxy.isEmpty()) return;
    curl_easy_setopt(handle, CURLOPT_PROXY, proxy == ZqNetAccess::DIRECT ? "" : proxy.ascii());
}

void ZqCurlRequest::setHeaders(const ZqTransfer::Request& request) {
    for (const SxString& header : request.headers) {
        curl_slist* longer = curl_slist_append(headers.get(), header.ascii());
        if (!longer) break;
        (void)headers.release();
        headers.reset(longer);
    }
    if (headers) curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, headers.get());
}

void ZqCurlRequest::setSinks(Sink header, Sink body, void* user) {
    curl_easy_setopt(easy.get(), CURLOPT_HEADERFUNCTION, header);
    curl_easy_setopt(easy.get(), CURLOPT_HEADERDATA, user);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEFUNCTION, body);
    curl_easy_setopt(easy.get(), CURLOPT_WRITEDATA, user);
}

void ZqCurlRequest::goOn() {
    curl_easy_pause(easy.get(), CURLPAUSE_CONT);
}

long ZqCurlRequest::getStatus() const {
    long status = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
    return status;
}

SxString ZqCurlRequest::getUrl() const {
    char* url = nullptr;
    curl_easy_getinfo(easy.get(), CURLINFO_EFFECTIVE_URL, &url);
    return SxString(url);
}

bool ZqCurlRequest::isHttp1() const {
    long version = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_HTTP_VERSION, &version);
    return version < CURL_HTTP_VERSION_2_0;
}

int64 ZqCurlRequest::getRoundTripUs() const {
    curl_off_t sent = 0, answered = 0;
    long nRedirects = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_PRETRANSFER_TIME_T, &sent);
    curl_easy_getinfo(easy.get(), CURLINFO_STARTTRANSFER_TIME_T, &answered);
    curl_easy_getinfo(easy.get(), CURLINFO_REDIRECT_COUNT, &nRedirects);
    return nRedirects == 0 && answered > sent ? answered - sent : -1;
}

SxException ZqCurlRequest::failure(int code, int64 connectMs) const {
    return ZqNetFailure::of(easy.get(), code, errorText.data(), connectMs);
}
