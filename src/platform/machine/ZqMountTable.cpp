#include "ZqMountTable.h"

#include "ZqFactFiles.h"

#include <algorithm>
#include <unordered_set>

namespace {

/// Parent of the outermost mounts: theirs lie outside of what this process sees.
constexpr int64 NONE = -1;
/// Most mounts on the way to a path. A table in which a mount lies on itself would have a way without end.
constexpr size_t MAX_WAY = 1000;

/// The next field of a line, which it is taken from.
std::string_view takeField(std::string_view* line) {
    const size_t end = std::min(line->find(' '), line->size());
    const std::string_view field = line->substr(0, end);
    line->remove_prefix(std::min(end + 1, line->size()));
    return field;
}

/// Blanks and the like are written as a backslash and three octal digits.
std::string plain(std::string_view text) {
    const auto isOctal = [](char c) { return c >= '0' && c <= '7'; };
    std::string result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size() && isOctal(text[i + 1]) && isOctal(text[i + 2]) &&
            isOctal(text[i + 3])) {
            const int code = (text[i + 1] - '0') * 64 + (text[i + 2] - '0') * 8 + (text[i + 3] - '0');
            result += static_cast<char>(code);
            i += 3;
        } else {
            result += text[i];
        }
    }
    return result;
}

} // namespace

ZqMountTable::ZqMountTable(std::string_view text) {
    for (const std::string_view line : ZqFactFiles::lines(text)) {
        if (!parse(line)) ++nBad;
    }
    std::unordered_set<int64> ids;
    for (const Mount& mount : mounts)
        ids.insert(mount.id);
    for (size_t i = 0; i < mounts.size(); ++i) {
        Mount& mount = mounts[i];
        if (mount.parent == mount.id || !ids.contains(mount.parent)) mount.parent = NONE;
        places[{mount.parent, mount.at}] = i;
    }
}

bool ZqMountTable::parse(std::string_view line) {
    Mount mount;
    const auto id = ZqFactFiles::toNumber(takeField(&line));
    const auto parent = ZqFactFiles::toNumber(takeField(&line));
    if (!id || !parent) return false;
    mount.id = *id;
    mount.parent = *parent;
    mount.device = takeField(&line);
    mount.root = plain(takeField(&line));
    mount.at = plain(takeField(&line));
    const std::string_view flags = takeField(&line);
    mount.isReadOnly = flags == "ro" || flags.starts_with("ro,");
    std::string_view field = flags;
    while (!line.empty() && field != "-")
        field = takeField(&line);
    if (field != "-" || !mount.at.starts_with('/')) return false;
    mount.type = plain(takeField(&line));
    mount.source = plain(takeField(&line));
    mount.options = plain(takeField(&line));
    if (mount.type.empty()) return false;
    mounts.push_back(std::move(mount));
    return true;
}

std::vector<const ZqMountTable::Mount*> ZqMountTable::wayTo(std::string_view path) const {
    std::vector<const Mount*> way;
    int64 current = NONE;
    const auto enter = [&](std::string_view prefix) {
        auto found = places.find({current, std::string(prefix)});
        // Another one may lie on it.
        while (found != places.end() && way.size() < MAX_WAY) {
            way.push_back(&mounts[found->second]);
            current = way.back()->id;
            found = places.find({current, std::string(prefix)});
        }
    };
    enter("/");
    for (size_t end = 1; end < path.size();) {
        end = std::min(path.find('/', end), path.size());
        enter(path.substr(0, end));
        ++end;
    }
    return way;
}
