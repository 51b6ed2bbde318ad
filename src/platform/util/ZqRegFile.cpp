#include "ZqRegFile.h"

#include "SxClock.h"
#include "SxException.h"
#include "ZqFold.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/platform/util/ZqRegFile";
constexpr std::string_view HEADER = "WINE REGISTRY Version 2";
constexpr std::string_view ARCH_BEGIN = "#arch=", LINK = "#link";
constexpr const char16_t* LINK_NAME = u"SymbolicLinkValue";
/// More links one after the other count as a circle.
constexpr int MAX_LINKS = 16;
constexpr int64 MS_1601_TO_1970 = 11'644'473'600'000;

/// The key as the index has it. The separator is below all characters, so that the order is that of the tree,
/// a key before its sub-keys.
std::u16string indexKey(const ZqRegFile::Key& key) {
    std::u16string result;
    for (const std::u16string& part : key) {
        if (!result.empty()) result += u'\0';
        result += zqFold(part);
    }
    return result;
}

ZqRegFile::Key splitKey(std::u16string_view path) {
    ZqRegFile::Key key;
    while (!path.empty()) {
        const size_t end = std::min(path.find(u'\\'), path.size());
        if (end > 0) key.emplace_back(path.substr(0, end));
        path.remove_prefix(std::min(end + 1, path.size()));
    }
    return key;
}

bool isBelow(std::u16string_view folded, std::u16string_view above) {
    return folded.size() > above.size() && folded.starts_with(above) &&
           (above.empty() || folded[above.size()] == u'\0');
}

std::string_view withoutLineEnd(std::string_view line) {
    while (line.ends_with('\n') || line.ends_with('\r'))
        line.remove_suffix(1);
    return line;
}

bool isBlank(std::string_view line) {
    return withoutLineEnd(line).empty();
}

/// The lines that begin the section of a new key.
std::string heading(const ZqRegFile::Key& key) {
    std::string line = "[";
    for (const std::u16string& part : key) {
        if (line.size() > 1) line += "\\\\";
        ZqRegText::writeString(part, "[]", &line);
    }
    const int64 nowMs = SxClock::get().systemMs();
    const uint64 ticks = static_cast<uint64>(nowMs + MS_1601_TO_1970) * 10'000;
    return line + SxString::sprintf("] %jd\n#time=%jx\n", intmax_t{nowMs / 1000}, uintmax_t{ticks}).str();
}

} // namespace

ZqRegFile::ZqRegFile(const SxString& root, const SxString& arch) {
    load(std::string(HEADER) + "\n;; All keys relative to " + root.str() + "\n\n" + arch.str() + "\n");
}

ZqRegFile ZqRegFile::parse(std::string text, const SxString& path) {
    ZqRegFile file;
    try {
        file.load(std::move(text));
    } catch (const SxException& e) {
        throw SxException(e, "The registry file '" + path + "' is damaged", UNIT, __LINE__);
    }
    return file;
}

ZqRegFile ZqRegFile::parseExport(std::string_view bytes, const SxString& path) {
    // The same format but for the characters, and for single backslashes between the parts of a key.
    const std::u16string units = ZqRegText::toUnits(bytes);
    std::string text = std::string(HEADER) + "\n";
    size_t begin = std::min(units.find(u'\n'), units.size());
    while (++begin < units.size()) {
        const size_t end = std::min(units.find(u'\n', begin), units.size());
        std::u16string_view line(units.data() + begin, end - begin);
        if (line.ends_with(u'\r')) line.remove_suffix(1);
        if (line.starts_with(u'[') && line.ends_with(u']')) {
            text += '[';
            ZqRegText::writeString(line.substr(1, line.size() - 2), "[]", &text);
            text += ']';
        } else {
            for (const char16_t unit : line)
                text += unit < 0x80 ? std::string(1, static_cast<char>(unit))
                                    : SxString::sprintf("\\x%04x", unsigned{unit}).str();
        }
        text += '\n';
        begin = end;
    }
    return parse(std::move(text), path);
}

std::string_view ZqRegFile::keep(std::string text) {
    return texts.emplace_back(std::move(text));
}

void ZqRegFile::load(std::string newText) {
    const std::string_view text = keep(std::move(newText));
    if (withoutLineEnd(text.substr(0, std::min(text.find('\n'), text.size()))) != HEADER) {
        throw SxException("it doesn't begin with '" + SxString(HEADER) + "'", UNIT, __LINE__);
    }
    sections.emplace_back();
    int64 nLines = 0;
    for (size_t pos = 0; pos < text.size();) {
        const size_t begin = pos;
        try {
            takeLine(text, &pos);
        } catch (const SxException& e) {
            throw SxException(e, SxString("line ") + (nLines + 1), UNIT, __LINE__);
        }
        const std::string_view taken = text.substr(begin, pos - begin);
        nLines += std::count(taken.begin(), taken.end(), '\n');
    }
}

/// Takes the line at `*pos` with those that continue it, and moves past them.
void ZqRegFile::takeLine(std::string_view text, size_t* pos) {
    const size_t lineBegin = *pos;
    size_t end = lineBegin;
    const auto takeOne = [&] {
        const size_t from = end;
        end = text.find('\n', from);
        if (end == std::string_view::npos) throw SxException("the file is cut short", UNIT, __LINE__);
        ++end;
        const std::string_view one = text.substr(from, end - from);
        if (one.find('\0') != std::string_view::npos) {
            throw SxException("there is a NUL", UNIT, __LINE__);
        }
        return one;
    };
    std::string_view raw = takeOne();
    Line line;
    if (raw.starts_with('[')) {
        const Key key = splitKey(ZqRegText::readKey(raw));
        sections.emplace_back();
        index[indexKey(key)].push_back(std::prev(sections.end()));
    } else if (raw.starts_with('"') || raw.starts_with('@')) {
        if (index.empty()) throw SxException("a value stands before the first key", UNIT, __LINE__);
        for (std::string_view last = raw; ZqRegText::isContinued(last);)
            last = takeOne();
        raw = text.substr(lineBegin, end - lineBegin);
        ZqRegData data;
        line.isValue = true;
        line.name = zqFold(ZqRegText::readValue(raw, &data));
    } else if (withoutLineEnd(raw) == LINK) {
        sections.back().isLink = true;
        ++nLinks;
    }
    line.raw = raw;
    sections.back().lines.push_back(std::move(line));
    *pos = end;
}

const std::vector<ZqRegFile::Sections::iterator>* ZqRegFile::sectionsOf(const Key& key) const {
    const auto found = index.find(indexKey(key));
    return found == index.end() ? nullptr : &found->second;
}

ZqRegFile::Key ZqRegFile::resolve(Key key) const {
    if (nLinks == 0) return key;
    int nFollowed = 0;
    for (size_t n = 1; n <= key.size();) {
        const Key above(key.begin(), key.begin() + static_cast<std::ptrdiff_t>(n));
        const auto* found = sectionsOf(above);
        const auto target =
            found && found->back()->isLink ? find(above, LINK_NAME) : std::optional<ZqRegData>();
        if (!target) {
            ++n;
            continue;
        }
        // "\Registry\Machine\Software\Classes": the file's root is the second part.
        std::u16string path = ZqRegText::toUnits(target->bytes);
        path.resize(std::min(path.find(u'\0'), path.size()));
        const Key absolute = splitKey(path);
        if (++nFollowed > MAX_LINKS || absolute.size() < 3 || zqFold(absolute[1]) != u"MACHINE") {
            throw SxException("The link at the key '" + zqFromUtf16(above.back()) +
                                  "' of the registry leads nowhere",
                              UNIT, __LINE__);
        }
        Key next(absolute.begin() + 2, absolute.end());
        next.insert(next.end(), key.begin() + static_cast<std::ptrdiff_t>(n), key.end());
        key = std::move(next);
        n = 1;
    }
    return key;
}

bool ZqRegFile::hasKey(const Key& key) const {
    const std::u16string folded = indexKey(key);
    const auto found = index.lower_bound(folded);
    return key.empty() || (found != index.end() && (found->first == folded || isBelow(found->first, folded)));
}

bool ZqRegFile::isEmpty(const Key& key) const {
    const std::u16string folded = indexKey(key);
    const auto next = index.upper_bound(folded);
    if (next != index.end() && isBelow(next->first, folded)) return false;
    const auto* found = sectionsOf(key);
    return !found || std::none_of(found->begin(), found->end(), [](const auto& section) {
        return std::any_of(section->lines.begin(), section->lines.end(),
                           [](const Line& line) { return line.isValue; });
    });
}

std::optional<ZqRegData> ZqRegFile::find(const Key& key, const std::u16string& name) const {
    std::optional<ZqRegData> result;
    const auto* found = sectionsOf(key);
    if (!found) return result;
    const std::u16string folded = zqFold(name);
    for (const auto& section : *found) {
        for (const Line& line : section->lines) {
            // Of several the last counts, as for Wine.
            if (line.isValue && line.name == folded) ZqRegText::readValue(line.raw, &result.emplace());
        }
    }
    return result;
}

/// Begins the section of a new key, in the place that the order asks for.
void ZqRegFile::begin(const Key& key, const std::u16string& folded) {
    const auto next = index.upper_bound(folded);
    const auto place = next == index.end() ? sections.end() : next->second.front();
    std::vector<Line>& above = std::prev(place)->lines;
    if (!isBlank(above.back().raw)) above.push_back({"\n", false, {}});
    const auto section = sections.emplace(place);
    section->lines.push_back({keep(heading(key)), false, {}});
    if (place != sections.end()) section->lines.push_back({"\n", false, {}});
    index[folded].push_back(section);
}

void ZqRegFile::set(const Key& key, const std::u16string& name, const ZqRegData& data) {
    if (find(key, name) == data) return;
    const std::u16string folded = indexKey(key);
    if (!index.contains(folded)) begin(key, folded);
    const std::vector<Sections::iterator>& found = index[folded];
    Line added{keep(ZqRegText::writeValue(name, data)), true, zqFold(name)};
    Line* old = nullptr;
    for (const auto& section : found) {
        for (Line& line : section->lines) {
            if (line.isValue && line.name == added.name) old = &line;
        }
    }
    if (old) {
        // A value that is there keeps its name, in its case, as on Windows.
        ZqRegData former;
        added.raw = keep(ZqRegText::writeValue(ZqRegText::readValue(old->raw, &former), data));
        *old = std::move(added);
        return;
    }
    std::vector<Line>& lines = found.back()->lines;
    auto place = std::find_if(lines.begin(), lines.end(),
                              [&](const Line& line) { return line.isValue && line.name > added.name; });
    if (place == lines.end()) {
        // Blank lines at the end stay there; the first line is the key's.
        while (isBlank(std::prev(place)->raw))
            --place;
    }
    lines.insert(place, std::move(added));
}

bool ZqRegFile::remove(const Key& key, const std::u16string& name) {
    const auto* found = sectionsOf(key);
    if (!found) return false;
    const std::u16string folded = zqFold(name);
    size_t nRemoved = 0;
    for (const auto& section : *found) {
        nRemoved += std::erase_if(section->lines,
                                  [&](const Line& line) { return line.isValue && line.name == folded; });
    }
    return nRemoved > 0;
}

void ZqRegFile::removeKey(const Key& key) {
    const auto found = index.find(indexKey(key));
    if (found == index.end() || key.empty()) return;
    for (const auto& section : found->second)
        sections.erase(section);
    index.erase(found);
    // A key without a section of its own exists by what is below it.
    for (Key above(key.begin(), key.end() - 1); !above.empty(); above.pop_back()) {
        if (!hasKey(above)) begin(above, indexKey(above));
    }
}

SxString ZqRegFile::getArch() const {
    for (const Line& line : sections.front().lines) {
        if (line.raw.starts_with(ARCH_BEGIN)) return withoutLineEnd(line.raw);
    }
    return "";
}

std::string ZqRegFile::toText() const {
    std::string text;
    for (const Section& section : sections) {
        for (const Line& line : section.lines)
            text += line.raw;
    }
    return text;
}
