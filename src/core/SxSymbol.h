#pragma once

#include "SxList.h"
#include "SxPtr.h"
#include "SxVariant.h"

namespace SxParserAst {

/// The types of an element of a JSON tree. BigInt is an integer that doesn't fit in 64 bits: it is kept and
/// written by its digits and can be read as a double only.
enum ElemType { Null = 0, Bool = 1, Int = 2, Double = 3, String = 4, BigInt = 5, Array = 6, Object = 7 };

} // namespace SxParserAst

namespace SxParserKit {

/// The first `nBytes` of a foreign text for use in a message: longer texts are cut and marked with "...",
/// control characters and bytes that aren't UTF-8 are escaped.
SxString excerpt(const SxString& text, int64 nBytes = 60);

/// Handle of an element of a JSON tree (RFC 8259): an object, an array or a value. Copies are cheap and stand
/// for the same element; a handle keeps the whole tree alive and stays valid whatever is added to it. Keys
/// keep their order. The tree is one of our own: that is why handles stay valid while elements are added, and
/// why the slow headers of the JSON libraries stay in one unit each (SxJSONParser, SxSchema). Every operation
/// but isValid(), setType() and set() raises on a handle without an element, and every failure names the
/// element by its key path, such as "app.args[3]". A tree isn't locked: its handles may be read by several
/// threads as long as none changes it.
class SxSymbol {
public:
    /// Largest number of arrays and objects inside each other.
    static constexpr int MAX_DEPTH = 64;

    /// A handle without an element.
    SxSymbol() = default;

    bool isValid() const noexcept { return node != nullptr; }
    SxParserAst::ElemType getType() const;
    /// The names and indices that lead here from the root; empty at the root. Long ones are cut.
    SxString getKeyPath() const;
    /// A sentence that says what stands here and that `expected`, such as "a text", was asked for.
    SxString mismatch(const SxString& expected) const;

    /// The element of an object at `key`. Where there is none, raises with `mandatory`, else gives a handle
    /// without an element.
    SxSymbol getElem(const SxString& key, bool mandatory = true) const;
    bool hasElem(const SxString& key) const { return getElem(key, false).isValid(); }
    /// Number of elements of an array or object; 0 for a value.
    int64 getSize() const;
    /// Element `i` of an array or object, in order; not checked.
    SxSymbol at(int64 i) const;
    /// The key of this element in its object; empty at the root and in an array.
    SxString getKey() const;

    /// Whether toInt() gives a value: a number without a fraction that fits in 64 bits, or, written with a
    /// point or an exponent, in the 53 bits of a floating-point number.
    bool isInteger() const;
    /// The value; raises where the element is of another type. An integer is exact to the last digit over the
    /// whole signed 64-bit range; one outside it is refused.
    int64 toInt() const;
    bool toBool() const;
    /// Any number.
    double toDouble() const;
    SxString toString() const;
    /// The elements of an array.
    SxList<SxSymbol> toList() const;
    SxList<int64> toIntList() const;
    SxList<SxString> toStringList() const;

    /// Makes this an empty element of `type`; on a handle without an element begins a new tree.
    void setType(SxParserAst::ElemType type);
    /// Replaces what stands here by a value; on a handle without an element begins a new tree. Raises on a
    /// double that JSON can't hold: an infinite one or NaN.
    void set(const SxVariant& value);
    /// Replaces what stands here by an integer beyond 64 bits, given by its decimal digits.
    void setBigInt(const SxString& digits);

    /// Adds to an object, after its last element, a value or an empty element of `type`, and gives the new
    /// element. Raises on a key that is there already, and beyond MAX_DEPTH.
    SxSymbol append(const SxString& key, const SxVariant& value);
    SxSymbol append(const SxString& key, SxParserAst::ElemType type);
    /// Adds a copy of another tree to an object, and gives the new element. Raises as append() does.
    SxSymbol appendCopy(const SxString& key, const SxSymbol& source);
    /// Adds to an array.
    SxSymbol append(const SxVariant& value);
    SxSymbol append(SxParserAst::ElemType type);
    /// Sets the value at `key` of an object, in its place where the key is there already, else after the
    /// last.
    void setElem(const SxString& key, const SxVariant& value);

    /// The element as JSON text, each level indented by `indent` spaces; on one line with 0. Raises on texts
    /// that aren't UTF-8 or hold a NUL, since no reader takes them.
    SxString toJson(int indent = 0) const;
    /// Replaces the file by the JSON text, indented by 4, with a line feed at its end; see
    /// SxFileIO::writeAtomic().
    void write(const SxString& path) const;

private:
    void fillFrom(const SxSymbol& source);
    struct Node;
    struct Tree;
    SxSymbol(SxPtr<Tree> tree_, Node* node_) : tree(std::move(tree_)), node(node_) {}

    Node& require(SxParserAst::ElemType type) const;
    Node& require() const;
    SxSymbol add(Node& parent, const SxString& key);

    SxPtr<Tree> tree;
    Node* node = nullptr;
};

} // namespace SxParserKit
