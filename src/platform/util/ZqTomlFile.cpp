#include "ZqTomlFile.h"

#include "SxException.h"
#include "SxFileIO.h"

// The library takes for granted that a name of a table begins as one may ("[;" doesn't), and tells it all the
// same where it isn't held to that: a broken file must neither end a program nor mislead the compiler.
#undef NDEBUG
#define TOML_ASSERT(expr) static_assert(true)
#include <toml++/toml.h>

#include <algorithm>
#include <optional>
#include <string_view>

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

struct Fault {
    int64 line;
    const char* why;
};

/// What the library doesn't survive. It makes a table of each part of a key, without a limit, and destroys
/// them one within the other: so a long key takes all of the stack. Its test for white space has no answer
/// for many code points beyond ASCII, so whatever the compiler made of it would happen. Comments aren't
/// tested, and neither is a text in quotes right after "="; where other quotes stand, it may be elsewhere.
std::optional<Fault> findFault(std::string_view text) {
    constexpr int MOST_PARTS = 64;
    constexpr std::string_view BOM = "\xEF\xBB\xBF";
    Fault fault{1, nullptr};
    int nDots = 0;
    char quote = 0;
    bool isComment = false, isAtValue = false, hasValue = false;
    for (size_t i = text.starts_with(BOM) ? BOM.size() : 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '\n') {
            ++fault.line;
            nDots = 0;
            quote = 0;
            isComment = isAtValue = hasValue = false;
        } else if (isComment) {
            continue;
        } else if (quote != 0) {
            if (c == quote) quote = 0;
            if (c == '\\' && quote == '"' && text.substr(i + 1, 1) != "\n") ++i;
        } else if (c == '"' || c == '\'') {
            if (isAtValue) quote = c;
            hasValue = true; // no "=" after it is sure to begin one
        } else if (c == '#') {
            isComment = true;
        } else if (static_cast<unsigned char>(c) >= 0x80) {
            fault.why = "has a letter that isn't one of ASCII, and not in the quotes of a value";
        } else if (c == '.' && ++nDots >= MOST_PARTS) {
            fault.why = "has a key of too many parts";
        }
        if (fault.why) return fault;
        isAtValue = (c == '=' && !hasValue) || (isAtValue && (c == ' ' || c == '\t'));
        hasValue = hasValue || c == '=';
    }
    return {};
}
} // namespace

std::vector<ZqTomlFile::Entry> ZqTomlFile::read(const SxString& file, int64 maxBytes) {
    return parse(SxFileIO::readUtf8(file, maxBytes), file);
}

std::vector<ZqTomlFile::Entry> ZqTomlFile::parse(const SxString& text, const SxString& file) {
    if (const auto fault = findFault(text.str())) refuse(file, fault->line, fault->why);
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
