#include "Output.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {
constexpr const char* UNIT = "src/client/Output";
constexpr size_t BUFFER_SIZE = 64 << 10;

/// Length of the UTF-8 sequence at the start of `text` and its code point; 0 where there is none.
size_t decode(std::string_view text, uint32* codePoint) {
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    const size_t n = lead < 0x80   ? 1
                     : lead < 0xC2 ? 0
                     : lead < 0xE0 ? 2
                     : lead < 0xF0 ? 3
                     : lead < 0xF5 ? 4
                                   : 0;
    if (n == 0 || n > text.size()) return 0;

    uint32 value = n == 1 ? lead : lead & (0x7Fu >> n);
    for (size_t i = 1; i < n; ++i) {
        if ((byte(i) & 0xC0) != 0x80) return 0;
        value = (value << 6) | (byte(i) & 0x3Fu);
    }
    constexpr std::array<uint32, 5> LEAST = {0, 0, 0x80, 0x800, 0x10000};
    if (value < LEAST[n] || value > 0x10FFFF || (value >= 0xD800 && value < 0xE000)) return 0;
    *codePoint = value;
    return n;
}

/// Characters that a terminal obeys instead of showing, or that turn the order of others around.
bool disturbs(uint32 c) {
    return c < 0x20 || (c >= 0x7F && c < 0xA0) || (c >= 0x200E && c <= 0x200F) ||
           (c >= 0x2028 && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

SxString escapeCode(uint32 c) {
    switch (c) {
    case '\n':
        return "\\n";
    case '\r':
        return "\\r";
    case '\t':
        return "\\t";
    default:
        return c < 0x80 ? SxString::sprintf("\\x%02x", c) : SxString::sprintf("\\u%04x", c);
    }
}

void writeError(const SxString& text) {
    // Nobody is left to be told where standard error itself fails.
    std::fwrite(text.ascii(), 1, text.str().size(), stderr);
    std::fflush(stderr);
}
} // namespace

Output::Output(const OutputMode& mode_) : mode(mode_) {
    if (!::isatty(STDOUT_FILENO)) std::setvbuf(stdout, nullptr, _IOFBF, BUFFER_SIZE);
}

void Output::text(const SxString& line) {
    if (!mode.quiet) finding(line);
}

void Output::finding(const SxString& line) {
    if (!mode.json) raw((makeVisible(line) + "\n").str());
}

void Output::object(const SxParserKit::SxSymbol& result) {
    if (mode.json) raw((result.toJson(2) + "\n").str());
}

void Output::listing(std::string_view lines) {
    if (mode.json || !mode.quiet) raw(lines);
}

void Output::raw(std::string_view bytes) {
    if (!closed) check(std::fwrite(bytes.data(), 1, bytes.size(), stdout) == bytes.size());
}

void Output::flush() {
    if (!closed) check(std::fflush(stdout) == 0);
}

void Output::check(bool written) {
    if (written) return;
    if (errno != EPIPE) {
        const SxException cause(std::strerror(errno), UNIT, __LINE__);
        throw SxException(cause, "Cannot write to standard output", UNIT, __LINE__);
    }
    closed = true;
}

void Output::failure(const SxException& e, bool places) {
    SxString text;
    for (const SxException* level = &e; level; level = level->getCause()) {
        text += level == &e ? "tavrin: " : "  ";
        text += makeVisible(level->getMessage());
        if (places) text += makeVisible(" (" + level->getFile() + ":" + level->getLine() + ")");
        text += "\n";
    }
    writeError(text);
}

void Output::failure(const SxString& sentence) {
    writeError("tavrin: " + makeVisible(sentence) + "\n");
}

SxString makeVisible(const SxString& text) {
    std::string_view rest = text;
    std::string result;
    while (!rest.empty()) {
        uint32 c = 0;
        const size_t n = decode(rest, &c);
        if (n == 0) {
            result += SxString::sprintf("\\x%02x", static_cast<unsigned char>(rest[0])).str();
        } else if (disturbs(c)) {
            result += escapeCode(c).str();
        } else {
            result += rest.substr(0, n);
        }
        rest.remove_prefix(n == 0 ? 1 : n);
    }
    return result;
}

SxString validUtf8(const SxString& text) {
    return SxString::fromUtf16(text.utf16().data());
}

SxString readableBytes(double bytes) {
    constexpr std::array<const char*, 5> UNITS = {"bytes", "KiB", "MiB", "GiB", "TiB"};
    size_t i = 0;
    for (; bytes >= 1000 && i + 1 < UNITS.size(); ++i)
        bytes /= 1024;
    return SxString::sprintf(i == 0 ? "%.0f %s" : "%.1f %s", bytes, UNITS[i]);
}

SxString exactBytes(uint64 bytes) {
    SxString text = SxString(bytes) + " bytes";
    if (bytes >= 1000) text += " (" + readableBytes(static_cast<double>(bytes)) + ")";
    return text;
}

