#pragma once

#include "SxArray.h"
#include "SxTypes.h"

#include <functional>
#include <iosfwd>
#include <string>
#include <string_view>

template<class T>
class SxList;

/// Text, held as UTF-8 or as plain bytes; `isUnicode` tells which, and with it what a character is. A value
/// type: copies are deep, moves are cheap. Not locked.
class SxString {
public:
    static const SxString emptyString;

    SxString() = default;
    SxString(const char* utf8) : text(utf8 ? utf8 : ""), unicode(true) {}
    SxString(std::string utf8) : text(std::move(utf8)), unicode(true) {}
    SxString(std::string_view utf8) : text(utf8), unicode(true) {}
    SxString(char c) : text(1, c) {}
    SxString(int value) : text(std::to_string(value)) {}
    SxString(unsigned value) : text(std::to_string(value)) {}
    SxString(long value) : text(std::to_string(value)) {}
    SxString(unsigned long value) : text(std::to_string(value)) {}
    SxString(long long value) : text(std::to_string(value)) {}
    SxString(unsigned long long value) : text(std::to_string(value)) {}
    /// The shortest decimal text that reads back as the same number.
    SxString(double value);
    SxString(bool) = delete;
    /// The bytes of `bytes`, as plain bytes.
    explicit SxString(const SxArray<char>& bytes) : text(bytes.begin(), bytes.end()) {}
    /// The two texts joined.
    SxString(const SxString& a, const SxString& b) : SxString(a) { append(b); }
    SxString(const char* a, const char* b) : SxString(a) { append(b); }

    /// Number of characters: code points of a Unicode text, else bytes.
    int64 getSize() const noexcept;
    bool isEmpty() const noexcept { return text.empty(); }
    bool isUnicode() const noexcept { return unicode; }
    void setUnicode(bool on = true) noexcept { unicode = on; }

    /// The bytes, terminated by NUL; valid until the text changes.
    const char* ascii() const noexcept { return text.c_str(); }
    const char* getElems() const noexcept { return text.c_str(); }
    const std::string& str() const noexcept { return text; }
    operator std::string_view() const noexcept { return text; }
    /// The text in UTF-8, terminated by NUL.
    SxArray<char> utf8() const;
    /// The text in UTF-16, terminated by NUL; bytes that aren't UTF-8 become U+FFFD.
    SxArray<unsigned short> utf16() const;
    static SxString fromUtf8(const char* nulTerminated) { return SxString(nulTerminated); }
    static SxString fromUtf16(const unsigned short* nulTerminated);
    static SxString fromAscii(const char* nulTerminated);

    SxString& append(const SxString& other);
    SxString& operator+=(const SxString& other) { return append(other); }
    friend SxString operator+(SxString a, const SxString& b) { return std::move(a.append(b)); }
    friend bool operator==(const SxString& a, const SxString& b) noexcept { return a.text == b.text; }
    friend bool operator==(const SxString& a, const char* b) noexcept { return a.text == b; }
    friend auto operator<=>(const SxString& a, const SxString& b) noexcept { return a.text <=> b.text; }
    friend std::ostream& operator<<(std::ostream& out, const SxString& s);

    /// Number of occurrences of `part` that don't overlap; 0 means none.
    int64 contains(const char* part) const noexcept;
    /// Byte index of the first `part` at or after byte `start`, or -1.
    int64 find(const SxString& part, int64 start = 0) const noexcept;
    bool startsWith(std::string_view part) const noexcept { return text.starts_with(part); }
    bool endsWith(std::string_view part) const noexcept { return text.ends_with(part); }
    /// The text in front of the first `s`; the whole text where `s` doesn't occur.
    SxString left(const SxString& s) const;
    /// The text after the first `s`; empty where `s` doesn't occur.
    SxString right(const SxString& s) const;
    /// A copy with the first `n` occurrences of `a` replaced by `b`; -1 replaces all.
    SxString substitute(const SxString& a, const SxString& b, int64 n = -1) const;
    /// The parts between occurrences of `sep`; empty ones only with `keepEmpty`.
    SxList<SxString> tokenize(char sep, bool keepEmpty = false) const;
    static SxString join(const SxList<SxString>& list, const SxString& sep);
    /// A copy with the ASCII letters in upper case, or in lower case.
    SxString toUpper() const { return changeCase(true); }
    SxString changeCase(bool upper) const;

    /// The whole text as a decimal number. On any other text `*error` is set, or, where `error` is null, an
    /// SxException is raised.
    int toInt(bool* error = nullptr) const;
    int64 toInt64(bool* error = nullptr) const;
    bool isInt64() const noexcept;

    /// A copy with control characters, bidirectional overrides and bytes that aren't UTF-8 written as
    /// escapes, so that a hostile name can't disturb a terminal or forge a line of a log.
    SxString makeVisible() const;
    /// A copy with bytes that aren't UTF-8 replaced by U+FFFD.
    SxString validUtf8() const;

    /// Sets the length to `n` bytes, padded with NUL; with `keep` the old bytes stay.
    void resize(int64 n, bool keep = false);
    /// Cuts the text to `n` characters.
    void updateNChars(int64 n);

    static SxString sprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));

private:
    std::string text;
    bool unicode = false;
};

template<>
struct std::hash<SxString> {
    size_t operator()(const SxString& s) const noexcept { return std::hash<std::string_view>()(s.str()); }
};
