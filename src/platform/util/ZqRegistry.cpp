#include "ZqRegistry.h"

#include "SxException.h"
#include "ZqFold.h"
#include "ZqHex.h"
#include "ZqMachineRoot.h"
#include "ZqRegStore.h"

#include <array>
#include <charconv>
#include <set>

namespace {

constexpr const char* UNIT = "src/platform/util/ZqRegistry";
/// In the order of RegValType.
constexpr std::array TYPE_TEXTS{"REG_SZ",        "REG_DWORD",    "REG_QWORD",
                                "REG_EXPAND_SZ", "REG_MULTI_SZ", "REG_BINARY"};
constexpr std::array<uint32, TYPE_TEXTS.size()> TYPE_NUMBERS{ZqRegData::Text,      ZqRegData::Dword,
                                                             ZqRegData::Qword,     ZqRegData::ExpandText,
                                                             ZqRegData::MultiText, ZqRegData::Binary};
constexpr const char* DRIVE_WORD = "{{ZQDRIVE}}";
/// Longest name of a value that the Windows registry has, in UTF-16 units.
constexpr size_t MAX_NAME = 16383;

std::string numberBytes(const SxString& text, size_t n) {
    const bool isHex = text.startsWith("0x") || text.startsWith("0X");
    const char* begin = text.ascii() + (isHex ? 2 : 0);
    const char* end = text.ascii() + text.str().size();
    uint64 value = 0;
    const auto [stop, error] = std::from_chars(begin, end, value, isHex ? 16 : 10);
    if (begin == end || stop != end || error != std::errc() || (n == 4 && value > ~uint32{0})) {
        throw SxException("'" + text + "' isn't a number of " + 8 * n + " bits", UNIT, __LINE__);
    }
    std::string bytes;
    for (size_t i = 0; i < n; ++i)
        bytes += static_cast<char>(value >> (8 * i) & 0xFF);
    return bytes;
}

std::string multiTextBytes(const SxString& text) {
    std::u16string units;
    if (!text.isEmpty()) {
        for (const SxString& one : text.tokenize('\n', true)) {
            if (one.isEmpty()) throw SxException("an empty text would end the list", UNIT, __LINE__);
            units += zqUtf16(one) + u'\0';
        }
    }
    return ZqRegText::toBytes(units + u'\0');
}

/// As users write them: spaces and commas may stand between the digits.
std::string hexBytes(const SxString& text) {
    std::string digits;
    for (const char c : text.str()) {
        if (c != ' ' && c != ',') digits += c;
    }
    return zqBytesOfHex(digits);
}

ZqRegData toData(ZqRegistry::RegValType type, const SxString& text) {
    // Raises on a kind that there isn't.
    const SxString kind = ZqRegistry::Item::type2String(type);
    if (text.str().find('\0') != std::string::npos)
        throw SxException("the data of a " + kind + " holds a NUL", UNIT, __LINE__);
    ZqRegData data;
    data.type = TYPE_NUMBERS[static_cast<size_t>(type)];
    switch (type) {
    case ZqRegistry::RegDword:
        data.bytes = numberBytes(text, 4);
        break;
    case ZqRegistry::RegQword:
        data.bytes = numberBytes(text, 8);
        break;
    case ZqRegistry::RegMultiSz:
        data.bytes = multiTextBytes(text);
        break;
    case ZqRegistry::RegBinary:
        data.bytes = hexBytes(text);
        break;
    case ZqRegistry::RegSz:
    case ZqRegistry::RegExpandSz:
        data.bytes = ZqRegText::toBytes(zqUtf16(text) + u'\0');
        break;
    }
    return data;
}

SxString multiText(const std::u16string& units) {
    SxString text;
    for (size_t begin = 0; begin < units.size() && units[begin] != u'\0';) {
        const size_t end = std::min(units.find(u'\0', begin), units.size());
        if (begin > 0) text += "\n";
        text += zqFromUtf16(std::u16string_view(units).substr(begin, end - begin));
        begin = end + 1;
    }
    return text;
}

SxString toText(const ZqRegData& data) {
    const bool isNumber = (data.type == ZqRegData::Dword && data.bytes.size() == 4) ||
                          (data.type == ZqRegData::Qword && data.bytes.size() == 8);
    if (isNumber) {
        uint64 value = 0;
        for (size_t i = data.bytes.size(); i-- > 0;)
            value = value << 8 | static_cast<unsigned char>(data.bytes[i]);
        return value;
    }
    const std::u16string units = ZqRegText::toUnits(data.bytes);
    if (data.type == ZqRegData::Text || data.type == ZqRegData::ExpandText) return zqFromUtf16(units);
    if (data.type == ZqRegData::MultiText) return multiText(units);
    return zqHex(data.bytes);
}

SxString describe(const SxString& key, const SxString& name) {
    return (name.isEmpty() ? SxString("the default value") : "the value '" + name + "'") +
           " of the registry key '" + key + "'";
}

std::u16string toName(const SxString& name) {
    std::u16string units = zqUtf16(name);
    if (units.size() > MAX_NAME || units.find(u'\0') != std::u16string::npos)
        throw SxException("no value can be called so", UNIT, __LINE__);
    return units;
}

std::optional<ZqRegData> findValue(const SxString& key, const SxString& name) {
    ZqRegFile::Key found;
    const ZqRegFile registry = ZqRegStore(ZqMachineRoot::get()).read(ZqRegAddress::parse(key), &found);
    return registry.find(found, zqUtf16(name));
}

/// An edit of a value; without data a removal.
ZqRegEdit makeEdit(const SxString& key, const SxString& name, const std::optional<ZqRegData>& data) {
    ZqRegEdit edit{ZqRegAddress::parse(key), toName(name), data};
    if (edit.address.key.empty()) throw SxException("a root of the registry holds no values", UNIT, __LINE__);
    return edit;
}

/// Edits that make the list's entries.
std::vector<ZqRegEdit> makeEdits(const SxList<ZqRegistry::Item>& list, const SxString& mountPoint) {
    std::vector<ZqRegEdit> edits;
    for (const ZqRegistry::Item& item : list) {
        try {
            const SxString data =
                mountPoint.isEmpty() ? item.data : item.data.substitute(DRIVE_WORD, mountPoint);
            edits.push_back(makeEdit(item.key, item.value, toData(item.regType, data)));
        } catch (const SxException& e) {
            throw SxException(e, "Cannot set " + describe(item.key, item.value), UNIT, __LINE__);
        }
    }
    return edits;
}

/// The parts of a key's path, root first, as keys are compared.
std::vector<std::u16string> foldedParts(const SxString& key) {
    std::vector<std::u16string> parts;
    for (const std::u16string& part : ZqRegAddress::parse(key).withRoot())
        parts.push_back(zqFold(part));
    return parts;
}

using PartsSet = std::set<std::vector<std::u16string>>;

/// The keys that the changes have made.
PartsSet madeKeys(const SxList<ZqRegistry::State>& made) {
    PartsSet keys;
    for (const ZqRegistry::State& state : made) {
        std::vector<std::u16string> parts = foldedParts(state.key);
        for (int64 n = state.nMade; n > 0 && !parts.empty(); --n) {
            keys.insert(parts);
            parts.pop_back();
        }
    }
    return keys;
}

ZqRegistry::State stateOf(const SxString& key, const SxString& value, const std::optional<ZqRegData>& data) {
    ZqRegistry::State state;
    state.key = key;
    state.value = value;
    state.isThere = data.has_value();
    if (data) {
        state.type = data->type;
        state.bytes = zqHex(data->bytes);
    }
    return state;
}

/// Puts a state in the place of a former one of its value, or at the end.
void keep(SxList<ZqRegistry::State>* states, const ZqRegistry::State& state) {
    for (ZqRegistry::State& other : *states) {
        if (!other.isSameValue(state)) continue;
        other = state;
        return;
    }
    states->append(state);
}

} // namespace

ZqRegistry::RegValType ZqRegistry::Item::string2Type(const SxString& text) {
    for (size_t i = 0; i < TYPE_TEXTS.size(); ++i) {
        if (text == TYPE_TEXTS[i]) return static_cast<RegValType>(i);
    }
    throw SxException("Unknown kind of registry value '" + text + "'", UNIT, __LINE__);
}

SxString ZqRegistry::Item::type2String(RegValType type) {
    const auto i = static_cast<size_t>(type);
    if (i >= TYPE_TEXTS.size()) {
        throw SxException("Unknown kind of registry value " + SxString(static_cast<int>(type)), UNIT,
                          __LINE__);
    }
    return TYPE_TEXTS[i];
}

bool ZqRegistry::contains(const SxString& key, const SxString& name) {
    ZqRegFile::Key found;
    const ZqRegFile registry = ZqRegStore(ZqMachineRoot::get()).read(ZqRegAddress::parse(key), &found);
    if (registry.find(found, zqUtf16(name))) return true;
    if (name.isEmpty() || !registry.hasKey(found)) return false;
    found.push_back(zqUtf16(name));
    return registry.hasKey(found);
}

bool ZqRegistry::isVal(const SxString& key, const SxString& name) {
    return findValue(key, name).has_value();
}

SxString ZqRegistry::getVal(const SxString& key, const SxString& name) {
    const std::optional<ZqRegData> data = findValue(key, name);
    if (!data) throw SxException("There is no such thing as " + describe(key, name), UNIT, __LINE__);
    return toText(*data);
}

void ZqRegistry::setVal(const SxString& key, const SxString& name, RegValType type, const SxString& data) {
    Item item;
    item.key = key;
    item.value = name;
    item.regType = type;
    item.data = data;
    createRegEntriesAsAdmin({item}, "");
}

void ZqRegistry::createRegEntriesAsAdmin(const SxList<Item>& list, const SxString& mountPoint) {
    ZqRegStore(ZqMachineRoot::get()).apply(makeEdits(list, mountPoint));
}

bool ZqRegistry::State::isSameValue(const State& other) const {
    return zqFold(zqUtf16(value)) == zqFold(zqUtf16(other.value)) &&
           foldedParts(key) == foldedParts(other.key);
}

void ZqRegistry::createNoted(const SxList<Item>& list, const SxString& mountPoint, const SxList<State>& made,
                             const Note& note) {
    const std::vector<ZqRegEdit> edits = makeEdits(list, mountPoint);
    const PartsSet ours = madeKeys(made);
    ZqRegStore(ZqMachineRoot::get()).apply(edits, [&](const std::vector<ZqRegStore::Found>& found) {
        SxList<State> former, written;
        size_t i = 0;
        for (const Item& item : list) {
            State state = stateOf(item.key, item.value, found[i].data);
            std::vector<std::u16string> parts = foldedParts(item.key);
            for (size_t nAbsent = found[i].nAbsent; nAbsent > 0 || ours.contains(parts); parts.pop_back()) {
                ++state.nMade;
                if (nAbsent > 0) --nAbsent;
            }
            keep(&former, state);
            keep(&written, stateOf(item.key, item.value, edits[i].data));
            ++i;
        }
        note(former, written);
    });
}

void ZqRegistry::put(const SxList<State>& states) {
    std::vector<ZqRegEdit> edits;
    for (const State& state : states) {
        std::optional<ZqRegData> data;
        if (state.isThere) data = ZqRegData{state.type, zqBytesOfHex(state.bytes)};
        edits.push_back(makeEdit(state.key, state.value, data));
        edits.back().nMade = static_cast<size_t>(std::max<int64>(state.nMade, 0));
    }
    ZqRegStore(ZqMachineRoot::get()).apply(edits);
}

bool ZqRegistry::isWin32() {
    return ZqRegStore(ZqMachineRoot::get()).isWin32();
}

void ZqRegistry::removeRegEntriesAsAdmin(const SxList<Item>& list) {
    std::vector<ZqRegEdit> edits;
    for (const Item& item : list) {
        try {
            edits.push_back(makeEdit(item.key, item.value, std::nullopt));
        } catch (const SxException& e) {
            throw SxException(e, "Cannot remove " + describe(item.key, item.value), UNIT, __LINE__);
        }
    }
    ZqRegStore(ZqMachineRoot::get()).apply(edits);
}
