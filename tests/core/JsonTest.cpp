#include "Failure.h"
#include "SxJSONParser.h"
#include "SxSchema.h"

#include <gmock/gmock.h>
#include <limits>

namespace {

using SxParserKit::SxSymbol;
using testing::HasSubstr;

SxSymbol parse(const std::string& text) {
    SxJSONParser parser;
    parser.readString(text, "file.json", 1);
    return parser.getRootSymbol();
}

std::string parseFailure(const std::string& text) {
    return failureOf([&] { parse(text); });
}

std::string repeat(const std::string& part, size_t n) {
    std::string all;
    for (size_t i = 0; i < n; ++i)
        all += part;
    return all;
}

TEST(Json, FaultsAreNamedWithTheirPlace) {
    const struct {
        std::string text, place, reason;
    } cases[] = {
        {"", "line 1, column 1", "unexpected end of input"},
        {"{\n  \"a\": tru\n}", "line 2, column 11", "invalid literal"},
        {std::string("{\"a\": 1}\0", 9), "line 1, column 9", "NUL"},
        {"{\"a\": \"x\\u0000y\"}", "line 1, column 16", "NUL"},
        {"{\"a\\u0000b\": 1}", "line 1, column 11", "NUL"},
        {"[\"\xC3\x28\"]", "line 1, column 4", "UTF-8"},
        {"[\"\\ud800\"]", "line 1, column 9", "surrogate"},
        {"{\"a\": {\"b\": 1,\n\"b\": 2}}", "line 2, column 7", "The key 'a.b' is there twice"},
        {"{\"a\": 1e999}", "line 1, column 12", "too large"},
        {"[" + repeat("0,", SxJSONParser::MAX_ELEMENTS) + "0]", "line 1, column ",
         "more than 2000000 elements"},
        {repeat("[", 1000000), "line 1, column 65", "64 arrays and objects"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 40));
        const std::string message = parseFailure(c.text);
        EXPECT_THAT(message, HasSubstr("No valid JSON in 'file.json' at " + c.place));
        EXPECT_THAT(message, HasSubstr(c.reason));
    }
    EXPECT_NO_THROW(parse(repeat("[", 64) + repeat("]", 64)));
    EXPECT_NO_THROW(parse("\xEF\xBB\xBF{}")) << "editors begin a file so";
}

TEST(Json, LongForeignTextIsCut) {
    const std::string longText = repeat("\xC3\xA4", 500000);
    const SxSymbol inner = parse("{\"" + longText + "\": {\"a\": \"" + longText + "\"}}").at(0);
    const std::string messages[] = {
        parseFailure("{\"a\": \"" + longText + "\n"),
        parseFailure("{\"a\": 1" + repeat("1", 1000000) + "}"),
        failureOf([&] { inner.toInt(); }),
        failureOf([&] { inner.getElem("a").toInt(); }),
        failureOf([&] { inner.getElem(longText); }),
    };
    for (const std::string& message : messages) {
        EXPECT_LT(message.size(), 600u);
        EXPECT_GT(message.size(), 20u);
        EXPECT_NO_THROW(SxJSONParser::quote(message)) << "cut within a character: " << message;
    }
}

TEST(Json, NumbersAreExact) {
    const struct {
        const char* text;
        const char* fault; // of toInt(), or null
        int64 value;
    } cases[] = {
        {"9223372036854775807", nullptr, std::numeric_limits<int64>::max()},
        {"-9223372036854775808", nullptr, std::numeric_limits<int64>::min()},
        {"9007199254740993", nullptr, 9007199254740993}, // no double
        {"9223372036854775808",
         "'a' is the integer 9223372036854775808, which is outside the range of 64 bits", 0},
        {"18446744073709551616", "18446744073709551616, which is outside", 0},
        {"1e3", nullptr, 1000},
        {"9007199254740991.0", nullptr, 9007199254740991},
        {"9007199254740992.0", "'a' is the number 9007199254740992.0; expected a 64-bit integer", 0},
        {"5.5", "'a' is the number 5.5; expected a 64-bit integer", 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.text);
        const SxSymbol root = parse("{\"a\":" + std::string(c.text) + "}");
        const SxSymbol again = parse(root.toJson().str());
        for (const SxSymbol& symbol : {root.getElem("a"), again.getElem("a")}) {
            if (c.fault) {
                EXPECT_THAT(failureOf([&] { symbol.toInt(); }), HasSubstr(c.fault));
            } else {
                EXPECT_EQ(symbol.toInt(), c.value);
            }
        }
    }
    SxSymbol array;
    array.setType(SxParserAst::Array);
    for (const double number : {0.1, 1.0, 5e-324, 1.7976931348623157e308, 1e16}) {
        array.append(number);
        const SxSymbol back = parse(array.toJson().str()).at(array.getSize() - 1);
        EXPECT_EQ(back.getType(), SxParserAst::Double) << number;
        EXPECT_EQ(back.toDouble(), number);
    }
    EXPECT_THAT(failureOf([&] { array.append(9223372036854775808ull); }), HasSubstr("9223372036854775808"));
    EXPECT_THAT(failureOf([&] { array.append(std::numeric_limits<double>::quiet_NaN()); }),
                HasSubstr("the number nan"));
}

TEST(Json, BuiltTreesKeepOrderAndHandles) {
    SxSymbol root;
    root.setType(SxParserAst::Object);
    root.append("z", 1);
    SxSymbol list = root.append("list", SxParserAst::Array);
    SxSymbol inner = list.append(SxParserAst::Object);
    inner.append("k", 1);
    for (int i = 0; i < 1000; ++i)
        list.append(i);
    EXPECT_THAT(failureOf([&] { inner.append("k", 1); }), HasSubstr("The key 'list[0].k' is there twice"));
    list.setType(SxParserAst::Array);
    EXPECT_EQ(inner.getKeyPath(), "") << "an element that was taken out stands alone";
    list.append(5u).set("t\xC3\xA4\n\"\\\x01");
    root.append("end", 2.0);
    root.setElem("z", "new");
    EXPECT_EQ(root.toJson(), "{\"z\":\"new\",\"list\":[\"t\xC3\xA4\\n\\\"\\\\\\u0001\"],\"end\":2.0}");

    const auto nest = [list]() mutable {
        for (int i = 0; i < 100; ++i)
            list = list.append(SxParserAst::Array);
    };
    EXPECT_THAT(failureOf(nest), HasSubstr("64 arrays and objects"));
    root.setElem("z", SxString("\xFF"));
    EXPECT_THAT(failureOf([&] { root.toJson(); }), HasSubstr("'z' can't be written"));
}

TEST(Json, ASchemaNamesWhatItDoesNotAllow) {
    const SxSchema schema(parse(R"({"type": "object", "required": ["app"], "properties": {
        "app": {"type": "object", "required": ["cmd"],
                "properties": {"cmd": {"type": "string", "maxLength": 3}}},
        "list": {"type": "array", "items": {"type": "integer", "minimum": 0}},
        "any": {"enum": [1, "x"]}}})"));
    EXPECT_NO_THROW(schema.validate(parse(
        R"({"app": {"cmd": "ä\n", "more": 1}, "list": [9223372036854775807], "any": "x", "other": {}})")));
    const std::pair<const char*, const char*> cases[] = {
        {"[]", "The root element is an array; expected an object"},
        {"{}", "The mandatory key 'app' is missing"},
        {R"({"app": {}})", "The mandatory key 'app.cmd' is missing"},
        {R"({"app": {"cmd": 7}})", "'app.cmd' is the integer 7; expected a text"},
        {R"({"app": {"cmd": "long"}})", "'app.cmd' doesn't match its schema"},
        {R"({"app": {"cmd": ""}, "list": [0, null]})", "'list[1]' is null; expected a 64-bit integer"},
        {R"({"app": {"cmd": ""}, "list": [-1]})", "'list[0]' doesn't match its schema"},
        {R"({"app": {"cmd": ""}, "list": [9223372036854775808]})",
         "'list[0]' is the integer 9223372036854775808, which is outside the range of 64 bits; expected"},
        {R"({"app": {"cmd": ""}, "any": 2})", "'any' doesn't match its schema"},
    };
    for (const auto& [text, fault] : cases) {
        // clang 14 can't capture a structured binding.
        const auto& document = text;
        EXPECT_THAT(failureOf([&] { schema.validate(parse(document)); }), HasSubstr(fault));
    }
    for (const char* text : {"5", R"({"type": 5})", R"({"properties": []})", R"({"$ref": "#/nowhere"})"}) {
        EXPECT_THAT(failureOf([&] { SxSchema none(parse(text)); }), HasSubstr("Not a valid JSON schema"));
    }
}

TEST(Json, ManyKeysAndManyFaultsAreCheap) {
    // In quadratic time neither would end.
    const SxSchema schema(parse(R"({"type": "array", "items": {"type": "string"}})"));
    const SxSymbol bad = parse("[" + repeat("1,", 999999) + "1]");
    EXPECT_THAT(failureOf([&] { schema.validate(bad); }),
                HasSubstr("'[0]' is the integer 1; expected a text"));
    std::string wide = "{";
    for (int i = 0; i < 500000; ++i)
        wide += "\"k" + std::to_string(i) + "\":0,";
    EXPECT_THAT(parseFailure(wide + "\"k3\":7}"), HasSubstr("'k3' is there twice"));
}

} // namespace
