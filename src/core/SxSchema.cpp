#include "SxSchema.h"

#define VALIJSON_USE_EXCEPTIONS 1 // else a fault in a schema ends the process
#include <valijson/internal/adapter.hpp>
#include <valijson/internal/basic_adapter.hpp>
#include <valijson/internal/frozen_value.hpp>
#include <valijson/schema.hpp>
#include <valijson/schema_parser.hpp>
#include <valijson/validation_results.hpp>
#include <valijson/validator.hpp>

#include <charconv>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace {

constexpr const char* UNIT = "src/core/SxSchema";

using SxParserKit::excerpt;
using SxParserKit::SxSymbol;

} // namespace

// How the validator sees a JSON tree: it walks over the tree itself, without a copy in another library's
// types.
namespace SxSchemaTree {

class Adapter;
using Member = std::pair<std::string, Adapter>;

/// An element, with the faults found so far: loops over elements end at the first fault, since a hostile file
/// could bring millions.
struct Item {
    SxSymbol symbol;
    const valijson::ValidationResults* faults = nullptr;

    bool stopped() const { return faults && faults->numErrors() > 0; }
};

template<class T>
class Iterator {
public:
    using iterator_category = std::bidirectional_iterator_tag;
    using value_type = T;
    using difference_type = std::ptrdiff_t;
    using pointer = T*;
    using reference = T;

    Iterator(const Item& parent_, int64 i_) : parent(parent_), i(i_) {}
    /// At the element `found_`, wherever it stands; not to be moved.
    Iterator(const Item& parent_, const SxSymbol& found_) : parent(parent_), found(found_) {}
    T operator*() const;
    valijson::adapters::DerefProxy<T> operator->() const { return valijson::adapters::DerefProxy<T>(**this); }
    bool operator==(const Iterator& other) const { return i == other.i || parent.stopped(); }
    Iterator& operator++() {
        ++i;
        return *this;
    }
    Iterator operator++(int) {
        Iterator old = *this;
        ++i;
        return old;
    }
    Iterator& operator--() {
        --i;
        return *this;
    }
    void advance(std::ptrdiff_t n) { i += n; }

private:
    SxSymbol current() const { return found.isValid() ? found : parent.symbol.at(i); }

    Item parent;
    SxSymbol found;
    int64 i = -1;
};

/// An array or object; empty without an element.
template<class T>
class Range {
public:
    using const_iterator = Iterator<T>;
    using iterator = Iterator<T>;

    Range() = default;
    explicit Range(Item item_) : item(std::move(item_)) {}
    iterator begin() const { return {item, 0}; }
    iterator end() const { return {item, static_cast<int64>(size())}; }
    size_t size() const { return item.symbol.isValid() ? static_cast<size_t>(item.symbol.getSize()) : 0; }
    iterator find(const std::string& key) const {
        const SxSymbol found = item.symbol.isValid() ? item.symbol.getElem(key, false) : SxSymbol();
        return found.isValid() ? iterator{item, found} : end();
    }

private:
    Item item;
};

using ArrayRange = Range<Adapter>;
using ObjectRange = Range<Member>;

class Value {
public:
    Value() = default;
    explicit Value(Item item_) : item(std::move(item_)) {}

    valijson::adapters::FrozenValue* freeze() const;
    std::optional<ArrayRange> getArrayOptional() const {
        return isArray() ? std::make_optional<ArrayRange>(item) : std::nullopt;
    }
    std::optional<ObjectRange> getObjectOptional() const {
        return isObject() ? std::make_optional<ObjectRange>(item) : std::nullopt;
    }
    bool getArraySize(size_t& size) const { return isArray() && getSize(size); }
    bool getObjectSize(size_t& size) const { return isObject() && getSize(size); }
    bool getBool(bool& flag) const {
        if (isBool()) flag = item.symbol.toBool();
        return isBool();
    }
    bool getDouble(double& number) const {
        if (isDouble()) number = item.symbol.toDouble();
        return isDouble();
    }
    bool getInteger(int64_t& number) const {
        if (isInteger()) number = item.symbol.toInt();
        return isInteger();
    }
    bool getString(std::string& text) const {
        if (isString()) text = item.symbol.toString().str();
        return isString();
    }
    static bool hasStrictTypes() { return true; }
    bool isArray() const { return is(SxParserAst::Array); }
    bool isBool() const { return is(SxParserAst::Bool); }
    bool isDouble() const { return is(SxParserAst::Double) || is(SxParserAst::BigInt); }
    bool isInteger() const { return item.symbol.isValid() && item.symbol.isInteger(); }
    bool isNull() const { return is(SxParserAst::Null); }
    bool isNumber() const { return isInteger() || isDouble(); }
    bool isObject() const { return is(SxParserAst::Object) || !item.symbol.isValid(); }
    bool isString() const { return is(SxParserAst::String); }

private:
    bool is(SxParserAst::ElemType type) const {
        return item.symbol.isValid() && item.symbol.getType() == type;
    }
    bool getSize(size_t& size) const {
        size = ObjectRange(item).size();
        return true;
    }

    Item item;
};

class Adapter : public valijson::adapters::BasicAdapter<Adapter, ArrayRange, Member, ObjectRange, Value> {
public:
    explicit Adapter(const SxSymbol& symbol, const valijson::ValidationResults* faults = nullptr)
        : BasicAdapter(Value({symbol, faults})) {}
};

template<>
Adapter Iterator<Adapter>::operator*() const {
    return Adapter(current(), parent.faults);
}

template<>
Member Iterator<Member>::operator*() const {
    const SxSymbol child = current();
    return {child.getKey().str(), Adapter(child, parent.faults)};
}

class Frozen : public valijson::adapters::FrozenValue {
public:
    explicit Frozen(const SxSymbol& symbol_) : symbol(symbol_) {}
    FrozenValue* clone() const override { return std::make_unique<Frozen>(symbol).release(); }
    bool equalTo(const valijson::adapters::Adapter& other, bool strict) const override {
        return Adapter(symbol).equalTo(other, strict);
    }

private:
    SxSymbol symbol;
};

valijson::adapters::FrozenValue* Value::freeze() const {
    return std::make_unique<Frozen>(item.symbol).release();
}

} // namespace SxSchemaTree

template<>
struct valijson::adapters::AdapterTraits<SxSchemaTree::Adapter> {
    using DocumentType = SxSymbol;
    static std::string adapterName() { return "SxSchemaTree"; }
};

struct SxSchema::Compiled {
    valijson::Schema schema;
};

namespace {

/// Where a fault lies, and the part of the schema that stands for it, as far as properties and items tell.
struct Spot {
    void enter(const std::string& step) {
        const std::string name = step.substr(1, step.size() - 2); // without its brackets
        if (found.getType() == SxParserAst::Array) {
            int64 i = 0;
            std::from_chars(name.data(), name.data() + name.size(), i);
            found = found.at(i);
            rule = part("items");
        } else {
            found = found.getElem(name);
            rule = part("properties");
            rule = part(name);
        }
    }
    SxSymbol part(const SxString& key) const {
        const bool object = rule.isValid() && rule.getType() == SxParserAst::Object;
        return object ? rule.getElem(key, false) : SxSymbol();
    }

    SxSymbol found, rule;
};

SxString typeName(const SxSymbol& rule) {
    static constexpr std::pair<const char*, const char*> NAMES[] = {
        {"array", "an array"}, {"boolean", "a boolean"}, {"integer", "a 64-bit integer"},
        {"null", "null"},      {"number", "a number"},   {"object", "an object"},
        {"string", "a text"}};
    if (rule.isValid() && rule.getType() == SxParserAst::String) {
        for (const auto& [name, words] : NAMES) {
            if (rule.toString() == name) return words;
        }
    }
    return "another type";
}

SxString sentence(const valijson::ValidationResults::Error& fault, Spot spot) {
    for (size_t i = 1; i < fault.context.size(); ++i)
        spot.enter(fault.context[i]);
    const SxString text(fault.description);
    if (text.find("'type' constraint") >= 0) return spot.found.mismatch(typeName(spot.part("type")));

    const SxString path = spot.found.getKeyPath();
    const SxString missing = text.right("Missing required property '").left("'.");
    if (!missing.isEmpty()) {
        return "The mandatory key '" + (path.isEmpty() ? missing : path + "." + missing) + "' is missing";
    }
    const SxString place = path.isEmpty() ? SxString("The root element") : "'" + path + "'";
    return place + " doesn't match its schema: " + excerpt(text, 160);
}

} // namespace

SxSchema::SxSchema(const SxSymbol& tree) : schemaTree(tree) {
    try {
        auto made = SxPtr<Compiled>::create();
        valijson::SchemaParser parser(valijson::SchemaParser::kDraft7);
        parser.populateSchema(SxSchemaTree::Adapter(tree), made->schema);
        compiled = made;
    } catch (const SxException& e) {
        throw SxException(e, "Not a valid JSON schema", UNIT, __LINE__);
    } catch (const std::exception& e) {
        throw SxException(SxString("Not a valid JSON schema: ") + excerpt(e.what(), 160), UNIT, __LINE__);
    }
}

void SxSchema::validate(const SxSymbol& tree) const {
    valijson::ValidationResults faults;
    bool valid = false;
    try {
        valijson::Validator validator;
        valid = validator.validate(compiled->schema, SxSchemaTree::Adapter(tree, &faults), &faults);
    } catch (const SxException&) {
        throw;
    } catch (const std::exception& e) {
        throw SxException(SxString("The JSON schema can't be applied: ") + excerpt(e.what(), 160), UNIT,
                          __LINE__);
    }
    if (faults.numErrors() > 0)
        throw SxException(sentence(*faults.begin(), {tree, schemaTree}), UNIT, __LINE__);
    if (!valid) throw SxException("The JSON text doesn't match its schema", UNIT, __LINE__);
}
