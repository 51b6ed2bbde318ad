#include "ZqFactFiles.h"

#include "SxException.h"
#include "SxFileIO.h"
#include "SxOs.h"

#include <algorithm>
#include <charconv>

namespace {

constexpr const char* UNIT = "src/platform/machine/ZqFactFiles";
constexpr std::string_view BLANKS(" \t\r\n\0", 5);

} // namespace

ZqFactFiles::ZqFactFiles(const SxString& root_) : root(root_.str()) {
    if (!root.ends_with('/')) root += '/';
}

std::string ZqFactFiles::path(std::string_view name) const {
    if (name.starts_with('/')) name.remove_prefix(1);
    return root + std::string(name);
}

std::string ZqFactFiles::text(const std::string& name) const {
    constexpr size_t STEP = 65536;
    SxFileIO file(path(name), "rb");
    std::string all;
    for (int64 got = static_cast<int64>(STEP); got > 0;) {
        const size_t size = all.size();
        all.resize(size + STEP);
        got = file.readBuffer(all.data() + size, static_cast<int64>(STEP));
        all.resize(size + static_cast<size_t>(got));
        if (static_cast<int64>(all.size()) > MAX_BYTES) {
            throw SxException("File '" + SxString(path(name)) + "' is too large: at most " + MAX_BYTES +
                                  " bytes are taken",
                              UNIT, __LINE__);
        }
    }
    return all;
}

std::string ZqFactFiles::line(const std::string& name) const {
    try {
        const std::string all = text(name);
        return std::string(trim(std::string_view(all).substr(0, all.find('\n'))));
    } catch (const SxException&) {
        // Most of these files are there on some machines only, and each driver has its own.
        return {};
    }
}

std::optional<int64> ZqFactFiles::number(const std::string& name) const {
    return toNumber(line(name));
}

std::vector<std::string> ZqFactFiles::names(const std::string& folder) const {
    std::vector<std::string> found;
    if (SxOs::get().list(path(folder), &found) < 0) found.clear();
    std::sort(found.begin(), found.end(), [](const std::string& a, const std::string& b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    });
    return found;
}

std::string ZqFactFiles::target(const std::string& link) const {
    std::string target;
    if (SxOs::get().readLink(path(link), &target) < 0) return {};
    return target.substr(target.rfind('/') + 1);
}

bool ZqFactFiles::exists(const std::string& name) const {
    SxStat info;
    return SxOs::get().stat(path(name), &info) >= 0;
}

std::vector<std::string_view> ZqFactFiles::lines(std::string_view text) {
    std::vector<std::string_view> all;
    while (!text.empty()) {
        const size_t end = std::min(text.find('\n'), text.size());
        all.push_back(text.substr(0, end));
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    return all;
}

std::string_view ZqFactFiles::trim(std::string_view text) {
    const size_t from = text.find_first_not_of(BLANKS);
    if (from == std::string_view::npos) return {};
    return text.substr(from, text.find_last_not_of(BLANKS) + 1 - from);
}

std::optional<int64> ZqFactFiles::toNumber(std::string_view text) {
    int64 value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size() || value < 0) return std::nullopt;
    return value;
}
