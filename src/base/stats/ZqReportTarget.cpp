#include "ZqReportTarget.h"

#include "SxException.h"
#include "ZqHttp.h"

#include <array>
#include <cctype>
#include <utility>

namespace {

constexpr const char* UNIT = "src/base/ZqReportTarget";
constexpr const char *ID = "{{ID}}", *TOKEN = "{{TOKEN}}";

bool isUnreserved(char c) {
    return std::isalnum(static_cast<unsigned char>(c)) != 0 ||
           std::string_view("-._~").find(c) != std::string_view::npos;
}

SxString percentEncoded(const SxString& text) {
    std::string result;
    for (const char c : text.str()) {
        if (isUnreserved(c)) {
            result += c;
        } else {
            result += SxString::sprintf("%%%02X", static_cast<unsigned>(static_cast<unsigned char>(c))).str();
        }
    }
    return SxString(std::move(result));
}

/// In one pass, since what is put in may look like a placeholder, too.
SxString filled(const SxString& text, const SxString& id, const SxString& token) {
    const std::array<std::pair<std::string_view, const SxString*>, 2> places{{{ID, &id}, {TOKEN, &token}}};
    const std::string_view from(text.str());
    std::string result;
    for (size_t i = 0; i < from.size();) {
        const auto* place = std::find_if(places.begin(), places.end(),
                                         [&](const auto& p) { return from.substr(i).starts_with(p.first); });
        if (place == places.end()) {
            result += from[i++];
        } else {
            result += place->second->str();
            i += place->first.size();
        }
    }
    return SxString(std::move(result));
}

SxString trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos) return "";
    return SxString(text.substr(first, text.find_last_not_of(" \t") + 1 - first));
}

SxMap<SxString, SxString> headersOf(const SxList<SxString>& lines) {
    SxMap<SxString, SxString> headers;
    SxList<SxString> names;
    for (const SxString& line : lines) {
        const size_t colon = line.str().find(':');
        if (colon == std::string::npos)
            throw SxException("A header must be given as NAME: VALUE", UNIT, __LINE__);
        const SxString name = trimmed(line.str().substr(0, colon));
        if (names.contains(name.toUpper()))
            throw SxException("The header '" + name.makeVisible() + "' is given twice", UNIT, __LINE__);
        names.append(name.toUpper());
        headers(name) = trimmed(line.str().substr(colon + 1));
    }
    return headers;
}

} // namespace

ZqReportTarget::ZqReportTarget(const SxString& url_, const SxList<SxString>& headers_)
    : url(url_),
      lines(headers_) {
    // No host has braces, so that this also finds placeholders in it, by which an answer of the service could
    // send the next report elsewhere.
    ZqHttp::check(url, headersOf(lines));
}

bool ZqReportTarget::needsToken() const {
    const auto names = [](const SxString& text) { return text.contains(TOKEN) > 0; };
    return names(url) || std::any_of(lines.begin(), lines.end(), names);
}

ZqReportTarget::Filled ZqReportTarget::fill(const SxString& id, const SxString& token, bool update) const {
    if (update && token.isEmpty() && needsToken()) {
        throw SxException(SxString("The service's address or a header needs ") + TOKEN +
                              ", and the service has given no token",
                          UNIT, __LINE__);
    }
    Filled result;
    result.url = filled(url, percentEncoded(id), percentEncoded(token));
    for (const auto& [name, value] : headersOf(lines))
        result.headers(name) = filled(value, id, token);
    ZqHttp::check(result.url, result.headers);
    return result;
}
