#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxJSONParser.h"
#include "SxSchema.h"
#include "ZqSysEnv.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <functional>
#include <limits>

namespace {

using SxParserKit::SxSymbol;

SxSymbol parse(const std::string& text) {
    SxJSONParser parser;
    parser.readString(text, "file.json", 1);
    return parser.getRootSymbol();
}

/// The messages of the failure, or "no failure".
std::string failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const SxException& e) {
        return e.what();
    }
    return "no failure";
}

std::string parseFailure(const std::string& text) {
    return failureOf([&] { parse(text); });
}

void expectContains(const std::string& text, const std::string& part) {
    EXPECT_NE(text.find(part), std::string::npos) << "'" << part << "' isn't in: " << text;
}

std::string repeat(const std::string& part, size_t n) {
    std::string all;
    for (size_t i = 0; i < n; ++i)
        all += part;
    return all;
}

const char* const FULL_APP = R"({
    "version": 2, "zqfVersion": 1, "guid": "5a3d", "extra": {"any": [null, 1.5, -1e400000000000, true]},
    "app": {"cmd": "{{ZQDRIVE}}/game/g\u00fc\"\\.exe", "args": ["-a", "b c", ""], "name": "game.exe", "delay": 0},
    "disk": {"mountMode": "rtw", "sizeMnt": 0, "sizeZqf": 9223372036854775807, "sizeIdx": 8, "cacheSize": 64},
    "access": ["epic"], "dirmap": [{"from": "C:/x", "more": 1}], "filemap": [{"from": "C:/y/z.ini"}],
    "registry": [{"key": "HKCU\\A", "value": "B", "data": "\ud83d\ude00", "regType": "REG_SZ"}],
    "underflow": {"suspendDrive": true, "suspendProc": false, "window": "Game", "delay": 5, "minOnDemand": 1,
                  "maxOnDemand": 2},
    "loadprofile": [{"time": 0, "size": 4096}, {"time": 60, "size": 8192}],
    "preload": {"minPreload": 1, "minPreloadMB": 2, "minBandwidth": 3},
    "checksums": {"zqf": "a", "idx": "b", "mnt": "c"}
})";

const char* const LEAN_APP = R"({"version":3,"zqfVersion":1,"guid":"","app":{"cmd":""},
    "disk":{"mountMode":"odd"},
    "underflow":{"suspendDrive":false,"suspendProc":false,"minOnDemand":0,"maxOnDemand":0}})";

const char* const FULL_IMG = R"({"version":2,"guid":"x","sizeRaw":4096,"emulatedSectorSize":512,
    "deviceMode":"other","filesystem":"none","driverVersion":"0.0.0","unknown":[]})";

const char* const LEAN_IMG = R"({"version":1,"guid":"","sizeRaw":0,"emulatedSectorSize":4096})";

std::string fullApp() {
    return SxString(FULL_APP).substitute("-1e400000000000", "-1e300").str();
}

/// A copy of `text` with its first `from` replaced.
std::string edit(const std::string& text, const std::string& from, const std::string& to) {
    EXPECT_NE(text.find(from), std::string::npos) << from;
    return SxString(text).substitute(from, to, 1).str();
}

SxSchema schemaOf(const char* name) {
    SxJSONParser parser;
    parser.readFile(ZqSysEnv::getSchemaPath() + name, 1);
    return SxSchema(parser.getAst());
}

TEST(Json, EveryTruncationIsRefused) {
    const std::string text = fullApp();
    ASSERT_NO_THROW(parse(text));
    for (size_t n = 0; n < text.size(); n += text.size() / 50) {
        const std::string message = parseFailure(text.substr(0, n));
        expectContains(message, "No valid JSON in 'file.json' at line ");
    }
}

TEST(Json, FaultsAreNamedWithTheirPlace) {
    struct Case {
        std::string text, place, reason;
    };
    const Case cases[] = {
        {"", "line 1, column 1", "unexpected end of input"},
        {"{\n  \"a\": tru\n}", "line 2, column 11", "invalid literal"},
        {"{\"a\": 1}\n]", "line 2, column 1", "expected end of input"},
        {"{\"a\": 1} x", "line 1, column 10", "invalid literal"},
        {std::string("{\"a\": 1}\0", 9), "line 1, column 9", "NUL"},
        {std::string("{\"a\": \"x\0y\"}", 12), "line 1, column 9", "NUL"},
        {"{\"a\": \"x\\u0000y\"}", "line 1, column 16", "NUL"},
        {"{\"a\\u0000b\": 1}", "line 1, column 11", "NUL"},
        {"[\"\xC3\x28\"]", "line 1, column 4", "UTF-8"},
        {"[\"\xED\xA0\x80\"]", "line 1, column 4", "UTF-8"},
        {"[\"\\ud800\"]", "line 1, column 9", "surrogate"},
        {"\xFF\xFE{", "line 1, column 1", "invalid"},
        {"{\"a\": {\"b\": 1,\n\"b\": 2}}", "line 2, column 7", "The key 'a.b' is there twice"},
        {"{\"a\": 1e999}", "line 1, column 12", "too large"},
        {"{\"a\": 01}", "line 1, column 9", "syntax error"},
        {"{\"a\": NaN}", "line 1, column 7", "invalid literal"},
        {"// no\n{}", "line 1, column 1", "invalid literal"},
        {"[" + repeat("0,", SxJSONParser::MAX_ELEMENTS) + "0]", "line 1, column ",
         "more than 2000000 elements"},
        {repeat("[", 1000000), "line 1, column 65", "64 arrays and objects"},
        {repeat("{\"a\":", 1000000), "line 1, column 321", "64 arrays and objects"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text.substr(0, 40));
        const auto start = std::chrono::steady_clock::now();
        const std::string message = parseFailure(c.text);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
        expectContains(message, "'file.json' at " + c.place);
        expectContains(message, c.reason);
        EXPECT_LT(message.size(), 600u);
    }
    EXPECT_NO_THROW(parse(repeat("[", 64) + repeat("]", 64)));
    EXPECT_NO_THROW(parse("\xEF\xBB\xBF{}")) << "editors begin a file so";
}

TEST(Json, LongForeignTextIsCut) {
    const std::string longText = repeat("\xC3\xA4", 500000);
    const SxSymbol root = parse("{\"" + longText + "\": {\"a\": \"" + longText + "\"}}");
    const SxSymbol inner = root.at(0);
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
        EXPECT_NO_THROW(SxJSONParser::quote(message)) << message;
    }
    // Many keys whose lookups must not take quadratic time.
    std::string wide = "{";
    for (int i = 0; i < 500000; ++i)
        wide += "\"k" + std::to_string(i) + "\":0,";
    const SxSymbol object = parse(wide + "\"last\":7}");
    EXPECT_EQ(object.getSize(), 500001);
    EXPECT_EQ(object.getElem("last").toInt(), 7);
    EXPECT_EQ(object.getElem("k0").toInt(), 0);
    EXPECT_FALSE(object.hasElem("k500000"));
    expectContains(parseFailure(wide + "\"k3\":7}"), "'k3' is there twice");
}

TEST(Json, NumbersAreExact) {
    struct Case {
        const char* text;
        const char* fault; // of toInt(), or null
        int64 value;
    };
    const Case cases[] = {
        {"9223372036854775807", nullptr, std::numeric_limits<int64>::max()},
        {"-9223372036854775808", nullptr, std::numeric_limits<int64>::min()},
        {"9007199254740993", nullptr, 9007199254740993}, // no double
        {"-0", nullptr, 0},
        {"9223372036854775808",
         "'a' is the integer 9223372036854775808, which is outside the range of 64 bits", 0},
        {"-9223372036854775809", "-9223372036854775809, which is outside", 0},
        {"18446744073709551616", "18446744073709551616, which is outside", 0},
        {"5.0", nullptr, 5},
        {"1e3", nullptr, 1000},
        {"9007199254740991.0", nullptr, 9007199254740991},
        {"9007199254740992.0", "'a' is the number 9007199254740992.0; expected a 64-bit integer", 0},
        {"5.5", "'a' is the number 5.5; expected a 64-bit integer", 0},
        {"5.5", "'a' is the number 5.5; expected a 64-bit integer", 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        const SxSymbol root = parse(SxString("{\"a\":").str() + c.text + "}");
        const SxSymbol again = parse(root.toJson().str());
        for (const SxSymbol& symbol : {root.getElem("a"), again.getElem("a")}) {
            if (c.fault) {
                expectContains(failureOf([&] { symbol.toInt(); }), c.fault);
            } else {
                EXPECT_EQ(symbol.toInt(), c.value);
            }
        }
        EXPECT_EQ(root.toJson(), again.toJson());
    }
    for (const double number :
         {0.1, 1.0, -0.0, 5e-324, 1.7976931348623157e308, 1e16, 123456789012345680.0, 1e-7}) {
        SxSymbol array;
        array.setType(SxParserAst::Array);
        array.append(number);
        const double back = parse(array.toJson().str()).at(0).toDouble();
        EXPECT_EQ(parse(array.toJson().str()).at(0).getType(), SxParserAst::Double) << number;
        EXPECT_EQ(std::signbit(back), std::signbit(number));
        EXPECT_EQ(back, number);
    }
    SxSymbol object;
    object.setType(SxParserAst::Object);
    EXPECT_EQ(object.append("max", 9223372036854775807ull).toInt(), std::numeric_limits<int64>::max());
    expectContains(failureOf([&] { object.append("x", 9223372036854775808ull); }), "9223372036854775808");
    expectContains(failureOf([&] { object.append("nan", std::numeric_limits<double>::quiet_NaN()); }),
                   "'nan'");
}

TEST(Json, WrongTypesNameThePathAndBothTypes) {
    const SxSymbol root = parse(fullApp());
    struct Case {
        std::function<void()> action;
        const char* fault;
    };
    const SxSymbol app = root.getElem("app", true);
    const Case cases[] = {
        {[&] { app.getElem("nothing", true); }, "The mandatory key 'app.nothing' is missing"},
        {[&] { root.getElem("nothing", true); }, "The mandatory key 'nothing' is missing"},
        {[&] { app.getElem("args").toIntList(); },
         "'app.args[0]' is the text \"-a\"; expected a 64-bit integer"},
        {[&] { app.getElem("delay").toString(); }, "'app.delay' is the integer 0; expected a text"},
        {[&] { app.getElem("delay").toBool(); }, "expected a boolean"},
        {[&] { app.getElem("name").toDouble(); }, "expected a number"},
        {[&] { app.toList(); }, "'app' is an object; expected an array"},
        {[&] { app.getElem("args").getElem("x"); }, "'app.args' is an array; expected an object"},
        {[&] { root.getElem("extra").getElem("any").at(0).toInt(); }, "'extra.any[0]' is null"},
        {[&] { root.getElem("loadprofile").at(1).getElem("time").toString(); }, "'loadprofile[1].time'"},
        {[&] { root.toInt(); }, "The root element is an object"},
        {[&] { SxSymbol().toInt(); }, "isn't there"},
    };
    for (const Case& c : cases)
        expectContains(failureOf(c.action), c.fault);
    EXPECT_FALSE(root.getElem("nothing", false).isValid());
}

TEST(Json, BuiltTreesKeepOrderAndHandles) {
    SxSymbol root;
    root.setType(static_cast<SxParserAst::ElemType>(7));
    root.append("z", 1);
    SxSymbol list = root.append("list", static_cast<SxParserAst::ElemType>(6));
    list.append("first");
    SxSymbol inner = list.append(SxParserAst::Object);
    for (int i = 0; i < 1000; ++i)
        list.append(i);
    for (int i = 0; i < 40; ++i)
        inner.append(SxString("k") + i, true);
    root.append("a", SxString("t\xC3\xA4\n\"\\\x01"));
    root.setElem("z", "new");
    root.setElem("end", 2.0);
    EXPECT_EQ(list.at(0).toString(), "first");
    EXPECT_EQ(inner.getSize(), 40);
    EXPECT_TRUE(inner.getElem("k39").toBool());
    expectContains(failureOf([&] { inner.append("k17", 1); }), "The key 'list[1].k17' is there twice");

    list.setType(SxParserAst::Array);
    EXPECT_EQ(inner.getKeyPath(), "") << "an element that was taken out stands alone";
    EXPECT_EQ(root.toJson(), "{\"z\":\"new\",\"list\":[],\"a\":\"t\xC3\xA4\\n\\\"\\\\\\u0001\",\"end\":2.0}");
    list.append(5u).set("six");
    EXPECT_EQ(root.getElem("list").toStringList(), SxList<SxString>({"six"}));
    EXPECT_EQ(root.toJson(2), "{\n  \"z\": \"new\",\n  \"list\": [\n    \"six\"\n  ],\n"
                              "  \"a\": \"t\xC3\xA4\\n\\\"\\\\\\u0001\",\n  \"end\": 2.0\n}");

    SxSymbol deep = list;
    expectContains(failureOf([&] {
                       for (int i = 0; i < 100; ++i)
                           deep = deep.append(SxParserAst::Array);
                   }),
                   "64 arrays and objects");
    root.setElem("z", SxString("\xFF"));
    expectContains(failureOf([&] { root.toJson(); }), "'z' can't be written");
}

TEST(Json, FilesAreWrittenAndReadBack) {
    std::string folder = testing::TempDir() + "json-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const SxString path = folder + "/a.json";
    const SxSymbol root = parse(fullApp());
    root.write(path);
    SxJSONParser parser;
    parser.readFile(path, 1);
    EXPECT_EQ(parser.getRootSymbol().toJson(), root.toJson());
    const SxString text = SxFileIO::readUtf8(path);
    EXPECT_TRUE(text.startsWith("{\n    \"version\": 2,\n"));
    EXPECT_TRUE(text.endsWith("}\n"));

    SxFileIO::writeAtomic(path, "{\"half\": ");
    expectContains(failureOf([&] { parser.readFile(path, 1); }), path.str());
    EXPECT_EQ(parser.getRootSymbol().toJson(), root.toJson());
    SxFSAction::rm_r(SxString(folder));
}

TEST(Json, SchemasAcceptWhatIsAllowedAndNameWhatIsNot) {
    const SxSchema app = schemaOf("zqapp-schema.json");
    const SxSchema img = schemaOf("zqimg-schema.json");
    EXPECT_NO_THROW(app.validate(parse(fullApp())));
    EXPECT_NO_THROW(app.validate(parse(LEAN_APP)));
    EXPECT_NO_THROW(img.validate(parse(FULL_IMG)));
    EXPECT_NO_THROW(img.validate(parse(LEAN_IMG)));

    struct Case {
        const SxSchema& schema;
        std::string text, fault;
    };
    const std::string full = fullApp(), image = FULL_IMG;
    const Case cases[] = {
        {app, "[]", "The root element is an array; expected an object"},
        {app, edit(full, "\"underflow\"", "\"flow\""), "The mandatory key 'underflow' is missing"},
        {app, edit(full, "\"b c\"", "7"), "'app.args[1]' is the integer 7; expected a text"},
        {app, edit(full, "\"cmd\"", "\"kmd\""), "The mandatory key 'app.cmd' is missing"},
        {app, edit(full, "\"time\": 60", "\"time\": null"),
         "'loadprofile[1].time' is null; expected a 64-bit"},
        {app, edit(full, "\"size\": 8192", "\"size\": -1"), "'loadprofile[1].size' doesn't match"},
        {app, edit(full, "9223372036854775807", "9223372036854775808"),
         "'disk.sizeZqf' is the integer 9223372036854775808, which is outside the range of 64 bits; "
         "expected"},
        {app, edit(full, "\"sizeIdx\": 8", "\"sizeIdx\": 8.5"), "'disk.sizeIdx' is the number 8.5; expected"},
        {app, edit(full, "\"mountMode\": \"rtw\"", "\"mountMode\": 1"), "'disk.mountMode'"},
        {app, edit(full, "{\"from\": \"C:/x\"", "{\"to\": \"C:/x\""), "'dirmap[0].from' is missing"},
        {app, edit(full, "\"data\"", "\"date\""), "'registry[0].data' is missing"},
        {app, edit(full, "\"suspendProc\": false", "\"suspendProc\": 0"), "'underflow.suspendProc'"},
        {app, edit(full, "\"5a3d\"", "\"" + repeat("x", 256) + "\""), "'guid' doesn't match its schema"},
        {img, edit(image, "4096", "\"4096\""), "'sizeRaw' is the text \"4096\"; expected a 64-bit integer"},
        {img, edit(image, "\"guid\"", "\"uid\""), "The mandatory key 'guid' is missing"},
    };
    for (const Case& c : cases) {
        const std::string message = failureOf([&] { c.schema.validate(parse(c.text)); });
        expectContains(message, c.fault);
        EXPECT_LT(message.size(), 400u);
    }
}

TEST(Json, MillionsOfFaultsAreCheap) {
    const SxSchema app = schemaOf("zqapp-schema.json");
    const std::string bad = edit(LEAN_APP, "\"app\"", "\"access\":[" + repeat("1,", 999999) + "1],\"app\"");
    const SxSymbol tree = parse(bad);
    const auto start = std::chrono::steady_clock::now();
    expectContains(failureOf([&] { app.validate(tree); }), "'access[0]' is the integer 1; expected a text");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));

    const std::string tooMany =
        edit(LEAN_APP, "\"app\"", "\"access\":[" + repeat("\"\",", 1000000) + "\"\"],\"app\"");
    expectContains(failureOf([&] { app.validate(parse(tooMany)); }), "'access' doesn't match its schema");
}

TEST(Json, WhatIsNoSchemaIsRefused) {
    for (const char* text : {"5", R"({"type": 5})", R"({"properties": []})", R"({"$ref": "#/nowhere"})"}) {
        expectContains(failureOf([&] { SxSchema schema(parse(text)); }), "Not a valid JSON schema");
    }
    const SxSchema schema(
        parse(R"({"properties": {"a": {"enum": [1, "x"]}, "b": {"type": ["null", "string"]}}})"));
    EXPECT_NO_THROW(schema.validate(parse(R"({"a": "x", "b": null})")));
    expectContains(failureOf([&] { schema.validate(parse(R"({"a": 2})")); }), "'a' doesn't match its schema");
    expectContains(failureOf([&] { schema.validate(parse(R"({"b": 2})")); }), "'b' is the integer 2");
}

} // namespace
