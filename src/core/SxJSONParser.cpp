#include "SxJSONParser.h"

#include "SxFileIO.h"

#include <nlohmann/json.hpp>

#include <string>
#include <string_view>
#include <vector>

namespace {

constexpr const char* UNIT = "src/core/SxJSONParser";

using SxParserKit::excerpt;
using SxParserKit::SxSymbol;

// Walks over the text and leaves word of how far the reader has come, which the callbacks below don't get.
struct Cursor {
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char*;
    using reference = const char&;

    reference operator*() const noexcept { return *at; }
    Cursor& operator++() noexcept {
        *reached = ++at;
        return *this;
    }
    Cursor operator++(int) noexcept {
        Cursor old = *this;
        ++*this;
        return old;
    }
    bool operator==(const Cursor& other) const noexcept { return at == other.at; }

    const char* at;
    const char** reached;
};

class Builder {
public:
    bool null() {
        place();
        return true;
    }
    bool boolean(bool flag) { return value(flag); }
    bool number_integer(int64 number) { return value(number); }
    bool number_unsigned(uint64 number) {
        if (std::in_range<int64>(number)) return value(number);
        place().setBigInt(number);
        return true;
    }
    bool number_float(double number, const std::string& text) {
        if (text.find_first_of(".eE") != std::string::npos) return value(number);
        place().setBigInt(text);
        return true;
    }
    bool string(std::string& text) {
        refuseNul(text);
        return value(SxString(std::move(text)));
    }
    bool binary(const std::vector<std::uint8_t>&) { return false; }
    bool start_object(size_t) { return open(SxParserAst::Object); }
    bool start_array(size_t) { return open(SxParserAst::Array); }
    bool end_object() { return close(); }
    bool end_array() { return close(); }
    bool key(std::string& text) {
        refuseNul(text);
        nextKey = std::move(text);
        return true;
    }
    bool parse_error(size_t, const std::string& lastRead, const nlohmann::json::exception& e) {
        if (e.id == 406)
            throw SxException("The number " + excerpt(lastRead) + " is too large", UNIT, __LINE__);
        const std::string_view what = e.what();
        const size_t from = std::min(what.find("syntax error"), what.size());
        const SxString reason(what.substr(from, what.find("; last read") - from));
        throw SxException(excerpt(reason, 160) + ", near '" + excerpt(lastRead) + "'", UNIT, __LINE__);
    }

    SxSymbol root;

private:
    template<class T>
    bool value(T&& v) {
        place().set(std::forward<T>(v));
        return true;
    }
    bool open(SxParserAst::ElemType type) {
        SxSymbol container = place();
        container.setType(type);
        stack.push_back(std::move(container));
        return true;
    }
    bool close() {
        stack.pop_back();
        return true;
    }
    SxSymbol place() {
        if (++nElements > SxJSONParser::MAX_ELEMENTS) {
            throw SxException(SxString("There are more than ") + SxJSONParser::MAX_ELEMENTS + " elements",
                              UNIT, __LINE__);
        }
        if (stack.empty()) {
            root.setType(SxParserAst::Null);
            return root;
        }
        SxSymbol& parent = stack.back();
        return parent.getType() == SxParserAst::Object ? parent.append(nextKey, SxParserAst::Null)
                                                       : parent.append(SxParserAst::Null);
    }
    static void refuseNul(const std::string& text) {
        if (text.find('\0') != std::string::npos) {
            throw SxException("The text \"" + excerpt(text) + "\" holds a NUL character", UNIT, __LINE__);
        }
    }

    std::vector<SxSymbol> stack;
    SxString nextKey;
    int64 nElements = 0;
};

SxString position(std::string_view text, size_t nRead) {
    const std::string_view before = text.substr(0, nRead > 0 ? nRead - 1 : 0);
    const auto line = std::count(before.begin(), before.end(), '\n') + 1;
    const auto lineStart = before.rfind('\n') + 1;
    return SxString("line ") + line + ", column " + (before.size() - lineStart + 1);
}

SxSymbol parse(std::string_view text, const char** reached) {
    const size_t nul = text.find('\0');
    if (nul != std::string_view::npos) {
        *reached = text.data() + nul + 1;
        throw SxException("There is a NUL character", UNIT, __LINE__);
    }
    Builder builder;
    nlohmann::json::sax_parse(Cursor{text.data(), reached}, Cursor{text.data() + text.size(), reached},
                              &builder);
    return builder.root;
}

} // namespace

void SxJSONParser::readFile(const SxString& path, int n) {
    readString(SxFileIO::readUtf8(path), path, n);
}

void SxJSONParser::readString(const SxString& text, const SxString& path, int) {
    const std::string_view bytes = text;
    const char* reached = bytes.data();
    try {
        root = parse(bytes, &reached);
    } catch (const SxException& e) {
        throw SxException(e,
                          "No valid JSON in '" + path + "' at " +
                              position(bytes, static_cast<size_t>(reached - bytes.data())),
                          UNIT, __LINE__);
    }
}

SxString SxJSONParser::quote(const SxString& text) {
    if (text.str().find('\0') != std::string::npos) {
        throw SxException("The text \"" + excerpt(text) + "\" holds a NUL character", UNIT, __LINE__);
    }
    try {
        return nlohmann::json(text.str()).dump();
    } catch (const nlohmann::json::exception&) {
        throw SxException("The text \"" + excerpt(text) + "\" isn't UTF-8", UNIT, __LINE__);
    }
}
