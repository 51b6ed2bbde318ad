#include "ZqTomlFile.h"

#include "SxException.h"
#include "SxFileIO.h"

// The library takes for granted that a name of a table begins as one may ("[;" doesn't), and tells it all the
// same where it isn't held to that: a broken file must neither end a program nor mislead the compiler.
#undef NDEBUG
#define TOML_ASSERT(expr) static_assert(true)
#include <toml++/toml.h>

#include <algorithm>

namespace {
constexpr const char* UNIT = "src/platform/util/ZqTomlFile";

ZqTomlFile::Entry entryOf(const toml::key& key, const toml::node& node) {
    ZqTomlFile::Entry entry;
    entry.key = SxString(std::string(key.str()));
    entry.line = key.source().begin.line;
    if (const auto* truth = node.as_boolean()) entry.value = truth->get();
    if (const auto* number = node.as_integer()) entry.value = int64{number->get()};
    if (const auto* text = node.as_string()) entry.value = SxString(text->get());
    return entry;
}

/// The library makes a table of each part of a key, without a limit, and destroys them one within the other:
/// so a long key takes all of the stack. Gives the first line with one; 0 for none.
int64 findDeepKey(std::string_view text) {
    constexpr int MOST_PARTS = 64;
    int64 line = 1;
    int nDots = 0;
    char quote = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\n') {
            ++line;
            nDots = 0;
            quote = 0;
        } else if (quote != 0) {
            if (c == quote) quote = 0;
            if (c == '\\' && quote == '"') ++i;
        } else if (c == '"' || c == '\'') {
            quote = c;
        } else if (c == '.' && ++nDots >= MOST_PARTS) {
            return line;
        }
    }
    return 0;
}

/// The library's test for white space has no answer for the code points from U+FB26 to U+FEFE (forms of
/// letters that people don't type), so whatever the compiler made of it would happen. Gives the first line
/// with one; 0 for none. `text` is UTF-8.
int64 findFormOfLetter(std::string_view text) {
    int64 line = 1;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\n') ++line;
        if (text[i] != '\xEF' || i + 2 >= text.size()) continue;
        const unsigned code = 0xF000u | (static_cast<unsigned char>(text[i + 1]) & 0x3Fu) << 6 |
                              (static_cast<unsigned char>(text[i + 2]) & 0x3Fu);
        if (code >= 0xFB26 && code < 0xFEFF) return line;
    }
    return 0;
}
} // namespace

std::vector<ZqTomlFile::Entry> ZqTomlFile::read(const SxString& file, int64 maxBytes) {
    return parse(SxFileIO::readUtf8(file, maxBytes), file);
}

std::vector<ZqTomlFile::Entry> ZqTomlFile::parse(const SxString& text, const SxString& file) {
    if (const int64 line = findDeepKey(text.str()); line != 0)
        refuse(file, line, "has a key of too many parts");
    if (const int64 line = findFormOfLetter(text.str()); line != 0)
        refuse(file, line, "has a letter that isn't taken here");
    std::vector<Entry> entries;
    try {
        const toml::table table = toml::parse(std::string_view(text.str()));
        for (const auto& [key, node] : table)
            entries.push_back(entryOf(key, node));
    } catch (const toml::parse_error& e) {
        refuse(file, e.source().begin.line, SxString(std::string(e.description())).makeVisible());
    }
    std::stable_sort(entries.begin(), entries.end(),
                     [](const Entry& a, const Entry& b) { return a.line < b.line; });
    return entries;
}

void ZqTomlFile::refuse(const SxString& file, int64 line, const SxString& why) {
    throw SxException("File '" + file + "', line " + SxString(line) + ": " + why, UNIT, __LINE__);
}
