#include "BaseTest.h"
#include "SxJSONParser.h"
#include "ZqAppParams.h"
#include "ZqImageParams.h"
#include "ZqRuntimeInfo.h"
#include "ZqStartForecast.h"
#include "ZqSysEnv.h"
#include "ZqTraceParams.h"

#include <limits>

using SxParserKit::SxSymbol;

namespace {

/// A JSON record of an image folder: its file, a full example as it is written, and how it is read and
/// written.
struct Record {
    const char* file;
    std::string text;
    std::function<void(const SxString& prefix)> rewrite;
    std::function<void(const SxString& prefix)> writeDefault;
};

const Record APP = {"app.json", R"({
    "version": 2, "zqfVersion": 7, "guid": "g\u00e4\"",
    "app": {"cmd": "{{ZQDRIVE}}/x", "args": ["-a", "", "b c"], "name": "game.exe", "delay": 11},
    "disk": {"sizeZqf": 8192, "sizeIdx": 24, "sizeMnt": 4096, "cacheSize": 64, "mountMode": "rtw"},
    "access": ["epic"], "dirmap": [{"from": "C:/u"}], "filemap": [{"from": "C:/v"}, {"from": "C:/w"}],
    "registry": [{"key": "HKCU/A", "value": "B", "regType": "REG_DWORD", "data": "17"}],
    "loadprofile": [{"time": 0, "size": 4096}, {"time": 60, "size": 9223372036854775807}],
    "preload": {"minPreload": 3, "minBandwidth": 4}, "checksums": {"mnt": "c", "idx": "b", "zqf": "a"},
    "underflow": {"window": "Game", "delay": 9, "suspendDrive": true, "suspendProc": true, "minOnDemand": 1,
                  "maxOnDemand": 2}})",
                    [](const SxString& prefix) { ZqAppParams(prefix).write(); },
                    [](const SxString& prefix) { ZqAppParams().write(prefix); }};
const Record IMAGE = {"img.json", R"({
    "version": 2, "guid": "g", "sizeRaw": 123456789, "emulatedSectorSize": 512, "deviceMode": "non-removable",
    "filesystem": "udf", "driverVersion": "1.2.3", "volume": "erofs"})",
                      [](const SxString& prefix) { ZqImageParams(prefix).write(); },
                      [](const SxString& prefix) { ZqImageParams().write(prefix); }};

const Record TRACE = {"trace.json", R"({
    "version": 2, "time0": 1700000000000, "method": "inc-monitoring", "guid": "g", "size": 32, "duration": 7,
    "firstSessionBlockIndex": 9, "checksums": {"mnt": "c", "idx": "b", "trc": "a"}, "sources": [
        {"name": "r", "record": "d", "size": 16, "time0": 1700000000000, "trc": "e"}]})",
                      [](const SxString& prefix) { ZqTraceParams(prefix).write(); },
                      [](const SxString& prefix) { ZqTraceParams().write(prefix); }};

SxSymbol parsed(const std::string& text) {
    SxJSONParser parser;
    parser.readString(text, "text");
    return parser.getRootSymbol();
}

std::string edited(const std::string& text, const std::string& from, const std::string& to) {
    EXPECT_NE(text.find(from), std::string::npos) << from;
    return SxString(text).substitute(from, to, 1).str();
}

/// Reads `text` in place of the record, expects that it is refused with `reason` and that nothing changes.
void expectRefused(const Record& record, const std::string& text, const std::string& reason) {
    const TempDir dir;
    const std::string path = dir.write(record.file, text);
    EXPECT_THAT(failureOf([&] { record.rewrite(dir.prefix()); }),
                AllOf(StartsWith("Failed to read file " + path + ": "), HasSubstr(reason)))
        << text.substr(0, 1000);
    EXPECT_TRUE(dir.snapshot("").size() == 1 && dir.read(record.file) == text);
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

} // namespace

TEST(Record, WhatIsReadIsWritten) {
    const TempDir dir;
    for (const Record& record : {APP, IMAGE, TRACE}) {
        dir.write(record.file, record.text);
        record.rewrite(dir.prefix());
        const SxString expected =
            SxString(record.text).substitute("minPreload", "minPreloadMB"); // on purpose
        EXPECT_EQ(parsed(dir.read(record.file)).toJson(), parsed(expected.str()).toJson());
        record.writeDefault(dir.path("deep/er/"));
    }
    const SxString defaults =
        R"({"version": 2, "zqfVersion": 1, "guid": "@", "app": {"cmd": "{{ZQDRIVE}}/path/to/app",
        "delay": 5}, "disk": {"mountMode": "ro"}, "underflow": {"delay": 5, "suspendDrive": false, "suspendProc": false,
        "minOnDemand": 819200, "maxOnDemand": 8192000}})";
    const SxString guid = ZqAppParams(dir.path("deep/er/")).guid;
    EXPECT_NE(guid, ZqAppParams().guid);
    EXPECT_EQ(parsed(dir.read("deep/er/app.json")).toJson(),
              parsed(defaults.substitute("@", guid).str()).toJson());
    const ZqImageParams image(dir.path("deep/er/"));
    EXPECT_TRUE(image.emulatedSectorSize == 4096 && image.sizeRaw == 0 &&
                image.deviceMode == ZqDriveKinds::Removable);
    EXPECT_EQ(image.filesystem + image.driverVersion, "ntfs3.3.4");

    // Keys that are absent: defaults in img.json, no change in app.json. Lists are replaced.
    ZqAppParams app(dir.prefix());
    ZqImageParams again(dir.prefix());
    app.read(dir.path("deep/er/"));
    app.read(dir.prefix());
    EXPECT_EQ(app, ZqAppParams(dir.prefix()));
    dir.write("img.json",
              R"({"guid": "g", "sizeRaw": 1, "emulatedSectorSize": 2, "version": 2, "more": {}})");
    again.read();
    EXPECT_EQ(again.filesystem + again.driverVersion + again.volume, "ntfs3.3.4");
    EXPECT_EQ(again.deviceMode, ZqDriveKinds::Removable);
    dir.write("img.json", edited(IMAGE.text, "non-removable", "Removable"));
    EXPECT_EQ(ZqImageParams(dir.prefix()).deviceMode, ZqDriveKinds::NonRemovable);
}

TEST(Record, PreloadAndDelaysSurviveWriting) {
    struct Case {
        std::string preload, delay;
        uint64 minPreload;
        int64 delayRead;
    };
    const Case cases[] = {
        {R"("minPreload": 3)", "0", 3, 0},
        {R"("minPreloadMB": 4)", "-1", 4, -1},
        {R"("minPreloadMB": 4, "minPreload": 3)", "5", 3, 5},
        {R"("minPreload": 0, "minPreloadMB": 4)", "6", 0, 6},
        {R"("none": 1)", "0", 0, 0},
    };
    const TempDir dir;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.preload);
        std::string text = edited(APP.text, R"("minPreload": 3)", c.preload);
        text = edited(edited(text, R"("delay": 11)", "\"delay\": " + c.delay), R"("delay": 9)",
                      "\"delay\": " + c.delay);
        dir.write("app.json", text);
        const ZqAppParams first(dir.prefix());
        EXPECT_EQ(first.minPreload, c.minPreload);
        EXPECT_TRUE(first.delay == c.delayRead && first.underflowDelay == c.delayRead);
        first.write();
        EXPECT_EQ(ZqAppParams(dir.prefix()), first);
    }
}

TEST(Record, EveryTruncationIsRefused) {
    for (const Record& record : {APP, IMAGE, TRACE}) {
        for (size_t i = 0; i < 50; ++i) {
            expectRefused(record, record.text.substr(0, record.text.size() * i / 50), "No valid JSON");
        }
    }
}

TEST(Record, EveryWrongValueIsRefused) {
    const std::string signedKeys = "version zqfVersion app.delay underflow.delay time0 sources[0].time0";
    for (const Record& record : {APP, IMAGE, TRACE}) {
        const size_t n = allBelow(parsed(record.text)).size();
        for (size_t i = 0; i < n; ++i) {
            const SxSymbol copy = parsed(record.text);
            SxSymbol there = allBelow(copy)[i];
            const auto type = there.getType();
            const std::string name = there.getKeyPath().str();
            there.set("@@");
            for (const std::string value : {"null", "true", "17", "17.5", "\"17\"", "[]", "{}", "[[1]]",
                                            "[null]", "-1", "9223372036854775808", "-9223372036854775809"}) {
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
    for (const Record& record : {APP, IMAGE, TRACE}) {
        for (const std::string version : {"1", "3", "-2"}) {
            expectRefused(record, edited(record.text, "\"version\": 2", "\"version\": " + version),
                          "File version of '");
        }
        for (const std::string open : {"[", "{\"a\":"}) {
            std::string nested;
            for (int i = 0; i < 1'000'000; ++i)
                nested += open;
            expectRefused(record, nested, "No valid JSON");
        }
        expectRefused(record, record.text + record.text, "No valid JSON");
        const TempDir dir;
        fs::resize_file(dir.write(record.file, record.text), 1 << 30);
        EXPECT_THAT(failureOf([&] { record.rewrite(dir.prefix()); }),
                    HasSubstr("is too large: 1073741824 bytes"));
        EXPECT_THAT(failureOf([&] { record.rewrite(dir.prefix() + "none/"); }),
                    StartsWith("Failed to read file " + dir.path("none/") + record.file + ": "));
        if (record.file != TRACE.file) {
            EXPECT_THAT(failureOf([&] { record.rewrite(""); }), HasSubstr("Path prefix is empty."));
        }
        ZqSysEnv::setSchemaPath(dir.prefix());
        expectRefused(record, record.text, "Required schema file " + dir.path("zq"));
        ZqSysEnv::setSchemaPath("");
    }
    for (const std::string key : {"version", "zqfVersion", "guid", "app", "cmd", "disk", "mountMode",
                                  "underflow", "suspendDrive", "suspendProc", "minOnDemand", "maxOnDemand",
                                  "from", "key", "value", "regType", "data", "time", "size"}) {
        expectRefused(APP, edited(APP.text, "\"" + key + "\":", "\"other\":"), key + "' is missing");
    }
    for (const std::string key : {"version", "guid", "sizeRaw", "emulatedSectorSize"}) {
        expectRefused(IMAGE, edited(IMAGE.text, "\"" + key + "\":", "\"other\":"), key + "' is missing");
    }
    for (const std::string key : {"version", "time0", "method", "checksums"}) {
        expectRefused(TRACE, edited(TRACE.text, "\"" + key + "\":", "\"other\":"), key + "' is missing");
    }
    expectRefused(TRACE, edited(TRACE.text, "inc-", "Inc-"), "Trace Method 'Inc-monitoring' unknown!");
    expectRefused(APP, edited(APP.text, "\"rtw\"", "\"RW\""), "Invalid 'mountMode' value");
    expectRefused(APP, edited(APP.text, "REG_DWORD", "REG_OTHER"), "REG_OTHER");
}

TEST(Record, LoadProfile) {
    const uint64 most = std::numeric_limits<uint64>::max();
    // Points, megabit per second, bytes needed before the start.
    const std::tuple<SxList<ZqLoadProfilePoint>, double, uint64> needed[] = {
        {{{0, 500}, {2, 4'000'000}}, 8, 2'000'000},
        {{{0, 500}, {2, 4'000'000}}, 16, 500},
        {{{3, 100}}, 0.0000081, 97}, // 1.0125 bytes per second count as 1
        {{{0, 500}, {10, most}}, 1e300, 500},
        {{{2, most}}, 80e6, most - 20'000'000'000'000}};
    for (const auto& [points, speed, nInit] : needed)
        EXPECT_EQ(ZqLoadProfilePoint::getNInit(points, speed), nInit);
    // Points, bytes there, bytes per second asked for.
    const std::tuple<SxList<ZqLoadProfilePoint>, uint64, uint64> speeds[] = {
        {{{0, 500}, {10, 300}}, 100, 400},
        {{{10, 300}, {4, 301}}, 200, 26},
        {{{9, 300}}, 301, 0},
        {{{2, most}}, 0, most / 2 + 1}};
    for (const auto& [points, nInit, speed] : speeds)
        EXPECT_EQ(ZqLoadProfilePoint::getBpS(points, nInit), speed);
    ZqAppParams app;
    app.sizeZqf = 77;
    EXPECT_EQ(app.getNInit(8), 77U) << "without a profile";
    app.loadprofile = {{0, 500}, {2, 4'000'000}};
    EXPECT_TRUE(app.getNInit(0) == 77 && app.getBpS(0) == 0 && app.getBpS(500) == 1'999'750);
}

TEST(Record, StartForecast) {
    const auto waitsOf = [](const ZqStartForecast& forecast) {
        std::vector<std::pair<double, double>> waits;
        for (const ZqStartForecast::Wait& wait : forecast.waits)
            waits.emplace_back(wait.at, wait.seconds);
        return waits;
    };
    using Waits = std::vector<std::pair<double, double>>;
    constexpr double INFINITE = std::numeric_limits<double>::infinity();
    ZqAppParams app;
    app.sizeZqf = 100'000'000;
    app.sizeMnt = 1'000'000;
    app.loadprofile = {{0, 5'000'000}, {2, 10'000'000}, {3, 11'000'000}, {10, 12'000'000}};
    // 8 Mbit/s are a million bytes a second. A start at once waits, in all, as long as a safe one does before
    // it.
    const ZqStartForecast steep(app, 8, 0);
    EXPECT_TRUE(steep.isKnown && steep.nInit == 8'000'000 && steep.untilSafe == 8 && steep.untilMount == 1);
    EXPECT_EQ(waitsOf(steep), (Waits{{0, 7}}));
    EXPECT_EQ(waitsOf(ZqStartForecast(app, 8, 6'000'000)), (Waits{{2, 2}}));
    EXPECT_EQ(waitsOf(ZqStartForecast(app, 8, 8'000'000)), Waits());
    EXPECT_EQ(ZqStartForecast(app, 8, 9'000'000).untilSafe, 0);
    // What was waited for counts later on.
    app.loadprofile = {{0, 2'000'000}, {5, 3'000'000}, {10, 30'000'000}, {20, 31'000'000}};
    const ZqStartForecast twice(app, 8, 0);
    EXPECT_EQ(waitsOf(twice), (Waits{{0, 1}, {10, 18}}));
    EXPECT_EQ(twice.getTotalWait() + twice.untilMount, twice.untilSafe);
    EXPECT_EQ(waitsOf(ZqStartForecast(app, 8, app.sizeZqf)), Waits());
    EXPECT_EQ(waitsOf(ZqStartForecast(app, 0, 4'000'000)), (Waits{{10, INFINITE}}));
    EXPECT_EQ(ZqStartForecast(app, -1, 0).untilSafe, INFINITE);
    app.minPreload = 25;
    EXPECT_EQ(ZqStartForecast(app, 80, 0).nInit, 25'000'000U);
    app.minBandwidth = 100;
    EXPECT_EQ(ZqStartForecast(app, 80, 0).nInit, app.sizeZqf);
    const ZqStartForecast unknown(ZqAppParams(), 8, 0);
    EXPECT_TRUE(!unknown.isKnown && unknown.waits.empty());
}

TEST(Record, RuntimeInfo) {
    const TempDir dir;
    ZqRuntimeInfo info;
    info.path = dir.path("a/b");
    info.avgSpeed = 1.5;
    info.write("");
    const SxString zeros =
        R"({"version":2,"guid":"XXXXXXXX-XXXX-4XXX-XXXX-XXXXXXXXXXXX","time0":0,"nStarts":0,
        "runTime":0,"preloadSize":0,"timeToStart":0,"dataAtStart":0,"dataAtEnd":0,"downloadFromZero":false,
        "downloadComplete":false,"avgSpeed":1.5,"sigmaSpeed":0.0,"reqSpeed":0.0,"prefetchSizeMB":0,"nUnderflows":0,
        "avgUnderflowTime":0,"avgUnderflowSize":0,"maxUnderflowTime":0,"maxUnderflowSize":0,"nOnDemandFetches":0,
        "avgOnDemandSize":0,"avgOnDemandTime":0,"maxOnDemandTime":0,"avgOnDemandQueue":0,"maxOnDemandQueue":0,"exitCode":0})";
    EXPECT_EQ(parsed(dir.read("a/b/runtime.json")).toJson(), parsed(zeros.str()).toJson());
    info.reqSpeed = std::numeric_limits<double>::infinity();
    EXPECT_THAT(failureOf([&] { info.write(dir.path("a/b/")); }),
                StartsWith("Failed to write file " + dir.path("a/b/runtime.json") + ": "));
    const SxString id = info.id;
    info.clientToken = "kept";
    info.createStats.begin(1000);
    info.createStats.end(4999, 10);
    EXPECT_EQ(info.createStats, (ZqRuntimeInfo::Stats{true, 3, 10, 3}));
    info.reset();
    EXPECT_TRUE(info.id != id && info.path.isEmpty() && info.createStats == ZqRuntimeInfo::Stats());
    EXPECT_EQ(info.clientToken, "kept");
}
