#include "ZqTomlFile.h"

#include "SxException.h"
#include "SxFileIO.h"

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
} // namespace

std::vector<ZqTomlFile::Entry> ZqTomlFile::read(const SxString& file, int64 maxBytes) {
    return parse(SxFileIO::readUtf8(file, maxBytes), file);
}

std::vector<ZqTomlFile::Entry> ZqTomlFile::parse(const SxString& text, const SxString& file) {
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
