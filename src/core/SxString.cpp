#include "SxString.h"

#include "SxException.h"
#include "SxList.h"

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ostream>

namespace {

constexpr const char* UNIT = "src/core/SxString";
constexpr char32_t REPLACEMENT = 0xFFFD;

bool isContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0) == 0x80;
}

/// Decodes the code point at `i` and moves `i` past it; a byte that begins none counts as REPLACEMENT.
char32_t decode(const std::string& text, size_t& i) {
    const auto lead = static_cast<unsigned char>(text[i++]);
    if (lead < 0x80) return lead;
    const size_t nMore = lead >= 0xF0 && lead < 0xF8 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC2 ? 1 : 0;
    if (nMore == 0 || lead >= 0xF8 || i + nMore > text.size()) return REPLACEMENT;
    char32_t code = lead & (0x3Fu >> nMore);
    for (size_t k = 0; k < nMore; ++k) {
        if (!isContinuation(text[i + k])) return REPLACEMENT;
        code = (code << 6) | (static_cast<unsigned char>(text[i + k]) & 0x3Fu);
    }
    const char32_t least[] = {0, 0x80, 0x800, 0x10000};
    if (code < least[nMore] || code > 0x10FFFF || (code >= 0xD800 && code < 0xE000)) return REPLACEMENT;
    i += nMore;
    return code;
}

void encode(char32_t code, std::string& text) {
    const auto put = [&text](char32_t byte) { text.push_back(static_cast<char>(byte)); };
    if (code < 0x80) {
        put(code);
    } else if (code < 0x800) {
        put(0xC0 | (code >> 6));
        put(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        put(0xE0 | (code >> 12));
        put(0x80 | ((code >> 6) & 0x3F));
        put(0x80 | (code & 0x3F));
    } else {
        put(0xF0 | (code >> 18));
        put(0x80 | ((code >> 12) & 0x3F));
        put(0x80 | ((code >> 6) & 0x3F));
        put(0x80 | (code & 0x3F));
    }
}

/// Characters that a terminal obeys instead of showing, or that turn the order of others around.
bool disturbs(char32_t c) {
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || (c >= 0x200E && c <= 0x200F) ||
           (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

SxString escape(char32_t c) {
    switch (c) {
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    default:
        return SxString::sprintf(c < 0x80 ? "\\x%02x" : "\\u%04x", static_cast<unsigned>(c));
    }
}

template<class Number>
bool parseNumber(const std::string& text, Number* value) {
    const char* first = text.data();
    const char* last = first + text.size();
    if (first != last && *first == '+' && last - first > 1 && first[1] != '-') ++first;
    const auto [end, error] = std::from_chars(first, last, *value);
    return error == std::errc() && end == last;
}

template<class Number>
Number toNumber(const SxString& text, bool* error) {
    Number value = 0;
    const bool ok = parseNumber(text.str(), &value);
    if (error) {
        *error = !ok;
    } else if (!ok) {
        throw SxException("'" + text + "' is not a whole number", UNIT, __LINE__);
    }
    return ok ? value : 0;
}

} // namespace

const SxString SxString::emptyString;

SxString::SxString(double value) {
    char buffer[32];
    const auto [end, error] = std::to_chars(buffer, buffer + sizeof buffer, value);
    text.assign(buffer, error == std::errc() ? end : buffer);
}

int64 SxString::getSize() const noexcept {
    if (!unicode) return static_cast<int64>(text.size());
    return std::count_if(text.begin(), text.end(), [](char c) { return !isContinuation(c); });
}

SxArray<char> SxString::utf8() const {
    SxArray<char> bytes(static_cast<int64>(text.size()) + 1);
    std::memcpy(bytes.data(), text.c_str(), text.size() + 1);
    return bytes;
}

SxArray<unsigned short> SxString::utf16() const {
    SxArray<unsigned short> units;
    units.reserve(static_cast<int64>(text.size()) + 1);
    for (size_t i = 0; i < text.size();) {
        const char32_t code = decode(text, i);
        if (code < 0x10000) {
            units.append(static_cast<unsigned short>(code));
        } else {
            units.append(static_cast<unsigned short>(0xD800 + ((code - 0x10000) >> 10)));
            units.append(static_cast<unsigned short>(0xDC00 + ((code - 0x10000) & 0x3FF)));
        }
    }
    units.append(static_cast<unsigned short>(0));
    return units;
}

SxString SxString::fromUtf16(const unsigned short* nulTerminated) {
    std::string bytes;
    for (const unsigned short* p = nulTerminated; *p; ++p) {
        char32_t code = *p;
        if (code >= 0xD800 && code < 0xDC00 && p[1] >= 0xDC00 && p[1] < 0xE000) {
            code = 0x10000 + ((code - 0xD800) << 10) + (*++p - 0xDC00u);
        } else if (code >= 0xD800 && code < 0xE000) {
            code = REPLACEMENT;
        }
        encode(code, bytes);
    }
    return SxString(std::move(bytes));
}

SxString SxString::fromAscii(const char* nulTerminated) {
    SxString result(nulTerminated);
    result.unicode = false;
    return result;
}

SxString& SxString::append(const SxString& other) {
    text += other.text;
    unicode = unicode || other.unicode;
    return *this;
}

std::ostream& operator<<(std::ostream& out, const SxString& s) {
    return out << s.text;
}

int64 SxString::contains(const char* part) const noexcept {
    const std::string_view what(part);
    if (what.empty()) return 0;
    int64 count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size()))
        ++count;
    return count;
}

int64 SxString::find(const SxString& part, int64 start) const noexcept {
    const size_t at = text.find(part.text, static_cast<size_t>(std::max<int64>(start, 0)));
    return at == std::string::npos ? -1 : static_cast<int64>(at);
}

SxString SxString::left(const SxString& s) const {
    SxString result(*this);
    const size_t at = text.find(s.text);
    if (at != std::string::npos) result.text.resize(at);
    return result;
}

SxString SxString::right(const SxString& s) const {
    SxString result;
    result.unicode = unicode;
    const size_t at = text.find(s.text);
    if (at != std::string::npos) result.text = text.substr(at + s.text.size());
    return result;
}

SxString SxString::substitute(const SxString& a, const SxString& b, int64 n) const {
    if (a.text.empty()) return *this;
    SxString result;
    result.unicode = unicode || b.unicode;
    size_t from = 0;
    for (size_t at = text.find(a.text); at != std::string::npos && n != 0;
         at = text.find(a.text, from), --n) {
        result.text.append(text, from, at - from);
        result.text += b.text;
        from = at + a.text.size();
    }
    result.text.append(text, from);
    return result;
}

SxList<SxString> SxString::tokenize(char sep, bool keepEmpty) const {
    SxList<SxString> parts;
    for (size_t from = 0; from <= text.size();) {
        const size_t at = std::min(text.find(sep, from), text.size());
        if (at > from || keepEmpty) {
            SxString part(std::string_view(text).substr(from, at - from));
            part.unicode = unicode;
            parts.append(std::move(part));
        }
        from = at + 1;
    }
    return parts;
}

SxString SxString::join(const SxList<SxString>& list, const SxString& sep) {
    SxString result;
    bool first = true;
    for (const SxString& part : list) {
        if (!first) result += sep;
        result += part;
        first = false;
    }
    return result;
}

SxString SxString::changeCase(bool upper) const {
    SxString result(*this);
    for (char& c : result.text) {
        if (upper && c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
        if (!upper && c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return result;
}

int SxString::toInt(bool* error) const {
    return toNumber<int>(*this, error);
}

int64 SxString::toInt64(bool* error) const {
    return toNumber<int64>(*this, error);
}

bool SxString::isInt64() const noexcept {
    int64 value = 0;
    return parseNumber(text, &value);
}

SxString SxString::makeVisible() const {
    std::string result;
    result.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const size_t start = i;
        const char32_t code = decode(text, i);
        // One byte that decodes as the replacement is none of a character; the replacement itself has three.
        if (code == REPLACEMENT && i - start == 1) {
            result += sprintf("\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(text[start]))).text;
        } else if (disturbs(code)) {
            result += escape(code).text;
        } else {
            result.append(text, start, i - start);
        }
    }
    return SxString(std::move(result));
}

SxString SxString::validUtf8() const {
    std::string result;
    for (size_t i = 0; i < text.size();)
        encode(decode(text, i), result);
    return SxString(std::move(result));
}

void SxString::resize(int64 n, bool keep) {
    if (!keep) text.clear();
    text.resize(static_cast<size_t>(n));
}

void SxString::updateNChars(int64 n) {
    size_t i = 0;
    while (i < text.size() && n > 0) {
        ++i;
        while (unicode && i < text.size() && isContinuation(text[i]))
            ++i;
        --n;
    }
    text.resize(i);
}

SxString SxString::sprintf(const char* format, ...) {
    std::va_list args, again;
    va_start(args, format);
    va_copy(again, args);
    const int n = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string result(static_cast<size_t>(std::max(n, 0)), '\0');
    std::vsnprintf(result.data(), result.size() + 1, format, again);
    va_end(again);
    return SxString(std::move(result));
}
