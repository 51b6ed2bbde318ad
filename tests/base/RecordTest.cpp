#include "BaseTest.h"
#include "SxJSONParser.h"
#include "ZqAppParams.h"
#include "ZqImageParams.h"
#include "ZqRuntimeInfo.h"
#include "ZqSysEnv.h"

#include <limits>

using SxParserKit::SxSymbol;

namespace {

ZqAppParams fullApp() {
    ZqAppParams app;
    app.zqfVersion = 7;
    app.cmd = "{{ZQDRIVE}}/game/gr\u00fcn \"x\".exe";
    app.args = {"-a", "", "b c"};
    app.name = "game.exe";
    app.delay = 11;
    app.cacheSize = 64;
    app.mountMode = ZqMountMgr::ReadTWLayer;
    app.access = {"epic", "other"};
    app.registry = {{"HKCU/A", "B", ZqRegistry::RegDword, "17"}, {"HKLM/X", "", ZqRegistry::RegSz, "\u00e4"}};
    app.underflowDelay = 9;
    app.window = "Game";
    app.suspendDrive = app.suspendProc = true;
    app.minOnDemand = 1;
    app.maxOnDemand = std::numeric_limits<int64>::max();
    app.loadprofile = {{0, 4096}, {60, 1 << 20}};
    app.minPreload = 3;
    app.minBandwidth = 4;
    app.sizeZqf = 8192;
    app.sizeIdx = 24;
    app.sizeMnt = 4096;
    app.checksumZqf = "aa";
    app.checksumIdx = "bb";
    app.checksumMnt = "cc";
    app.dirmap = {"C:/users"};
    app.filemap = {"C:/x/y.ini", "C:/z"};
    return app;
}

ZqImageParams fullImage() {
    ZqImageParams image;
    image.guid = "some image";
    image.sizeRaw = 123456789;
    image.emulatedSectorSize = 512;
    image.deviceMode = ZqMountMgr::NonRemovable;
    image.filesystem = "udf";
    image.driverVersion = "1.2.3";
    return image;
}

/// A JSON record of an image folder: its file, a full example of its text, and how it is read.
struct Record {
    const char* file;
    std::string text;
    std::function<void(const SxString& prefix)> read;
};

std::string edited(const std::string& text, const std::string& from, const std::string& to) {
    EXPECT_NE(text.find(from), std::string::npos) << from;
    return SxString(text).substitute(from, to, 1).str();
}

std::vector<Record> records() {
    const TempDir dir;
    fullApp().write(dir.prefix());
    fullImage().write(dir.prefix());
    // What is written under another name than it is read by.
    const std::string app =
        edited(dir.read("app.json"), "\"minPreloadMB\"", "\"minPreload\": 3, \"minPreloadMB\"");
    return {{"app.json", app, [](const SxString& prefix) { ZqAppParams params(prefix); }},
            {"img.json", dir.read("img.json"), [](const SxString& prefix) { ZqImageParams params(prefix); }}};
}

/// Reads `text` in place of the record, expects that it is refused with `reason` and that nothing changes.
void expectRefused(const Record& record, const std::string& text, const std::string& reason) {
    const TempDir dir;
    const std::string path = dir.write(record.file, text);
    EXPECT_THAT(failureOf([&] { record.read(dir.prefix()); }),
                AllOf(StartsWith("Failed to read file " + path + ": "), HasSubstr(reason)))
        << text.substr(0, 1000);
    EXPECT_EQ(dir.snapshot("").size(), 1U);
    EXPECT_TRUE(dir.read(record.file) == text);
}

std::vector<SxSymbol> allBelow(const SxSymbol& symbol) {
    std::vector<SxSymbol> all;
    for (int64 i = 0; i < symbol.getSize(); ++i) {
        all.push_back(symbol.at(i));
        for (const SxSymbol& inner : allBelow(symbol.at(i)))
            all.push_back(inner);
    }
    return all;
}

SxSymbol parsed(const std::string& text) {
    SxJSONParser parser;
    parser.readString(text, "text");
    return parser.getRootSymbol();
}

std::string keysOf(const std::string& text) {
    const SxSymbol root = parsed(text);
    std::string keys;
    for (int64 i = 0; i < root.getSize(); ++i)
        keys += (root.at(i).getKey() + " ").str();
    return keys;
}

} // namespace

TEST(Record, WhatIsWrittenIsReadBack) {
    const TempDir dir;
    const SxString deep = dir.prefix() + "a/b/";
    ZqAppParams app = fullApp();
    app.write(deep);
    ZqAppParams again(deep);
    app.minPreload = 0; // written under another name than it is read by
    app.pathPrefix = deep;
    EXPECT_EQ(again, app);
    again.read();
    EXPECT_EQ(again, app) << "lists are replaced";

    ZqImageParams image = fullImage();
    image.write(deep);
    image.pathPrefix = deep;
    EXPECT_EQ(ZqImageParams(deep), image);
    EXPECT_EQ(keysOf(dir.read("a/b/img.json")),
              "version guid sizeRaw emulatedSectorSize deviceMode filesystem driverVersion ");

    app.delay = app.underflowDelay = 0;
    app.write();
    again.read();
    EXPECT_EQ(again.delay, 11) << "a delay of 0 isn't written, and an absent key changes nothing";
    EXPECT_EQ(ZqAppParams(deep).delay + ZqAppParams(deep).underflowDelay, 10);
    ZqAppParams().write(deep);
    EXPECT_EQ(keysOf(dir.read("a/b/app.json")), "version zqfVersion guid app disk underflow ");
    EXPECT_NE(ZqAppParams().guid, ZqAppParams().guid);
}

TEST(Record, AbsentKeysOfImageParamsAreDefaults) {
    const TempDir dir;
    ZqImageParams image = fullImage();
    const std::string lean =
        R"({"guid": "g", "sizeRaw": 1, "emulatedSectorSize": 2, "version": 2, "more": {})";
    dir.write("img.json", lean + "}");
    image.read(dir.prefix());
    EXPECT_EQ(image.deviceMode, ZqMountMgr::Removable);
    EXPECT_EQ(image.filesystem + image.driverVersion, "ntfs3.3.4");
    for (const char* mode : {"non-removable", "Removable", ""}) {
        dir.write("img.json", lean + R"(, "deviceMode": ")" + mode + "\"}");
        image.read(dir.prefix());
        EXPECT_EQ(image.deviceMode, ZqMountMgr::NonRemovable) << mode;
    }
}

TEST(Record, EveryTruncationIsRefused) {
    for (const Record& record : records()) {
        for (size_t i = 0; i < 50; ++i) {
            expectRefused(record, record.text.substr(0, record.text.size() * i / 50), "No valid JSON");
        }
    }
}

TEST(Record, EveryWrongValueIsRefused) {
    const std::string signedKeys = "version zqfVersion app.delay underflow.delay";
    const char* values[] = {"null",
                            "true",
                            "17",
                            "17.5",
                            "17.5",
                            "\"17\"",
                            "[]",
                            "{}",
                            "[[1]]",
                            "[null]",
                            "-1",
                            "9223372036854775808",
                            "-9223372036854775809"};
    for (const Record& record : records()) {
        const size_t n = allBelow(parsed(record.text)).size();
        for (size_t i = 0; i < n; ++i) {
            const SxSymbol copy = parsed(record.text);
            SxSymbol there = allBelow(copy)[i];
            const auto type = there.getType();
            const std::string name = there.getKeyPath().str();
            there.set("@@");
            for (const std::string value : values) {
                const bool isSigned = signedKeys.find(name) != std::string::npos;
                const SxSymbol put = parsed("[" + value + "]").at(0);
                const bool isRight =
                    put.getType() == type && (value != "-1" || isSigned) && put.getSize() == 0;
                SCOPED_TRACE(name + " = " + value);
                if (!isRight) expectRefused(record, edited(copy.toJson().str(), "\"@@\"", value), name);
            }
        }
    }
}

TEST(Record, OtherBadRecordsAreRefused) {
    const std::vector<Record> all = records();
    for (const Record& record : all) {
        for (const char* version : {"1", "3", "-2"}) {
            expectRefused(record,
                          edited(record.text, "\"version\": 2", std::string("\"version\": ") + version),
                          "File version of '");
        }
        for (const std::string open : {"[", "{\"a\":"}) {
            std::string nested;
            for (int i = 0; i < 1'000'000; ++i)
                nested += open;
            expectRefused(record, nested, "No valid JSON");
        }
        expectRefused(record, "[]", "");
        expectRefused(record, record.text + record.text, "No valid JSON");

        const TempDir dir;
        fs::resize_file(dir.write(record.file, record.text), 1 << 30);
        EXPECT_THAT(failureOf([&] { record.read(dir.prefix()); }),
                    HasSubstr("is too large: 1073741824 bytes"));
        EXPECT_THAT(failureOf([&] { record.read(dir.prefix() + "none/"); }),
                    StartsWith("Failed to read file " + dir.path("none/") + record.file + ": File "));
        EXPECT_THAT(failureOf([&] { record.read(""); }), HasSubstr("Path prefix is empty."));
        ZqSysEnv::setSchemaPath(dir.prefix());
        expectRefused(record, record.text, "Required schema file " + dir.path("zq"));
        ZqSysEnv::setSchemaPath("");
    }
    for (const std::string key : {"version", "zqfVersion", "guid", "app", "cmd", "disk", "mountMode",
                                  "underflow", "suspendDrive", "suspendProc", "minOnDemand", "maxOnDemand",
                                  "from", "key", "value", "regType", "data", "time", "size"}) {
        expectRefused(all[0], edited(all[0].text, "\"" + key + "\":", "\"other\":"), key + "' is missing");
    }
    for (const std::string key : {"version", "guid", "sizeRaw", "emulatedSectorSize"}) {
        expectRefused(all[1], edited(all[1].text, "\"" + key + "\":", "\"other\":"), key + "' is missing");
    }
    expectRefused(all[0], edited(all[0].text, "\"rtw\"", "\"RW\""), "Invalid 'mountMode' value");
    expectRefused(all[0], edited(all[0].text, "REG_DWORD", "REG_OTHER"), "REG_OTHER");
}

TEST(Record, LoadProfile) {
    const uint64 most = std::numeric_limits<uint64>::max();
    // Points, megabit per second, bytes needed ahead of the start.
    const std::tuple<SxList<ZqLoadProfilePoint>, double, uint64> needed[] = {
        {{}, 8, 0},
        {{{0, 500}, {2, 4'000'000}}, 8, 2'000'000},
        {{{0, 500}, {2, 4'000'000}}, 16, 500},
        {{{3, 100}}, 0.0000081, 97}, // 1.0125 bytes per second count as 1
        {{{0, 500}, {10, most}}, 1e300, 500},
        {{{2, most}}, 80e6, most - 20'000'000'000'000}};
    for (const auto& [points, speed, nInit] : needed)
        EXPECT_EQ(ZqLoadProfilePoint::getNInit(points, speed), nInit);
    // Points, bytes there, bytes per second asked for.
    const std::tuple<SxList<ZqLoadProfilePoint>, uint64, uint64> speeds[] = {
        {{}, 1, 0},
        {{{0, 500}, {10, 300}}, 100, 400},
        {{{10, 300}, {4, 301}}, 200, 26},
        {{{10, 300}}, 301, 0},
        {{{2, most}}, 0, most / 2 + 1}};
    for (const auto& [points, nInit, speed] : speeds)
        EXPECT_EQ(ZqLoadProfilePoint::getBpS(points, nInit), speed);
    ZqAppParams app;
    app.sizeZqf = 77;
    EXPECT_EQ(app.getNInit(8), 77U) << "without a profile";
    app.loadprofile = {{0, 500}, {2, 4'000'000}};
    EXPECT_EQ(app.getNInit(0), 77U);
    EXPECT_EQ(app.getBpS(0), 0U);
    EXPECT_EQ(app.getBpS(500), 1'999'750U);
}

TEST(Record, RuntimeInfo) {
    const TempDir dir;
    ZqRuntimeInfo info;
    info.path = dir.path("a/b");
    info.avgSpeed = 1.5;
    info.exitCode = -9;
    info.write("");
    EXPECT_EQ(
        keysOf(dir.read("a/b/runtime.json")),
        "version guid time0 nStarts runTime preloadSize timeToStart dataAtStart dataAtEnd downloadFromZero "
        "downloadComplete avgSpeed sigmaSpeed reqSpeed prefetchSizeMB nUnderflows avgUnderflowTime "
        "avgUnderflowSize maxUnderflowTime maxUnderflowSize nOnDemandFetches avgOnDemandSize avgOnDemandTime "
        "maxOnDemandTime avgOnDemandQueue maxOnDemandQueue exitCode ");
    EXPECT_THAT(dir.read("a/b/runtime.json"),
                AllOf(HasSubstr("\"avgSpeed\": 1.5"), HasSubstr("\"downloadFromZero\": false"),
                      HasSubstr("\"exitCode\": -9"), HasSubstr("\"sigmaSpeed\": 0.0"),
                      HasSubstr("\"nStarts\": 0")));
    info.reqSpeed = std::numeric_limits<double>::infinity();
    EXPECT_THAT(failureOf([&] { info.write(dir.path("a/b/")); }),
                StartsWith("Failed to write file " + dir.path("a/b/runtime.json") + ": "));

    info.clientToken = info.orgName = info.rteVer = "kept";
    info.createStats.begin(1000);
    info.createStats.end(4999, 10);
    EXPECT_EQ(info.createStats, (ZqRuntimeInfo::Stats{true, 3, 10, 3}));
    const SxString id = info.id;
    info.reset();
    EXPECT_NE(info.id, id);
    EXPECT_EQ(info.clientToken + info.orgName + info.rteVer, "keptkeptkept");
    EXPECT_EQ(info.path + info.guid, "XXXXXXXX-XXXX-4XXX-XXXX-XXXXXXXXXXXX");
    EXPECT_EQ(info.avgSpeed, 0);
    EXPECT_EQ(info.createStats, ZqRuntimeInfo::Stats());
}
