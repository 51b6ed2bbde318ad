#include "ZqHttp.h"

#include "SxException.h"
#include "ZqNetFailure.h"
#include "ZqNetLink.h"
#include "ZqNetLoop.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <curl/curl.h>

namespace {

constexpr const char* UNIT = "src/platform/comm/ZqHttp";
constexpr int LOOK_MS = 20; ///< between two looks for a stop

template<auto CLOSE>
struct Closer {
    template<class T>
    void operator()(T* handle) const {
        CLOSE(handle);
    }
};
using EasyHandle = std::unique_ptr<CURL, Closer<curl_easy_cleanup>>;
using MultiHandle = std::unique_ptr<CURLM, Closer<curl_multi_cleanup>>;
using HeaderList = std::unique_ptr<curl_slist, Closer<curl_slist_free_all>>;
using UrlHandle = std::unique_ptr<CURLU, Closer<curl_url_cleanup>>;
using UrlPart = std::unique_ptr<char, Closer<curl_free>>;

template<class T>
T* require(T* handle) {
    if (!handle) throw SxException("Out of memory", UNIT, __LINE__);
    return handle;
}

bool isControl(char c) {
    return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

/// The characters of a header's name (RFC 9110, 5.6.2).
bool isTokenChar(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
           std::string_view("!#$%&'*+-.^_`|~").find(c) != std::string_view::npos;
}

bool hasControl(const SxString& text) {
    return std::any_of(text.str().begin(), text.str().end(), isControl);
}

void checkHeader(const SxString& name, const SxString& value) {
    if (name.isEmpty() || !std::all_of(name.str().begin(), name.str().end(), isTokenChar)) {
        // The name isn't shown: where a colon was forgotten it is the value.
        throw SxException("A header has no name, or one with characters that names can't have", UNIT,
                          __LINE__);
    }
    if (hasControl(value))
        throw SxException("The header '" + name + "' holds a control character", UNIT, __LINE__);
}

SxString partOf(CURLU* url, CURLUPart what) {
    char* text = nullptr;
    curl_url_get(url, what, &text, 0);
    return SxString(UrlPart(text).get());
}

/// Scheme, host and port, all that is shown of an address. Raises on what is none.
SxString hostOf(const SxString& url) {
    if (hasControl(url)) throw SxException("The address holds a control character", UNIT, __LINE__);
    const UrlHandle parsed(require(curl_url()));
    const CURLUcode code = curl_url_set(parsed.get(), CURLUPART_URL, url.ascii(), CURLU_NON_SUPPORT_SCHEME);
    const SxString scheme = partOf(parsed.get(), CURLUPART_SCHEME);
    if (code == CURLUE_BAD_SCHEME || (code == CURLUE_OK && scheme != "http" && scheme != "https"))
        throw SxException("The address must begin with http:// or https://", UNIT, __LINE__);
    if (code != CURLUE_OK)
        throw SxException("The address isn't valid: " + SxString(curl_url_strerror(code)), UNIT, __LINE__);
    const SxString port = partOf(parsed.get(), CURLUPART_PORT);
    const SxString host = scheme + "://" + partOf(parsed.get(), CURLUPART_HOST);
    return (port.isEmpty() ? host : host + ":" + port).makeVisible();
}

/// One request and what comes of it.
class Exchange {
public:
    Exchange(const char* method, const SxString& url, const ZqHttp::Headers& headers, const SxString& body,
             const ZqHttpLimits& limits_);
    ~Exchange() { curl_multi_remove_handle(multi.get(), easy.get()); }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    /// Raises where it fails or is stopped.
    SxPtr<ZqHttpResponse> run();

private:
    void setLimits();
    void setHeaders(const ZqHttp::Headers& headers);
    void addHeader(const SxString& line);
    CURLcode perform();
    SxException failure(CURLcode code);
    static size_t onHeader(char* bytes, size_t size, size_t n, void* user);
    static size_t onBody(char* bytes, size_t size, size_t n, void* user);

    const ZqHttpLimits& limits;
    const MultiHandle multi;
    HeaderList list;
    std::array<char, CURL_ERROR_SIZE> errorText{};
    const EasyHandle easy;
    std::string answer;
    int64 nHead = 0;
    bool isTooLong = false;
};

Exchange::Exchange(const char* method, const SxString& url, const ZqHttp::Headers& headers,
                   const SxString& body, const ZqHttpLimits& limits_)
    : limits(limits_),
      multi(require(curl_multi_init())),
      easy(require(curl_easy_init())) {
    CURL* handle = easy.get();
    curl_easy_setopt(handle, CURLOPT_URL, url.ascii());
    curl_easy_setopt(handle, CURLOPT_CUSTOMREQUEST, method);
    curl_easy_setopt(handle, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.str().size()));
    curl_easy_setopt(handle, CURLOPT_POSTFIELDS, body.ascii());
    setLimits();
    setHeaders(headers);
}

void Exchange::setLimits() {
    CURL* handle = easy.get();
    curl_easy_setopt(handle, CURLOPT_PROTOCOLS_STR, "http,https");
    curl_easy_setopt(handle, CURLOPT_FOLLOWLOCATION, 0L);
    curl_easy_setopt(handle, CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    curl_easy_setopt(handle, CURLOPT_USERAGENT, "tavrin/" TAVRIN_VERSION);
    curl_easy_setopt(handle, CURLOPT_NOSIGNAL, 1L);
    // A name that is being resolved mustn't hold up a stop.
    curl_easy_setopt(handle, CURLOPT_QUICK_EXIT, 1L);
    curl_easy_setopt(handle, CURLOPT_TIMEOUT_MS, static_cast<long>(limits.totalMs));
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, errorText.data());
    curl_easy_setopt(handle, CURLOPT_HEADERFUNCTION, &onHeader);
    curl_easy_setopt(handle, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(handle, CURLOPT_WRITEFUNCTION, &onBody);
    curl_easy_setopt(handle, CURLOPT_WRITEDATA, this);
    if (!limits.trustFile.isEmpty()) curl_easy_setopt(handle, CURLOPT_CAINFO, limits.trustFile.ascii());
    if (!limits.trustFolder.isEmpty()) curl_easy_setopt(handle, CURLOPT_CAPATH, limits.trustFolder.ascii());
}

void Exchange::setHeaders(const ZqHttp::Headers& headers) {
    bool hasType = false;
    for (const auto& [name, value] : headers) {
        hasType = hasType || name.toUpper() == "CONTENT-TYPE";
        // libcurl takes "Name:" as the wish to leave a header out.
        addHeader(value.isEmpty() ? name + ";" : name + ": " + value);
    }
    if (!hasType) addHeader("Content-Type: application/json");
    // A large body isn't announced first: some servers never say that they want it.
    addHeader("Expect:");
    curl_easy_setopt(easy.get(), CURLOPT_HTTPHEADER, list.get());
}

void Exchange::addHeader(const SxString& line) {
    curl_slist* longer = require(curl_slist_append(list.get(), line.ascii()));
    (void)list.release();
    list.reset(longer);
}

SxPtr<ZqHttpResponse> Exchange::run() {
    const CURLcode code = perform();
    if (code != CURLE_OK) throw failure(code);
    long status = 0;
    curl_easy_getinfo(easy.get(), CURLINFO_RESPONSE_CODE, &status);
    return SxPtr<ZqHttpResponse>::create(static_cast<int>(status), SxString(std::move(answer)));
}

CURLcode Exchange::perform() {
    curl_multi_add_handle(multi.get(), easy.get());
    for (int nRunning = 1; nRunning > 0;) {
        if (limits.stop && limits.stop())
            throw SxException(SxException::STOPPED, "The request was stopped", UNIT, __LINE__);
        CURLMcode code = curl_multi_perform(multi.get(), &nRunning);
        if (code == CURLM_OK && nRunning > 0)
            code = curl_multi_poll(multi.get(), nullptr, 0, LOOK_MS, nullptr);
        if (code != CURLM_OK) throw SxException(curl_multi_strerror(code), UNIT, __LINE__);
    }
    int nLeft = 0;
    const CURLMsg* message = curl_multi_info_read(multi.get(), &nLeft);
    return message ? message->data.result : CURLE_GOT_NOTHING;
}

SxException Exchange::failure(CURLcode code) {
    if (isTooLong) {
        return SxException(ZqNetLink::WRONG,
                           "The answer has more than " + SxString(limits.maxAnswer) + " bytes", UNIT,
                           __LINE__);
    }
    if (code == CURLE_OPERATION_TIMEDOUT) {
        const SxString seconds = SxString::sprintf("%g", static_cast<double>(limits.totalMs) / 1e3);
        return SxException(ZqNetLink::UNREACHABLE, "No whole answer within " + seconds + " s", UNIT,
                           __LINE__);
    }
    return ZqNetFailure::of(easy.get(), code, errorText.data(), limits.totalMs);
}

size_t Exchange::onHeader(char*, size_t size, size_t n, void* user) {
    auto* exchange = static_cast<Exchange*>(user);
    exchange->nHead += static_cast<int64>(size * n);
    exchange->isTooLong = exchange->nHead > exchange->limits.maxAnswer;
    return exchange->isTooLong ? 0 : size * n;
}

size_t Exchange::onBody(char* bytes, size_t size, size_t n, void* user) {
    auto* exchange = static_cast<Exchange*>(user);
    exchange->isTooLong =
        exchange->answer.size() + size * n > static_cast<size_t>(exchange->limits.maxAnswer);
    if (exchange->isTooLong) return 0;
    // Nothing may be raised through libcurl.
    try {
        exchange->answer.append(bytes, size * n);
    } catch (const std::exception&) {
        return 0;
    }
    return size * n;
}

SxPtr<ZqHttpResponse> send(const char* method, const SxString& url, const ZqHttp::Headers& headers,
                           const SxString& body, const ZqHttpLimits& limits) {
    ZqNetLoop::startLibrary();
    ZqHttp::check(url, headers);
    try {
        return Exchange(method, url, headers, body, limits).run();
    } catch (const SxException& e) {
        throw SxException(e, SxString(method) + " to '" + hostOf(url) + "' failed", UNIT, __LINE__);
    }
}

} // namespace

SxPtr<ZqHttpResponse> ZqHttp::POST(const SxString& url, const Headers& headers, const SxString& body,
                                   const ZqHttpLimits& limits) {
    return send("POST", url, headers, body, limits);
}

SxPtr<ZqHttpResponse> ZqHttp::PATCH(const SxString& url, const Headers& headers, const SxString& body,
                                    const ZqHttpLimits& limits) {
    return send("PATCH", url, headers, body, limits);
}

void ZqHttp::check(const SxString& url, const Headers& headers) {
    (void)hostOf(url);
    for (const auto& [name, value] : headers)
        checkHeader(name, value);
}
