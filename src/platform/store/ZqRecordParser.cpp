#include "ZqRecordParser.h"

#include <algorithm>
#include <cmath>
#include <simdjson.h>

namespace {

namespace dom = simdjson::dom;

/// Of what nests deeper nothing is known here.
constexpr size_t MAX_DEPTH = 32;
/// Doubles have each whole number up to this one, which a service may have made of one.
constexpr double MAX_EXACT = 9007199254740992.0;
constexpr double BEYOND_WHOLE = 9223372036854775808.0;

static_assert(ZqRecordParser::PADDING >= simdjson::SIMDJSON_PADDING);

SxString named(const ZqRecordKey& key, const char* fault) {
    const bool isInSection = *key.section != '\0';
    return SxString("'") + key.section + (isInSection ? "." : "") + key.name + "' " + fault;
}

/// The keys of one object, with the values that a record gave them.
struct Section {
    SxString name;
    std::vector<ZqRecordKey> keys;
    std::vector<std::string_view> names; ///< of the keys
    /// The key at each place of the object in the record before: records mostly have their keys in one order,
    /// so this spares the search.
    std::vector<size_t> former;
    std::vector<uint64> seenIn; ///< number of the record that had the key last

    size_t find(std::string_view key, size_t place);
};

constexpr size_t NONE = std::numeric_limits<size_t>::max();

size_t Section::find(std::string_view key, size_t place) {
    if (place < former.size() && former[place] != NONE && key == names[former[place]]) return former[place];
    const auto at = std::find(names.begin(), names.end(), key);
    const size_t index = at == names.end() ? NONE : static_cast<size_t>(at - names.begin());
    // A record has a bounded size, but an object of it may have a million keys.
    constexpr size_t MOST_PLACES = 256;
    if (place < MOST_PLACES) {
        if (former.size() <= place) former.resize(place + 1, NONE);
        former[place] = index;
    }
    return index;
}

const char* takeText(const dom::element& value, ZqCell* cell) {
    std::string_view text;
    if (value.get_string().get(text) != simdjson::SUCCESS) return "isn't a text";
    if (text.find('\0') != std::string_view::npos) return "holds a NUL character";
    if (text.size() > ZqRecordParser::MAX_TEXT) return "has more than 1024 bytes";
    if (!cell->isSet || cell->text < text) cell->text = text;
    return nullptr;
}

const char* takeReal(const dom::element& value, const ZqRecordKey& key, ZqCell* cell) {
    double number = 0;
    if (!value.is_number() || value.get_double().get(number) != simdjson::SUCCESS) return "isn't a number";
    if (key.factor != 0) number *= key.factor;
    if (number < static_cast<double>(key.least)) return "is negative";
    cell->real = cell->isSet ? std::max(cell->real, number) : number;
    return nullptr;
}

/// A number that is in another unit, or that a service has made a double of.
const char* wholeOf(double number, const ZqRecordKey& key, int64* whole) {
    if (key.factor != 0) {
        number = std::round(number * key.factor);
        if (!(std::abs(number) < BEYOND_WHOLE)) return "is beyond 64 bits";
    } else if (number != std::trunc(number)) {
        return "isn't a whole number";
    } else if (std::abs(number) > MAX_EXACT) {
        return "isn't exact";
    }
    *whole = static_cast<int64>(number);
    return nullptr;
}

const char* takeWhole(const dom::element& value, const ZqRecordKey& key, ZqCell* cell) {
    int64 whole = 0;
    if (!value.is_number()) return "isn't a number";
    // The type of those alone that no signed number of 64 bits can hold.
    if (value.type() == dom::element_type::UINT64) return "is beyond 64 bits";
    if (value.type() == dom::element_type::INT64 && key.factor == 0) {
        whole = value.get_int64().value_unsafe();
    } else {
        const char* const fault = wholeOf(value.get_double().value_unsafe(), key, &whole);
        if (fault) return fault;
    }
    if (whole < key.least) return "is negative";
    cell->whole = cell->isSet ? std::max(cell->whole, whole) : whole;
    return nullptr;
}

const char* takeFlag(const dom::element& value, ZqCell* cell) {
    bool flag = false;
    if (value.get_bool().get(flag) != simdjson::SUCCESS) return "isn't true or false";
    cell->whole = (cell->isSet && cell->whole != 0) || flag;
    return nullptr;
}

const char* take(const dom::element& value, ZqColumn::Type type, const ZqRecordKey& key, ZqCell* cell) {
    switch (type) {
    case ZqColumn::Text:
        return takeText(value, cell);
    case ZqColumn::Real:
        return takeReal(value, key, cell);
    case ZqColumn::Whole:
        return takeWhole(value, key, cell);
    case ZqColumn::Flag:
        break;
    }
    return takeFlag(value, cell);
}

} // namespace

struct ZqRecordParser::State {
    std::vector<ZqColumn> columns;
    std::vector<Section> sections; ///< the first one is the record itself
    dom::parser parser;
    size_t capacity = 0;
    uint64 nRecords = 0;

    Section* findSection(std::string_view name);
    SxString reserve(size_t n);
    SxString readObject(const dom::object& object, Section* section, std::vector<ZqCell>* cells);
};

ZqRecordParser::ZqRecordParser(const std::vector<ZqColumn>& columns_, const std::vector<ZqRecordKey>& keys_)
    : state(std::make_unique<State>()) {
    state->columns = columns_;
    state->sections.emplace_back();
    for (const ZqRecordKey& key : keys_) {
        Section* section = *key.section ? state->findSection(key.section) : &state->sections.front();
        if (!section) {
            section = &state->sections.emplace_back();
            section->name = key.section;
        }
        section->keys.push_back(key);
        section->names.emplace_back(key.name);
        section->seenIn.push_back(0);
    }
}

ZqRecordParser::~ZqRecordParser() = default;

Section* ZqRecordParser::State::findSection(std::string_view name) {
    for (size_t i = 1; i < sections.size(); ++i)
        if (std::string_view(sections[i].name) == name) return &sections[i];
    return nullptr;
}

/// The parser takes about 13 bytes for each byte that it has room for, so it gets no more than records need.
SxString ZqRecordParser::State::reserve(size_t n) {
    if (n <= capacity) return {};
    constexpr size_t LEAST = 4096;
    const size_t wanted = std::min(std::max(LEAST, n * 2), MAX_RECORD);
    if (parser.allocate(wanted, MAX_DEPTH) != simdjson::SUCCESS) return "there is no memory for it";
    capacity = wanted;
    return {};
}

SxString ZqRecordParser::State::readObject(const dom::object& object, Section* section,
                                           std::vector<ZqCell>* cells) {
    size_t place = 0;
    const bool isTop = section == &sections.front();
    for (const dom::key_value_pair field : object) {
        const size_t index = section->find(field.key, place++);
        Section* const inner = isTop && index == NONE ? findSection(field.key) : nullptr;
        if (inner && !field.value.is_null()) {
            dom::object content;
            if (field.value.get_object().get(content) != simdjson::SUCCESS)
                return "'" + inner->name + "' isn't an object";
            SxString fault = readObject(content, inner, cells);
            if (!fault.isEmpty()) return fault;
        }
        if (index == NONE) continue;
        const ZqRecordKey& key = section->keys[index];
        // Programs differ in which of two values they take.
        if (section->seenIn[index] == nRecords) return named(key, "is stated twice");
        section->seenIn[index] = nRecords;
        if (field.value.is_null()) continue;
        ZqCell* const cell = &(*cells)[key.column];
        const char* const fault = take(field.value, columns[key.column].type, key, cell);
        if (fault) return named(key, fault);
        cell->isSet = true;
    }
    return {};
}

SxString ZqRecordParser::read(std::string_view record, std::vector<ZqCell>* cells) {
    State& own = *state;
    cells->assign(own.columns.size(), ZqCell());
    if (record.size() > MAX_RECORD) return SxString("it is larger than ") + (MAX_RECORD >> 20) + " MiB";
    SxString fault = own.reserve(record.size());
    if (!fault.isEmpty()) return fault;
    ++own.nRecords;
    dom::element root;
    const simdjson::error_code error = own.parser.parse(record.data(), record.size(), false).get(root);
    if (error == simdjson::DEPTH_ERROR) return SxString("it has more than ") + MAX_DEPTH + " levels";
    // The library's text ends like a sentence, and this is one part of it.
    if (error) return SxString("it isn't JSON: ") + SxString(simdjson::error_message(error)).left(".");
    dom::object object;
    if (root.get_object().get(object) != simdjson::SUCCESS) return "it isn't an object";
    return own.readObject(object, &own.sections.front(), cells);
}
