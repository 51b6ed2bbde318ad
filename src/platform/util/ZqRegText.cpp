#include "ZqRegText.h"

#include "SxException.h"

#include <charconv>

namespace {

constexpr const char* UNIT = "src/platform/util/ZqRegText";
/// A line of hex digits that has got longer than this goes on in the next.
constexpr size_t LINE_WIDTH = 76;
/// The letters that stand for control characters, by the character.
constexpr std::string_view ESCAPES = ".......abtnvfr.............e....";

[[noreturn]] void fail(const SxString& what, int line) {
    throw SxException(what, UNIT, line);
}

bool isDigit(char c, unsigned base) {
    if (c >= '0' && c <= '9') return static_cast<unsigned>(c - '0') < base;
    return base == 16 && ((c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'));
}

/// Reads a number of up to `most` digits at `*pos`; raises where there is none.
uint32 readDigits(std::string_view text, size_t* pos, size_t most, int base) {
    size_t end = *pos;
    while (end < text.size() && end - *pos < most && isDigit(text[end], static_cast<unsigned>(base)))
        ++end;
    uint32 value = 0;
    const auto [stop, error] = std::from_chars(text.data() + *pos, text.data() + end, value, base);
    if (end == *pos || error != std::errc() || stop != text.data() + end)
        fail("a number is missing or wrong", __LINE__);
    *pos = end;
    return value;
}

/// Reads what stands after a backslash.
char16_t readEscape(std::string_view text, size_t* pos) {
    if (*pos >= text.size() || text[*pos] == '\n') fail("an escape is cut short", __LINE__);
    const char c = text[*pos];
    if (c >= '0' && c <= '7') return static_cast<char16_t>(readDigits(text, pos, 3, 8));
    ++*pos;
    if (c == 'x') return static_cast<char16_t>(readDigits(text, pos, 4, 16));
    const size_t control = ESCAPES.find(c);
    if (c != '.' && control != std::string_view::npos) return static_cast<char16_t>(control);
    if (c == '\\' || c == '"' || c == '[' || c == ']') return static_cast<char16_t>(c);
    fail(SxString("unknown escape '\\") + c + "'", __LINE__);
}

void skipBlanks(std::string_view text, size_t* pos) {
    while (*pos < text.size() && (text[*pos] == ' ' || text[*pos] == '\t' || text[*pos] == '\r'))
        ++*pos;
}

void expectEnd(std::string_view text, size_t pos) {
    skipBlanks(text, &pos);
    if (pos < text.size() && text[pos] != '\n') fail("there is more after the value's end", __LINE__);
}

/// Skips blanks, and line ends after a backslash.
void skipToHex(std::string_view text, size_t* pos) {
    for (;;) {
        skipBlanks(text, pos);
        if (*pos >= text.size() || text[*pos] != '\\') return;
        ++*pos;
        skipBlanks(text, pos);
        if (*pos >= text.size() || text[*pos] != '\n') fail("a backslash within hex digits", __LINE__);
        ++*pos;
    }
}

std::string readHex(std::string_view text, size_t pos) {
    std::string bytes;
    skipToHex(text, &pos);
    if (pos >= text.size() || text[pos] == '\n') return bytes;
    for (;;) {
        bytes += static_cast<char>(readDigits(text, &pos, 2, 16));
        skipToHex(text, &pos);
        if (pos >= text.size() || text[pos] != ',') break;
        ++pos;
        skipToHex(text, &pos);
    }
    expectEnd(text, pos);
    return bytes;
}

std::string readText(std::string_view text, size_t pos) {
    ++pos;
    const std::u16string units = ZqRegText::readString(text, &pos, '"');
    expectEnd(text, pos);
    return ZqRegText::toBytes(units + u'\0');
}

std::string littleEndian(uint32 value) {
    std::string bytes;
    for (unsigned shift = 0; shift < 32; shift += 8)
        bytes += static_cast<char>(value >> shift & 0xFF);
    return bytes;
}

ZqRegData readData(std::string_view text) {
    constexpr std::string_view DWORD = "dword:", HEX = "hex", STR = "str(";
    if (text.starts_with('"')) return {ZqRegData::Text, readText(text, 0)};
    if (text.starts_with(DWORD)) {
        size_t pos = DWORD.size();
        const uint32 value = readDigits(text, &pos, 8, 16);
        expectEnd(text, pos);
        return {ZqRegData::Dword, littleEndian(value)};
    }
    const bool isText = text.starts_with(STR);
    if (!isText && !text.starts_with(HEX)) fail("unknown kind of data", __LINE__);
    size_t pos = HEX.size();
    uint32 type = ZqRegData::Binary;
    if (pos < text.size() && text[pos] == '(') {
        ++pos;
        type = readDigits(text, &pos, 8, 16);
        if (pos >= text.size() || text[pos++] != ')') fail("the kind of data has no end", __LINE__);
    }
    if (pos >= text.size() || text[pos++] != ':') fail("there is no colon after the kind of data", __LINE__);
    if (!isText) return {type, readHex(text, pos)};
    if (pos >= text.size() || text[pos] != '"') fail("a text has no quote", __LINE__);
    return {type, readText(text, pos)};
}

/// Whether the data can be written as text: whole units with a NUL at the end.
bool isTerminated(const std::string& bytes) {
    return bytes.size() >= 2 && bytes.size() % 2 == 0 && bytes[bytes.size() - 1] == '\0' &&
           bytes[bytes.size() - 2] == '\0';
}

void writeHex(const std::string& bytes, std::string* out) {
    size_t lineStart = 0;
    for (size_t i = 0; i < bytes.size(); ++i) {
        *out += SxString::sprintf("%02x", static_cast<unsigned>(static_cast<unsigned char>(bytes[i]))).str();
        if (i + 1 == bytes.size()) break;
        *out += ',';
        if (out->size() - lineStart > LINE_WIDTH) {
            *out += "\\\n";
            lineStart = out->size();
            *out += "  ";
        }
    }
}

} // namespace

std::u16string ZqRegText::readString(std::string_view text, size_t* pos, char close) {
    std::u16string result;
    while (*pos < text.size() && text[*pos] != '\n') {
        const char c = text[(*pos)++];
        if (c == close) return result;
        // Bytes beyond ASCII, which Wine never writes, it reads as Latin-1.
        result += c == '\\' ? readEscape(text, pos) : static_cast<char16_t>(static_cast<unsigned char>(c));
    }
    fail(SxString("a text has no closing '") + close + "'", __LINE__);
}

void ZqRegText::writeString(std::u16string_view text, std::string_view special, std::string* out) {
    const auto nextIs = [&](size_t i, unsigned base) {
        return i + 1 < text.size() && text[i + 1] < 0x80 && isDigit(static_cast<char>(text[i + 1]), base);
    };
    for (size_t i = 0; i < text.size(); ++i) {
        const unsigned unit = text[i];
        // All digits where the next character would be taken for one.
        if (unit > 0x7F) {
            *out += SxString::sprintf(nextIs(i, 16) ? "\\x%04x" : "\\x%x", unit).str();
        } else if (unit < ESCAPES.size() && ESCAPES[unit] != '.') {
            *out += {'\\', ESCAPES[unit]};
        } else if (unit < ESCAPES.size()) {
            *out += SxString::sprintf(nextIs(i, 8) ? "\\%03o" : "\\%o", unit).str();
        } else {
            const char c = static_cast<char>(unit);
            if (c == '\\' || special.find(c) != std::string_view::npos) *out += '\\';
            *out += c;
        }
    }
}

std::u16string ZqRegText::readKey(std::string_view line) {
    size_t pos = 1;
    return readString(line, &pos, ']');
}

std::u16string ZqRegText::readValue(std::string_view lines, ZqRegData* data) {
    size_t pos = 1;
    std::u16string name;
    if (lines.starts_with('"')) name = readString(lines, &pos, '"');
    skipBlanks(lines, &pos);
    if (pos >= lines.size() || lines[pos] != '=')
        fail("there is no equals sign after the value's name", __LINE__);
    ++pos;
    skipBlanks(lines, &pos);
    *data = readData(lines.substr(pos));
    return name;
}

std::string ZqRegText::writeValue(std::u16string_view name, const ZqRegData& data) {
    std::string out;
    if (name.empty()) {
        out = "@=";
    } else {
        out = "\"";
        writeString(name, "\"", &out);
        out += "\"=";
    }
    const bool isText = data.type == ZqRegData::Text || data.type == ZqRegData::ExpandText ||
                        data.type == ZqRegData::MultiText;
    if (isText && isTerminated(data.bytes)) {
        if (data.type != ZqRegData::Text) out += SxString::sprintf("str(%x):", data.type).str();
        out += '"';
        const std::u16string units = toUnits(data.bytes);
        writeString(std::u16string_view(units).substr(0, units.size() - 1), "\"", &out);
        out += '"';
    } else if (data.type == ZqRegData::Dword && data.bytes.size() == 4) {
        out += "dword:";
        for (size_t i = 4; i-- > 0;)
            out += SxString::sprintf("%02x", static_cast<unsigned>(static_cast<unsigned char>(data.bytes[i])))
                       .str();
    } else {
        out += data.type == ZqRegData::Binary ? "hex:" : SxString::sprintf("hex(%x):", data.type).str();
        writeHex(data.bytes, &out);
    }
    return out + "\n";
}

bool ZqRegText::isContinued(std::string_view line) {
    while (!line.empty() && (line.back() == '\n' || line.back() == '\r' || line.back() == ' '))
        line.remove_suffix(1);
    // A text ends in a quote.
    return line.ends_with('\\');
}

std::string ZqRegText::toBytes(std::u16string_view text) {
    std::string bytes;
    bytes.reserve(text.size() * 2);
    for (const char16_t unit : text) {
        bytes += static_cast<char>(unit & 0xFF);
        bytes += static_cast<char>(unit >> 8);
    }
    return bytes;
}

std::u16string ZqRegText::toUnits(std::string_view bytes) {
    std::u16string text;
    text.reserve(bytes.size() / 2);
    for (size_t i = 0; i + 1 < bytes.size(); i += 2) {
        const auto low = static_cast<unsigned char>(bytes[i]),
                   high = static_cast<unsigned char>(bytes[i + 1]);
        text += static_cast<char16_t>(low | high << 8);
    }
    return text;
}
