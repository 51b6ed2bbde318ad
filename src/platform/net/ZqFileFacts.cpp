#include "ZqFileFacts.h"

#include "SxException.h"

#include <algorithm>
#include <chrono>

namespace {

constexpr const char* UNIT = "src/platform/net/ZqFileFacts";
constexpr auto LOOK = std::chrono::milliseconds(20);

struct UrlParts {
    std::string_view scheme, user, rest; ///< "http://", "name:password@", "host/path"
};

UrlParts partsOf(std::string_view url) {
    UrlParts parts;
    const size_t host = url.find("://");
    if (host == std::string_view::npos) return {{}, {}, url};
    parts.scheme = url.substr(0, host + 3);
    parts.rest = url.substr(host + 3);
    const std::string_view authority = parts.rest.substr(0, parts.rest.find_first_of("/?#"));
    const size_t at = authority.rfind('@');
    if (at == std::string_view::npos) return parts;
    parts.user = parts.rest.substr(0, at + 1);
    parts.rest.remove_prefix(at + 1);
    return parts;
}

/// Scheme, host and port of an address.
std::string originOf(std::string_view url) {
    const UrlParts parts = partsOf(url);
    return std::string(parts.scheme) + std::string(parts.rest.substr(0, parts.rest.find_first_of("/?#")));
}

std::string_view pathOf(std::string_view url) {
    return url.substr(0, url.find_first_of("?#"));
}

bool isSecret(const SxString& header) {
    const SxString name = header.left(":").changeCase(false);
    return name == "authorization" || name == "cookie";
}

SxString nameOf(const SxString& eTag, const SxString& lastModified) {
    const SxString& name = eTag.isEmpty() ? lastModified : eTag;
    return name.isEmpty() ? "nothing that tells its version" : name.makeVisible();
}

} // namespace

uint64 ZqFileFacts::getSize() const {
    SxMutexBlock lock(&mutex);
    return size;
}

uint64 ZqFileFacts::getDueSize() const {
    SxMutexBlock lock(&mutex);
    return size == UNKNOWN ? expectedSize : size;
}

void ZqFileFacts::setHeaders(const SxArray<SxString>& headers_) {
    SxMutexBlock lock(&mutex);
    headers = headers_;
}

void ZqFileFacts::setSameTest(const SameTest& test) {
    SxMutexBlock lock(&mutex);
    isSame = test;
}

void ZqFileFacts::doubtFirst() {
    SxMutexBlock lock(&mutex);
    isFirstDoubted = true;
}

void ZqFileFacts::allowAbsence() {
    SxMutexBlock lock(&mutex);
    isOptional = true;
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
    // A redirect within the server doesn't repeat who asks.
    const UrlParts first = partsOf(url), last = partsOf(address.url);
    if (!isElsewhere && last.user.empty() && !first.user.empty()) {
        address.url = SxString(std::string(last.scheme) + std::string(first.user) + std::string(last.rest));
    }
    return address;
}

bool ZqFileFacts::leave(const SxString& asked) {
    if (asked == url) return false;
    SxMutexBlock lock(&mutex);
    finalUrl = SxString();
    return true;
}

void ZqFileFacts::forget() {
    SxMutexBlock lock(&mutex);
    versions.clear();
    doubts.clear();
    finalUrl = SxString();
    size = UNKNOWN;
}

void ZqFileFacts::checkStatus(const ZqTransfer::Response& response, const SxString& asked) {
    const int status = response.status;
    const bool isOfProxy = status == 407 || (response.isOfProxy && status >= 400);
    SxString text = (isOfProxy ? "the proxy answers " : "the server answers ") + SxString(status);
    if (status == 200 || status == 206) {
        if (response.encoding.isEmpty() || response.encoding == "identity") return;
        // Some servers label a file that holds such bytes with what it holds.
        if (response.encoding == "zstd" && pathOf(url).ends_with(".zst")) return;
        throw SxException(ZqNetLink::WRONG,
                          "The server sends the file encoded (" + response.encoding.makeVisible() +
                              "); it must give it as it is, without a Content-Encoding",
                          UNIT, __LINE__);
    }
    const bool isElsewhere = leave(asked);
    if (isElsewhere) text += " where it redirected to";
    if (status == 408 || status == 429 || status >= 500 || (isElsewhere && status >= 400)) {
        throw SxException(ZqNetLink::UNREACHABLE, text, UNIT, __LINE__);
    }
    if (status == 404 || status == 410) throw SxException(ZqNetLink::NOT_FOUND, text, UNIT, __LINE__);
    if (status == 401) {
        const SxException cause(ZqNetLink::UNAUTHORIZED, text, UNIT, __LINE__);
        throw SxException(cause, "the server wants to know who asks", UNIT, __LINE__)
            .tagged(ZqNetLink::REFUSED);
    }
    const SxException refusal(status >= 400 ? ZqNetLink::REFUSED : ZqNetLink::WRONG, text, UNIT, __LINE__);
    const SxMutexBlock lock(&mutex);
    if (status == 403 && isOptional && !isOfProxy) {
        throw SxException(refusal, text + ", and may not have the file", UNIT, __LINE__)
            .tagged(ZqNetLink::NOT_FOUND);
    }
    throw SxException(refusal);
}

void ZqFileFacts::raiseDoubt(Doubt doubt, const char* tag) {
    const SxString text = doubt.text;
    if (!isSame) throw SxException(tag, text, UNIT, __LINE__);
    if (doubts.size() < MAX_VERSIONS) doubts.push_back(std::move(doubt));
    throw SxException(DOUBTFUL, text, UNIT, __LINE__);
}

void ZqFileFacts::checkSize(uint64 total) {
    if (size != UNKNOWN && total != size) {
        raiseDoubt({{},
                    "The file has changed on the server: it had " + SxString(size) + " bytes and has " +
                        SxString(total),
                    true},
                   ZqNetLink::CHANGED);
    }
    if (expectedSize != UNKNOWN && total != expectedSize) {
        raiseDoubt(
            {{},
             "The server's file has " + SxString(total) + " bytes instead of " + SxString(expectedSize),
             true},
            ZqNetLink::WRONG);
    }
    size = total;
}

void ZqFileFacts::noteForm(bool isWhole) {
    const SxMutexBlock block(&mutex);
    (isWhole ? hasGivenWhole : hasGivenRange) = true;
}

bool ZqFileFacts::mayLackRanges() const {
    const SxMutexBlock block(&mutex);
    return hasGivenWhole && !hasGivenRange;
}

bool ZqFileFacts::hasValidator() const {
    const SxMutexBlock block(&mutex);
    return std::any_of(versions.begin(), versions.end(), [](const Version& each) {
        return !each.eTag.isEmpty() || !each.lastModified.isEmpty();
    });
}

void ZqFileFacts::learnSize(uint64 total) {
    SxMutexBlock lock(&mutex);
    checkSize(total);
}

const ZqFileFacts::Version* ZqFileFacts::find(const Version& seen, bool* isComparable) const {
    for (const Version& known : versions) {
        const bool hasTags = !known.eTag.isEmpty() && !seen.eTag.isEmpty();
        const bool hasTimes = !known.lastModified.isEmpty() && !seen.lastModified.isEmpty();
        if (hasTags || hasTimes) *isComparable = true;
        const bool isEqual = hasTags    ? known.eTag == seen.eTag
                             : hasTimes ? known.lastModified == seen.lastModified
                                        : known == seen;
        if (isEqual) return &known;
    }
    return nullptr;
}

int64 ZqFileFacts::accept(Version version, int64 number) {
    version.number = number;
    isFirstDoubted = false;
    if (std::find(versions.begin(), versions.end(), version) == versions.end()) {
        if (versions.size() >= MAX_VERSIONS) versions.erase(versions.begin());
        versions.push_back(version);
    }
    return number;
}

int64 ZqFileFacts::learn(const ZqTransfer::Response& response, bool isVouched) {
    SxString eTag = response.eTag;
    if (eTag.startsWith("W/")) eTag = SxString(eTag.str().substr(2));
    const Version seen{eTag, response.lastModified, 0};
    SxMutexBlock lock(&mutex);
    if (response.total >= 0) checkSize(static_cast<uint64>(response.total));
    bool isComparable = false;
    const Version* known = find(seen, &isComparable);
    if (versions.empty() && isFirstDoubted && !isVouched) {
        raiseDoubt({seen, "It isn't known whether the server has the same file still", false},
                   ZqNetLink::CHANGED);
    }
    if (!known && !versions.empty() && !isVouched && (isComparable || isSame)) {
        const Version& first = versions.front();
        raiseDoubt({seen,
                    "The file has changed on the server since it was first asked for (" +
                        nameOf(first.eTag, first.lastModified) + ", now " +
                        nameOf(seen.eTag, seen.lastModified) + ")",
                    false},
                   ZqNetLink::CHANGED);
    }
    if (!(response.url == url)) finalUrl = response.url;
    return accept(seen, known ? known->number : nVersions++);
}

bool ZqFileFacts::settle(const ZqStopTest& stop) {
    std::vector<Doubt> open;
    SameTest test;
    {
        SxMutexBlock lock(&mutex);
        while (isSettling) {
            if (stop && stop()) throw SxException(SxException::STOPPED, "Stopped", UNIT, __LINE__);
            settled.wait_for(mutex, LOOK);
        }
        if (doubts.empty()) return false;
        isSettling = true;
        open.swap(doubts);
        test = isSame;
    }
    const auto end = [&](bool isBelieved) {
        {
            SxMutexBlock lock(&mutex);
            isSettling = false;
            for (const Doubt& doubt : open) {
                if (isBelieved && !doubt.isOfSize) accept(doubt.version, nVersions++);
            }
        }
        settled.notify_all();
    };
    bool isStillSame = false;
    try {
        isStillSame = test(stop);
    } catch (const SxException& e) {
        end(false);
        const bool mayPass = ZqNetLink::isAway(e);
        if (mayPass || e.hasTag(SxException::STOPPED)) throw;
        throw SxException(e, open.front().text, UNIT, __LINE__);
    } catch (const std::exception&) {
        // As for want of memory. Others wait for the end of the test.
        end(false);
        throw;
    }
    end(isStillSame);
    for (const Doubt& doubt : open) {
        if (!isStillSame) throw SxException(ZqNetLink::CHANGED, doubt.text, UNIT, __LINE__);
        if (doubt.isOfSize) throw SxException(ZqNetLink::WRONG, doubt.text, UNIT, __LINE__);
    }
    return true;
}
