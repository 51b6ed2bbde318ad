#include "ZqNetFailure.h"

#include "SxOs.h"
#include "ZqNetLink.h"
#include "ZqUrlParts.h"

#include <curl/curl.h>

#include <cstring>
#include <optional>
#include <string>

namespace {

constexpr const char* UNIT = "src/platform/net/ZqNetFailure";

long numberOf(CURL* easy, CURLINFO what) {
    long number = 0;
    curl_easy_getinfo(easy, what, &number);
    return number;
}

/// Something answers, but not as a server of HTTP does, or it leads to where no file can come from.
const char* tagOfProtocol(CURL* easy) {
    const long status = numberOf(easy, CURLINFO_RESPONSE_CODE);
    if (status >= 300 && status < 400) return ZqNetLink::REFUSED;
    return numberOf(easy, CURLINFO_LOCAL_PORT) > 0 ? ZqNetLink::WRONG : "";
}

/// What is wrong with the certificate of who answers: a tag, or empty where nothing is. libcurl tells a wrong
/// name by its text alone: the number is that of the chain of authorities.
const char* certificateTag(CURL* easy, CURLcode code, const char* detail) {
    constexpr long NOT_YET_VALID = 9, EXPIRED = 10; // as in OpenSSL's x509_vfy.h
    if (code != CURLE_PEER_FAILED_VERIFICATION && code != CURLE_SSL_ISSUER_ERROR &&
        code != CURLE_SSL_INVALIDCERTSTATUS)
        return "";
    const long result = numberOf(easy, CURLINFO_SSL_VERIFYRESULT);
    if (result == NOT_YET_VALID || result == EXPIRED) return ZqNetLink::MISDATED;
    const bool isOther = std::strstr(detail, "match target") || std::strstr(detail, "matches target");
    return isOther ? ZqNetLink::MISNAMED : ZqNetLink::UNTRUSTED;
}

SxString certificateText(const std::string& tag) {
    if (tag == ZqNetLink::MISDATED)
        return "its certificate has expired, or isn't valid yet by the clock of this machine";
    return tag == ZqNetLink::MISNAMED ? "its certificate is for another host than the address names"
                                      : "its certificate isn't trusted here";
}

/// Whoever answered the greeting of TLS said something else, so it speaks http, say. No code of libcurl tells
/// that from another failed handshake; its text does, by OpenSSL or by GnuTLS.
bool isWithoutTls(CURLcode code, const char* detail) {
    if (code != CURLE_SSL_CONNECT_ERROR) return false;
    return std::strstr(detail, "wrong version number") || std::strstr(detail, "unexpected TLS packet");
}

const char* tagOf(CURL* easy, CURLcode code) {
    switch (code) {
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_CONNECT:
    case CURLE_OPERATION_TIMEDOUT:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PROXY:
        return ZqNetLink::UNREACHABLE;
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_HTTP2:
    case CURLE_HTTP2_STREAM:
        return ZqNetLink::BROKEN;
    case CURLE_TOO_MANY_REDIRECTS:
        return ZqNetLink::REFUSED;
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_BAD_CONTENT_ENCODING:
        return ZqNetLink::WRONG;
    case CURLE_UNSUPPORTED_PROTOCOL:
    case CURLE_URL_MALFORMAT:
        return tagOfProtocol(easy);
    default:
        return "";
    }
}

/// A proxy that was asked for a way to the server, and gives none.
SxException failureOfProxy(CURL* easy, long status) {
    const char* host = nullptr;
    curl_easy_getinfo(easy, CURLINFO_PRIMARY_IP, &host);
    SxString proxy = "the proxy ";
    if (host && *host) proxy += SxString(host) + ":" + SxString(numberOf(easy, CURLINFO_PRIMARY_PORT)) + " ";
    const bool mayPass = status == 408 || status == 429 || status >= 500;
    return SxException(mayPass ? ZqNetLink::UNREACHABLE : ZqNetLink::REFUSED,
                       proxy + "answers " + SxString(status), UNIT, __LINE__);
}

/// "the proxy HOST:PORT: " where a connection to another machine than the address names has failed; empty
/// otherwise. libcurl tells the proxy that the environment names nowhere but in its text.
SxString proxyInFrontOf(CURL* easy, const char* detail) {
    std::string text(detail);
    const std::string begin = "Failed to connect to ", middle = " port ";
    const size_t port = text.find(middle);
    if (!text.starts_with(begin) || port == std::string::npos) return {};
    const std::string host = text.substr(begin.size(), port - begin.size());
    text.erase(0, port + middle.size());
    const std::string place = host + ":" + text.substr(0, text.find_first_not_of("0123456789"));
    const char* address = nullptr;
    curl_easy_getinfo(easy, CURLINFO_EFFECTIVE_URL, &address);
    const auto url = address ? ZqUrlParts::of(address) : std::nullopt;
    if (!url) return {};
    return place == url->host + ":" + url->port ? SxString() : SxString("the proxy " + place + ": ");
}

} // namespace

SxException ZqNetFailure::of(void* easy, int code, const char* detail, int64 connectMs) {
    const auto curlCode = static_cast<CURLcode>(code);
    const long proxyStatus = numberOf(easy, CURLINFO_HTTP_CONNECTCODE);
    if (proxyStatus >= 300) return failureOfProxy(easy, proxyStatus);
    const long error = numberOf(easy, CURLINFO_OS_ERRNO);
    SxString text(curl_easy_strerror(curlCode));
    if (code == CURLE_COULDNT_CONNECT && error != 0) {
        text = proxyInFrontOf(easy, detail) + SxOs::errorText(error);
    } else if (code == CURLE_OPERATION_TIMEDOUT) {
        text = "no connection within " + SxString::sprintf("%g", static_cast<double>(connectMs) / 1e3) + " s";
    } else if (code == CURLE_PARTIAL_FILE) {
        text = "the connection broke in the middle of a response";
    } else if (*detail != 0) {
        text = SxString(detail);
    }
    if (const std::string tag = certificateTag(easy, curlCode, detail); !tag.empty()) {
        const SxException cause(tag.c_str(), text.makeVisible(), UNIT, __LINE__);
        return SxException(cause, certificateText(tag), UNIT, __LINE__).tagged(ZqNetLink::REFUSED);
    }
    if (isWithoutTls(curlCode, detail)) {
        const SxException cause(text.makeVisible(), UNIT, __LINE__);
        return SxException(cause, "what answers there doesn't speak TLS; its address may begin with http://",
                           UNIT, __LINE__)
            .tagged(ZqNetLink::WRONG);
    }
    return SxException(tagOf(easy, curlCode), text.makeVisible(), UNIT, __LINE__);
}
