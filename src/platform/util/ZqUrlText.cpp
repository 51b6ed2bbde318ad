#include "ZqUrlText.h"

#include <algorithm>
#include <cctype>

SxString ZqUrlText::of(const SxString& url) {
    std::string text = url.str();
    const size_t tail = text.find_first_of("?#");
    const bool hasQuery = tail != std::string::npos && text[tail] == '?';
    if (tail != std::string::npos) text.erase(tail);
    const size_t scheme = text.find("://");
    const size_t host = scheme == std::string::npos ? 0 : scheme + 3;
    const size_t at = text.substr(0, text.find('/', host)).rfind('@');
    if (at != std::string::npos && at >= host) text.erase(host, at + 1 - host);
    return SxString(text + (hasQuery ? "?..." : "")).makeVisible();
}

bool ZqUrlText::isAddress(const SxString& place) {
    std::string begin = place.str().substr(0, 9);
    std::transform(begin.begin(), begin.end(), begin.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    // With a host.
    return (begin.starts_with("http://") && begin.size() > 7 && begin[7] != '/') ||
           (begin.starts_with("https://") && begin.size() > 8 && begin[8] != '/');
}
