#include "ZqNetAccess.h"

#include "SxException.h"
#include "SxFileIO.h"
#include "ZqUrlParts.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdlib>
#include <optional>
#include <string_view>

namespace {
constexpr const char* UNIT = "src/platform/net/ZqNetAccess";
/// The authorities of a whole system are a quarter of that.
constexpr int64 MAX_TRUST_FILE = 1 << 20;

/// The bytes of a text in base64; empty where it is none.
std::string decoded(std::string_view text) {
    constexpr std::string_view DIGITS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string bytes;
    unsigned bits = 0;
    int nBits = 0;
    for (const char c : text) {
        if (c == '=' || c == '\r' || c == '\n' || c == ' ') continue;
        const size_t digit = DIGITS.find(c);
        if (digit == std::string_view::npos) return {};
        bits = (bits << 6 | static_cast<unsigned>(digit)) & 0xFFFF;
        nBits += 6;
        if (nBits < 8) continue;
        nBits -= 8;
        bytes.push_back(static_cast<char>(bits >> nBits & 0xFF));
    }
    return bytes;
}

/// Whether the bytes are those of a whole sequence of ASN.1, as a certificate is, by its head. What it holds
/// libcurl looks at.
bool isWholeSequence(std::string_view bytes) {
    constexpr unsigned char SEQUENCE = 0x30, LONG = 0x80;
    const auto at = [&](size_t i) { return i < bytes.size() ? static_cast<unsigned char>(bytes[i]) : 0u; };
    size_t size = at(1), begin = 2;
    if (size > LONG) {
        const size_t n = size - LONG;
        if (n > sizeof(uint32)) return false;
        for (size = 0; begin < 2 + n; ++begin)
            size = size << 8 | at(begin);
    }
    return at(0) == SEQUENCE && size > 0 && bytes.size() >= begin + size;
}

/// Whether it holds certificates, and none that is cut off.
bool isPem(std::string_view text) {
    int nFound = 0;
    for (const std::string_view kind :
         {"CERTIFICATE-----", "TRUSTED CERTIFICATE-----", "X509 CERTIFICATE-----"}) {
        const std::string head = "-----BEGIN " + std::string(kind), tail = "-----END " + std::string(kind);
        for (size_t at = text.find(head); at != std::string_view::npos; at = text.find(head, at)) {
            at += head.size();
            const size_t end = text.find(tail, at);
            if (end == std::string_view::npos || !isWholeSequence(decoded(text.substr(at, end - at))))
                return false;
            at = end;
            ++nFound;
        }
    }
    return nFound > 0;
}

/// Nothing where it is none.
std::optional<ZqUrlParts> parse(const SxString& proxy) {
    std::string text = proxy.str();
    if (text.find("://") == std::string::npos) text = "http://" + text;
    const auto isBad = [](unsigned char c) { return c <= ' ' || c == 0x7F; };
    if (std::any_of(text.begin(), text.end(), isBad)) return {};
    return ZqUrlParts::of(text);
}
} // namespace

void ZqNetAccess::check() const {
    if (isProxyFault(proxy)) {
        throw SxException("'" + withoutPassword(proxy) + "' is no proxy, which is " + PROXY_TEXT, UNIT,
                          __LINE__);
    }
    if (trustFile.isEmpty()) return;
    SxString text;
    try {
        text = SxFileIO::readUtf8(trustFile, MAX_TRUST_FILE);
    } catch (const SxException& e) {
        throw SxException("Cannot read the certificates of '" + trustFile +
                              "': " + e.toString(SxException::ShowMessage, ": "),
                          UNIT, __LINE__);
    }
    if (!isPem(text.str()))
        throw SxException("'" + trustFile + "' isn't a file with certificates (PEM)", UNIT, __LINE__);
}

bool ZqNetAccess::isProxyFault(const SxString& proxy) {
    constexpr std::array<std::string_view, 6> SCHEMES = {"http",    "https",  "socks4",
                                                         "socks4a", "socks5", "socks5h"};
    if (proxy.isEmpty() || proxy == DIRECT) return false;
    const auto url = parse(proxy);
    return !url || std::find(SCHEMES.begin(), SCHEMES.end(), url->scheme) == SCHEMES.end() ||
           url->host.empty();
}

const char* ZqNetAccess::proxyVariable(const SxString& scheme) {
    // As libcurl has it: a server could set HTTP_PROXY by a header of a request to it.
    const bool isTls = scheme == "https";
    for (const char* name : {isTls ? "https_proxy" : "http_proxy", isTls ? "HTTPS_PROXY" : "http_proxy",
                             "all_proxy", "ALL_PROXY"}) {
        const char* value = std::getenv(name); // NOLINT(concurrency-mt-unsafe): nobody here sets any
        if (value && *value) return name;
    }
    return nullptr;
}

SxString ZqNetAccess::proxyFor(const SxString& url) const {
    if (!proxy.isEmpty() || spareProxy.isEmpty()) return proxy;
    const auto parts = ZqUrlParts::of(url.str());
    return parts && !proxyVariable(SxString(parts->scheme)) ? spareProxy : SxString();
}

SxString ZqNetAccess::withoutPassword(const SxString& proxy) {
    std::string text = proxy.str();
    const size_t scheme = text.find("://");
    const size_t begin = scheme == std::string::npos ? 0 : scheme + 3;
    const size_t at = text.substr(0, text.find_first_of("/?#", begin)).rfind('@');
    const size_t colon = text.find(':', begin);
    if (at != std::string::npos && at >= begin && colon < at) text.erase(colon, at - colon);
    return SxString(text);
}
