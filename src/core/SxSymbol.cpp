#include "SxSymbol.h"

#include "SxFileIO.h"
#include "SxJSONParser.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr const char* UNIT = "src/core/SxSymbol";
constexpr double EXACT_DOUBLE = 9007199254740992.0; // 2^53: below, a double holds every whole number
constexpr size_t WIDE = 16;                         // elements from which on an object's keys are indexed

struct Digits {
    std::string text;
};

template<class... F>
struct Overloaded : F... {
    using F::operator()...;
};
template<class... F>
Overloaded(F...) -> Overloaded<F...>;

SxString jsonNumber(double number) {
    const SxString text(number);
    // Else it would read back as an integer.
    return text.str().find_first_of(".e") == std::string::npos ? text + ".0" : text;
}

} // namespace

namespace SxParserKit {

using namespace SxParserAst;

struct SxSymbol::Node {
    using Children = std::vector<Node*>;
    // In the order of ElemType; the last two are told apart by `object`.
    using Value = std::variant<std::monostate, bool, int64, double, std::string, Digits, Children>;

    ElemType type() const noexcept { return object ? Object : static_cast<ElemType>(value.index()); }
    bool isContainer() const noexcept { return std::holds_alternative<Children>(value); }
    const Children& children() const { return std::get<Children>(value); }
    Children& children() { return std::get<Children>(value); }
    SxString path() const;
    SxString pathTo(const SxString& k) const { return parent ? path() + "." + excerpt(k) : excerpt(k); }
    SxString place() const { return parent ? "'" + path() + "'" : SxString("The root element"); }
    SxString describe() const;
    void reset(ElemType type);
    void write(std::string& out, int indent, int level) const;
    void writeChildren(std::string& out, int indent, int level) const;

    Node* parent = nullptr;
    std::string key;
    Value value;
    bool object = false;
    unsigned char depth = 0; // containers from the root down to this element, itself not counted
};

// All nodes of a tree lie in one place: handles stay valid while it grows, and its end doesn't recurse.
struct SxSymbol::Tree {
    Node* find(const Node& parent, std::string_view key) const;
    void index(const Node& parent, Node* child);

    std::deque<Node> nodes;
    // The keys of objects with many elements; ordered, since a hash could be flooded by chosen keys.
    std::map<const Node*, std::map<std::string_view, Node*>> wide;
};

SxSymbol::Node* SxSymbol::Tree::find(const Node& parent, std::string_view key) const {
    const auto& children = parent.children();
    if (children.size() >= WIDE) {
        const auto& keys = wide.at(&parent);
        auto it = keys.find(key);
        return it == keys.end() ? nullptr : it->second;
    }
    auto it = std::find_if(children.begin(), children.end(), [key](const Node* n) { return n->key == key; });
    return it == children.end() ? nullptr : *it;
}

void SxSymbol::Tree::index(const Node& parent, Node* child) {
    const auto& children = parent.children();
    if (children.size() < WIDE) return;
    auto& keys = wide[&parent];
    if (children.size() > WIDE) {
        keys.emplace(child->key, child);
    } else {
        for (Node* n : children)
            keys.emplace(n->key, n);
    }
}

SxString excerpt(const SxString& text, int64 nBytes) {
    const bool cut = static_cast<int64>(text.str().size()) > nBytes;
    std::string part = text.str().substr(0, static_cast<size_t>(nBytes));
    // A character that the cut divides would show as a wrong byte.
    if (cut) {
        size_t start = part.size();
        while (start > 0 && (static_cast<unsigned char>(text.str()[start]) & 0xC0) == 0x80)
            --start;
        part.resize(start);
    }
    return SxString(std::move(part)).makeVisible() + (cut ? "..." : "");
}

SxString SxSymbol::Node::path() const {
    SxString result;
    for (const Node* n = this; n->parent; n = n->parent) {
        SxString part;
        if (n->parent->object) {
            part = excerpt(n->key);
            if (n->parent->parent) part = "." + part;
        } else {
            const Children& siblings = n->parent->children();
            const auto i = std::find(siblings.begin(), siblings.end(), n) - siblings.begin();
            part = SxString("[") + static_cast<int64>(i) + "]";
        }
        result = part + result;
    }
    return excerpt(result, 240);
}

SxString SxSymbol::Node::describe() const {
    return std::visit(
        Overloaded{[](std::monostate) { return SxString("null"); },
                   [](bool flag) { return SxString(flag ? "the boolean true" : "the boolean false"); },
                   [](int64 number) { return SxString("the integer ") + number; },
                   [](double number) { return "the number " + jsonNumber(number); },
                   [](const std::string& text) { return "the text \"" + excerpt(text) + "\""; },
                   [](const Digits& big) {
                       return "the integer " + excerpt(big.text) + ", which is outside the range of 64 bits";
                   },
                   [this](const Children&) { return SxString(object ? "an object" : "an array"); }},
        value);
}

void SxSymbol::Node::reset(ElemType type) {
    if (isContainer()) {
        for (Node* child : children())
            child->parent = nullptr; // handles of them may live on
    }
    switch (type) {
    case Null:
        value.emplace<std::monostate>();
        break;
    case Bool:
        value.emplace<bool>();
        break;
    case Int:
        value.emplace<int64>();
        break;
    case Double:
        value.emplace<double>();
        break;
    case String:
        value.emplace<std::string>();
        break;
    case BigInt:
        value = Digits{"0"};
        break;
    case Array:
    case Object:
        value.emplace<Children>();
        break;
    }
    object = type == Object;
}

SxSymbol::Node& SxSymbol::require() const {
    if (!node) throw SxException("The JSON element that was asked for isn't there", UNIT, __LINE__);
    return *node;
}

SxSymbol::Node& SxSymbol::require(ElemType type) const {
    Node& found = require();
    if (found.type() == type) return found;
    static constexpr const char* NAMES[] = {"null",   "a boolean",  "a 64-bit integer", "a number",
                                            "a text", "an integer", "an array",         "an object"};
    throw SxException(mismatch(NAMES[type]), UNIT, __LINE__);
}

SxString SxSymbol::mismatch(const SxString& expected) const {
    const Node& found = require();
    return found.place() + " is " + found.describe() + "; expected " + expected;
}

ElemType SxSymbol::getType() const {
    return require().type();
}

SxString SxSymbol::getKeyPath() const {
    return require().path();
}

SxString SxSymbol::getKey() const {
    return require().key;
}

SxSymbol SxSymbol::getElem(const SxString& key, bool mandatory) const {
    const Node& parent = require(Object);
    if (Node* child = tree->find(parent, key.str())) return SxSymbol(tree, child);
    if (!mandatory) return SxSymbol();
    throw SxException("The mandatory key '" + parent.pathTo(key) + "' is missing", UNIT, __LINE__);
}

int64 SxSymbol::getSize() const {
    const Node& parent = require();
    return parent.isContainer() ? static_cast<int64>(parent.children().size()) : 0;
}

SxSymbol SxSymbol::at(int64 i) const {
    return SxSymbol(tree, require().children()[static_cast<size_t>(i)]);
}

bool SxSymbol::isInteger() const {
    if (getType() != Double) return getType() == Int;
    // Some writers have only floating-point numbers; below 2^53 those are whole numbers exactly.
    const double number = std::get<double>(node->value);
    return std::abs(number) < EXACT_DOUBLE && number == std::trunc(number);
}

int64 SxSymbol::toInt() const {
    if (getType() == Double && isInteger()) return static_cast<int64>(std::get<double>(node->value));
    return std::get<int64>(require(Int).value);
}

bool SxSymbol::toBool() const {
    return std::get<bool>(require(Bool).value);
}

double SxSymbol::toDouble() const {
    const Node& number = require();
    if (const int64* whole = std::get_if<int64>(&number.value)) return static_cast<double>(*whole);
    if (const auto* big = std::get_if<Digits>(&number.value)) return std::strtod(big->text.c_str(), nullptr);
    return std::get<double>(require(Double).value);
}

SxString SxSymbol::toString() const {
    return std::get<std::string>(require(String).value);
}

SxList<SxSymbol> SxSymbol::toList() const {
    SxList<SxSymbol> list;
    for (Node* child : require(Array).children())
        list.append(SxSymbol(tree, child));
    return list;
}

SxList<int64> SxSymbol::toIntList() const {
    SxList<int64> list;
    for (Node* child : require(Array).children())
        list.append(SxSymbol(tree, child).toInt());
    return list;
}

SxList<SxString> SxSymbol::toStringList() const {
    SxList<SxString> list;
    for (Node* child : require(Array).children())
        list.append(SxSymbol(tree, child).toString());
    return list;
}

void SxSymbol::setType(ElemType type) {
    if (!node) {
        tree = SxPtr<Tree>::create();
        node = &tree->nodes.emplace_back();
    }
    const bool container = type == Array || type == Object;
    if (container && node->depth >= MAX_DEPTH) {
        throw SxException(node->place() + " lies deeper than " + MAX_DEPTH + " arrays and objects", UNIT,
                          __LINE__);
    }
    tree->wide.erase(node);
    node->reset(type);
}

void SxSymbol::set(const SxVariant& value) {
    const double* number = std::get_if<double>(&value.getValue());
    if (number && !std::isfinite(*number)) {
        const SxString place = node ? node->place() : SxString("The root element");
        throw SxException(place + " can't be the number " + *number + " in JSON", UNIT, __LINE__);
    }
    setType(Null);
    std::visit(Overloaded{[this](const SxString& text) { node->value.emplace<std::string>(text.str()); },
                          [this]<class T>(T plain) { node->value.emplace<T>(plain); }},
               value.getValue());
}

void SxSymbol::setBigInt(const SxString& digits) {
    setType(BigInt);
    std::get<Digits>(node->value).text = digits.str();
}

SxSymbol SxSymbol::add(Node& parent, const SxString& key) {
    if (parent.object && tree->find(parent, key.str())) {
        throw SxException("The key '" + parent.pathTo(key) + "' is there twice", UNIT, __LINE__);
    }
    Node& child = tree->nodes.emplace_back();
    child.parent = &parent;
    child.key = key.str();
    child.depth = static_cast<unsigned char>(parent.depth + 1);
    parent.children().push_back(&child);
    if (parent.object) tree->index(parent, &child);
    return SxSymbol(tree, &child);
}

SxSymbol SxSymbol::append(const SxString& key, const SxVariant& value) {
    SxSymbol child = add(require(Object), key);
    child.set(value);
    return child;
}

SxSymbol SxSymbol::append(const SxString& key, ElemType type) {
    SxSymbol child = add(require(Object), key);
    child.setType(type);
    return child;
}

SxSymbol SxSymbol::append(const SxVariant& value) {
    SxSymbol child = add(require(Array), SxString());
    child.set(value);
    return child;
}

SxSymbol SxSymbol::append(ElemType type) {
    SxSymbol child = add(require(Array), SxString());
    child.setType(type);
    return child;
}

void SxSymbol::setElem(const SxString& key, const SxVariant& value) {
    SxSymbol child = getElem(key, false);
    if (!child.isValid()) child = add(*node, key);
    child.set(value);
}

void SxSymbol::Node::write(std::string& out, int indent, int level) const {
    std::visit(Overloaded{[&](std::monostate) { out += "null"; },
                          [&](bool flag) { out += flag ? "true" : "false"; },
                          [&](int64 number) { out += std::to_string(number); },
                          [&](double number) { out += jsonNumber(number).str(); },
                          [&](const std::string& text) {
                              try {
                                  out += SxJSONParser::quote(text).str();
                              } catch (const SxException& e) {
                                  throw SxException(e, place() + " can't be written as JSON", UNIT, __LINE__);
                              }
                          },
                          [&](const Digits& big) { out += big.text; },
                          [&](const Children&) { writeChildren(out, indent, level); }},
               value);
}

void SxSymbol::Node::writeChildren(std::string& out, int indent, int level) const {
    const auto newLine = [&](int depthOfLine) {
        if (indent > 0)
            out.append(1, '\n').append(static_cast<size_t>(indent) * static_cast<size_t>(depthOfLine), ' ');
    };
    out += object ? '{' : '[';
    bool first = true;
    for (const Node* child : children()) {
        if (!first) out += ',';
        first = false;
        newLine(level + 1);
        if (object) out.append(SxJSONParser::quote(child->key).str()).append(indent > 0 ? ": " : ":");
        child->write(out, indent, level + 1);
    }
    if (!first) newLine(level);
    out += object ? '}' : ']';
}

SxString SxSymbol::toJson(int indent) const {
    std::string out;
    require().write(out, indent, 0);
    return out;
}

void SxSymbol::write(const SxString& path) const {
    SxFileIO::writeAtomic(path, toJson(4) + "\n");
}

SxSymbol SxSymbol::appendCopy(const SxString& key, const SxSymbol& source) {
    SxSymbol copy = append(key, source.getType());
    copy.fillFrom(source);
    return copy;
}

void SxSymbol::fillFrom(const SxSymbol& source) {
    switch (source.getType()) {
    case Null:
        break;
    case Bool:
        set(source.toBool());
        break;
    case Int:
        set(source.toInt());
        break;
    case Double:
        set(source.toDouble());
        break;
    case String:
        set(source.toString());
        break;
    case BigInt:
        setBigInt(source.toJson());
        break;
    case Array:
        for (int64 i = 0; i < source.getSize(); ++i)
            append(source.at(i).getType()).fillFrom(source.at(i));
        break;
    case Object:
        for (int64 i = 0; i < source.getSize(); ++i)
            appendCopy(source.at(i).getKey(), source.at(i));
    }
}

} // namespace SxParserKit
