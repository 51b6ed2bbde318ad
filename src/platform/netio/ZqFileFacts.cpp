#include "ZqFileFacts.h"

#include "SxException.h"
#include "ZqNetLink.h"

namespace {

constexpr const char* UNIT = "src/platform/netio/ZqFileFacts";

/// Scheme, host and port of an address.
std::string_view originOf(std::string_view url) {
    const size_t host = url.find("://");
    return host == std::string_view::npos ? url : url.substr(0, url.find('/', host + 3));
}

bool isSecret(const SxString& header) {
    const SxString name = header.left(":").changeCase(false);
    return name == "authorization" || name == "cookie";
}

} // namespace

uint64 ZqFileFacts::getSize() const {
    SxMutexBlock lock(&mutex);
    return size;
}

void ZqFileFacts::setHeaders(const SxArray<SxString>& headers_) {
    SxMutexBlock lock(&mutex);
    headers = headers_;
}

ZqFileFacts::Address ZqFileFacts::getAddress() const {
    SxMutexBlock lock(&mutex);
    Address address;
    address.url = finalUrl.isEmpty() ? url : finalUrl;
    const bool isElsewhere = originOf(address.url) != originOf(url);
    for (const SxString& header : headers) {
        // A line break would be a header of its own.
        const bool isWhole = header.str().find_first_of("\r\n") == std::string::npos;
        if (isWhole && !(isElsewhere && isSecret(header))) address.headers.append(header);
    }
    return address;
}

bool ZqFileFacts::forgetRedirect() {
    SxMutexBlock lock(&mutex);
    const bool had = !finalUrl.isEmpty();
    finalUrl = SxString();
    return had;
}

void ZqFileFacts::allowAbsence() {
    SxMutexBlock lock(&mutex);
    isOptional = true;
}

bool ZqFileFacts::mayBeAbsent() const {
    SxMutexBlock lock(&mutex);
    return isOptional;
}

void ZqFileFacts::forget() {
    SxMutexBlock lock(&mutex);
    validator = finalUrl = SxString();
    size = UNKNOWN;
}

void ZqFileFacts::checkStatus(const ZqTransfer::Response& response, int wanted) {
    const int status = response.status;
    const SxString text = (status == 407 ? "the proxy answers " : "the server answers ") + SxString(status);
    if (status == 408 || status == 429 || status >= 500) {
        throw SxException(ZqNetLink::UNREACHABLE, text, UNIT, __LINE__);
    }
    if (status >= 400 && forgetRedirect()) {
        throw SxException(ZqNetLink::UNREACHABLE, text + " where it redirected to", UNIT, __LINE__);
    }
    const bool isAbsent = status == 404 || status == 410 || (status == 403 && mayBeAbsent());
    if (isAbsent) throw SxException(ZqNetLink::NOT_FOUND, text, UNIT, __LINE__);
    if (status >= 400) throw SxException(ZqNetLink::REFUSED, text, UNIT, __LINE__);
    if (status == 200 && wanted == 206) {
        throw SxException(ZqNetLink::WRONG,
                          "The server answers a request for a range with the whole file (200)", UNIT,
                          __LINE__);
    }
    if (status != wanted) {
        throw SxException(ZqNetLink::WRONG, "The server answers " + SxString(status), UNIT, __LINE__);
    }
    if (!response.encoding.isEmpty() && !(response.encoding == "identity")) {
        throw SxException(ZqNetLink::WRONG,
                          "The server sends the file encoded (" + response.encoding.makeVisible() + ")", UNIT,
                          __LINE__);
    }
}

void ZqFileFacts::learn(const ZqTransfer::Response& response) {
    SxMutexBlock lock(&mutex);
    const SxString& seen = response.validator();
    if (!validator.isEmpty() && !seen.isEmpty() && !(seen == validator)) {
        throw SxException(ZqNetLink::CHANGED,
                          "The file has changed on the server since it was first asked for (" +
                              validator.makeVisible() + ", now " + seen.makeVisible() + ")",
                          UNIT, __LINE__);
    }
    if (response.total >= 0) {
        const auto total = static_cast<uint64>(response.total);
        if (size != UNKNOWN && total != size) {
            throw SxException(ZqNetLink::CHANGED,
                              "The file has changed on the server: it had " + SxString(size) +
                                  " bytes and has " + SxString(total),
                              UNIT, __LINE__);
        }
        if (expectedSize != UNKNOWN && total != expectedSize) {
            throw SxException(ZqNetLink::WRONG,
                              "The server's file has " + SxString(total) + " bytes instead of " +
                                  SxString(expectedSize),
                              UNIT, __LINE__);
        }
        size = total;
    }
    if (validator.isEmpty()) validator = seen;
    if (!(response.url == url)) finalUrl = response.url;
}
