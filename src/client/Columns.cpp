#include "Columns.h"

#include <clocale>
#include <cwchar>
#include <limits>
#include <string>

namespace {
constexpr std::string_view PART = ", ", MORE = "...";

/// Has the C library know UTF-8 while it lives, whatever the user's locale is. Where the system lacks the
/// locale, each byte counts as a column: too many, so nothing gets too wide.
class Utf8Locale {
public:
    Utf8Locale() {
        static const locale_t UTF8 = ::newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
        if (UTF8) before = ::uselocale(UTF8);
    }
    ~Utf8Locale() {
        if (before) ::uselocale(before);
    }
    Utf8Locale(const Utf8Locale&) = delete;
    Utf8Locale& operator=(const Utf8Locale&) = delete;

private:
    locale_t before = nullptr;
};

struct Fit {
    size_t nBytes = 0;
    int64 nColumns = 0;
};

/// As many of the first characters of `text` as have room in `width` columns.
Fit fit(const std::string& text, int64 width) {
    const Utf8Locale locale;
    Fit taken;
    std::mbstate_t state = {};
    while (taken.nBytes < text.size()) {
        wchar_t character = 0;
        const size_t n =
            std::mbrtowc(&character, text.data() + taken.nBytes, text.size() - taken.nBytes, &state);
        const bool isCharacter = n > 0 && n <= text.size();
        const int columns = isCharacter ? ::wcwidth(character) : 1;
        if (!isCharacter) state = {};
        if (taken.nColumns + std::max(columns, 0) > width) break;
        taken.nBytes += isCharacter ? n : 1;
        taken.nColumns += std::max(columns, 0);
    }
    return taken;
}

/// As many whole words as fit, or, where not even one does, characters.
std::string cutWords(const std::string& text, int64 width) {
    const int64 room = width - static_cast<int64>(MORE.size());
    const size_t end = text.rfind(' ', fit(text, room).nBytes);
    if (room <= 0 || end == std::string::npos || end == 0) return text.substr(0, fit(text, width).nBytes);
    return text.substr(0, end) + std::string(MORE);
}
} // namespace

int64 columnsOf(const SxString& text) {
    return fit(text.str(), std::numeric_limits<int64>::max()).nColumns;
}

SxString shortenTo(const SxString& text, int64 width) {
    std::string rest = text.str();
    while (fit(rest, width).nBytes < rest.size()) {
        const size_t comma = rest.rfind(PART);
        if (comma == std::string::npos) return cutWords(rest, width);
        rest.resize(comma);
    }
    return rest;
}
