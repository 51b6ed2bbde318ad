#include "BaseTest.h"
#include "DuckDbHere.h"
#include "SxFileIO.h"
#include "ZqFleet.h"

#include <algorithm>
#include <random>

namespace {

const std::string GUID = "B7E6A1C0-3D52-4F7B-9A11-5C2E8D40F6A3";

/// The keys of `runtime.json`, without the braces.
std::string runtime(int64 time0, const std::string& more = "") {
    return R"("version":2,"guid":")" + GUID + R"(","time0":)" + std::to_string(time0) +
           R"(,"runTime":90,"preloadSize":4096,"timeToStart":7,"avgSpeed":24.5,"nUnderflows":3)" + more;
}

std::string record(const std::string& id, int64 time0, const std::string& more) {
    return "{" + runtime(time0, R"(,"id":")" + id + R"(","build":"b1","order":"o1")" + more) + "}";
}

struct Outcome {
    std::string failure;
    ZqFleetFigures figures;
};

class FleetTest : public DuckDbTest {
protected:
    ZqFleet::Settings settings() const {
        ZqFleet::Settings chosen;
        chosen.paths.append(SxString(dir.path("in")));
        return chosen;
    }
    Outcome collect(ZqFleet::Settings chosen) const {
        const TempDir scratch;
        chosen.scratch = SxString(scratch.path());
        ZqFleet job(chosen);
        Outcome run;
        run.failure = failureOf(job);
        run.figures = job.getFigures();
        return run;
    }
    Outcome collect() const { return collect(settings()); }

    const TempDir dir;
};

std::vector<std::string> toTexts(const std::vector<ZqFleetFault>& faults) {
    std::vector<std::string> texts;
    for (const ZqFleetFault& fault : faults)
        texts.push_back(fs::path(fault.file.str()).filename().string() + ":" + std::to_string(fault.line) +
                        ": " + fault.text.str());
    return texts;
}

} // namespace

TEST_F(FleetTest, DocumentsOfOneRunAreOne) {
    // The same run four times, in units of their own, in files of their own or one a line.
    dir.write("in/images/game/runs/one.json",
              record("ID-1", 1000, R"(,"startMs":7250,"firstFrameMs":9100,"exitCode":null)") + "\n");
    dir.write("in/images/game/runtime.json", "{\n " + runtime(1000) + "\n}\n");
    dir.write("in/images/game/app.json", "{}");
    dir.write(
        "in/service.jsonl",
        R"({"id":"ID-1","orgName":"","startErr":false,"rteVer":"0.1","env":{"winVer":"Linux"}})"
        "\n"
        R"({"id":"ID-1","orgName":"","endErr":true,"rt":{"tStartSec":7,"tTotalSec":90,"exit":-3},)"
        R"("dl":{"throughputAvgBps":24500000.0,"preloadBytes":4096,"tReadySec":9},"odr":{"n":5,"tAvgSec":0.125}})"
        "\n");
    // Others: by time, by a joined document alone, and two without an id that differ.
    dir.write("in/others.ndjson", "{" + runtime(2000) + "}\n{" + runtime(3000) + "}\n{" + runtime(2000) +
                                      "}\n" + R"({"id":"ID-2","rt":{"tStartSec":1,"tTotalSec":5,"exit":0}})" +
                                      "\n");
    fs::create_directory_symlink(dir.path("in/images"), dir.path("in/again"));
    dir.write("in/note.txt", "no document");

    ZqFleet::Settings chosen = settings();
    chosen.parquet = SxString(dir.path("out/parquet"));
    const Outcome run = collect(chosen);
    EXPECT_EQ(run.failure, "");
    EXPECT_THAT(toTexts(run.figures.faults), IsEmpty());
    EXPECT_EQ(run.figures.nFiles, 4);
    EXPECT_EQ(run.figures.nRecords, 8);
    EXPECT_EQ(run.figures.all.nRuns, 4);
    EXPECT_EQ(run.figures.nGroups, 2);
    EXPECT_EQ(run.figures.firstMs, 1000);
    EXPECT_EQ(run.figures.lastMs, 3000);
    ASSERT_EQ(run.figures.groups.size(), 2u);
    const ZqFleetGroup& group = run.figures.groups[1];
    EXPECT_EQ(group.build, "b1");
    EXPECT_EQ(group.order, "o1");
    EXPECT_EQ(group.nRuns, 1);
    EXPECT_EQ(group.start.median, 7250);
    EXPECT_EQ(group.frame.median, 9100);
    EXPECT_DOUBLE_EQ(group.speed.median, 24.5);
    EXPECT_EQ(group.nEndErr, 1);
    EXPECT_EQ(group.nNonZero, 1);
    EXPECT_EQ(run.figures.groups[0].nRuns, 3);
    EXPECT_EQ(run.figures.groups[0].start.n, 3);
    EXPECT_EQ(run.figures.groups[0].start.ninetyNine, 7000);
    EXPECT_EQ(dir.read("out/parquet/runs.parquet").substr(0, 4), "PAR1");
}

TEST_F(FleetTest, AStoreCountsARunOnce) {
    ZqFleet::Settings chosen = settings();
    chosen.store = SxString(dir.path("store"));
    const auto count = [&](const std::string& line) {
        dir.write("in/a.jsonl", line + "\n");
        const Outcome run = collect(chosen);
        EXPECT_EQ(run.failure, "");
        return run.figures.all;
    };
    EXPECT_EQ(count("{" + runtime(1000) + "}").nRuns, 1);
    EXPECT_EQ(count("{" + runtime(1000) + "}").nRuns, 1);
    // The record of that run, which has an id, and then again what has none.
    EXPECT_EQ(count(record("A", 1000, R"(,"startMs":5)")).nRuns, 1);
    EXPECT_EQ(count("{" + runtime(1000) + "}").start.median, 5);
    EXPECT_EQ(count(record("B", 1001, R"(,"startMs":-1)")).nRuns, 2);
    const ZqFleetGroup all = count(R"({"id":"B","endErr":true})");
    EXPECT_EQ(all.nRuns, 2);
    EXPECT_EQ(all.start.n, 1);
    EXPECT_EQ(all.nEndErr, 1);
    EXPECT_FALSE(dir.exists("store.wal"));

    // A failure leaves it as it was, and makes none.
    const std::string former = dir.read("store");
    dir.write("in/a.jsonl", "{}\n");
    EXPECT_THAT(collect(chosen).failure, StartsWith("No record of a run could be read"));
    EXPECT_EQ(dir.read("store"), former);
    chosen.store = SxString(dir.path("new"));
    EXPECT_NE(collect(chosen).failure, "");
    EXPECT_FALSE(dir.exists("new"));
}

TEST_F(FleetTest, RefusesWhatItWouldDestroy) {
    const std::string input = dir.write("in/a.json", "{" + runtime(1) + "}");
    fs::create_hard_link(input, dir.path("same"));
    dir.write("full/file", "");
    dir.write("text", "not a store");
    const auto failure = [&](auto change) {
        ZqFleet::Settings chosen = settings();
        change(chosen);
        return collect(chosen).failure;
    };
    EXPECT_THAT(failure([&](auto& chosen) { chosen.store = SxString(dir.path("same")); }),
                HasSubstr("' can't be written, since it is one of the files to read ('" + input + "')"));
    EXPECT_THAT(failure([&](auto& chosen) { chosen.outputs.append(SxString(input)); }),
                HasSubstr("it is one of the files to read"));
    EXPECT_THAT(failure([&](auto& chosen) { chosen.store = SxString(dir.path("full")); }),
                HasSubstr("isn't a plain file"));
    EXPECT_THAT(failure([&](auto& chosen) { chosen.store = SxString(dir.path("text")); }),
                HasSubstr("Database '" + dir.path("text") + "' can't be opened"));
    EXPECT_THAT(failure([&](auto& chosen) { chosen.parquet = SxString(dir.path("full")); }),
                HasSubstr("isn't empty"));
    EXPECT_THAT(failure([&](auto& chosen) { chosen.paths.append(SxString(dir.path("none"))); }),
                HasSubstr("none' isn't there"));
    EXPECT_EQ(dir.read("in/a.json"), "{" + runtime(1) + "}");
    EXPECT_EQ(dir.read("text"), "not a store");
}

TEST_F(FleetTest, BadRecordsAreNamedAndCostNoGoodOne) {
    std::string lines = "{" + runtime(1) + "}\n";
    for (const char* bad :
         {R"({"id":"cut)", R"({"id":7})", R"({"id":"A","time0":9223372036854775808})", R"({"id":""})",
          R"({"guid":"G"})", R"({"guid":"G","time0":0})", R"({"guid":"","time0":5})",
          R"({"id":"A","version":3})", R"({"id":"A","id":"B"})"})
        lines += std::string(bad) + "\n";
    dir.write("in/a.jsonl", lines + R"({"x":)" + std::string(400'000, '[') + std::string(400'000, ']') +
                                "}\n{" + runtime(2) + "}\n");
    dir.write("in/b.json", "[]");
    dir.write("in/c.json", R"({"id":"'); DROP TABLE runs; --","guid":"$1","time0":1,"build":"' OR 1=1 --"})");
    const Outcome run = collect();
    EXPECT_EQ(run.failure, "");
    EXPECT_EQ(run.figures.nRecords, 3);
    EXPECT_EQ(run.figures.all.nRuns, 3);
    EXPECT_EQ(run.figures.nBad, 11);
    const std::string nothing = "it says of no run: it has no 'id', nor both 'guid' and 'time0'";
    EXPECT_THAT(toTexts(run.figures.faults),
                ElementsAre(StartsWith("a.jsonl:2: it isn't JSON"), "a.jsonl:3: 'id' isn't a text",
                            "a.jsonl:4: 'time0' is beyond 64 bits", "a.jsonl:5: " + nothing,
                            "a.jsonl:6: " + nothing, "a.jsonl:7: " + nothing, "a.jsonl:8: " + nothing,
                            "a.jsonl:9: its 'version' is 3 and not 2", "a.jsonl:10: 'id' is stated twice",
                            "a.jsonl:11: it has more than 32 levels"));
    const auto isHostile = [](const ZqFleetGroup& group) { return group.build == "' OR 1=1 --"; };
    EXPECT_EQ(std::count_if(run.figures.groups.begin(), run.figures.groups.end(), isHostile), 1);
}

TEST_F(FleetTest, QuantilesAndSharesAreExact) {
    constexpr unsigned SEED = 7;
    SCOPED_TRACE("seed " + std::to_string(SEED));
    std::mt19937_64 source(SEED);
    std::string lines;
    const char* const builds[] = {"x", "y", "z"};
    const int64 sizes[] = {1, 10, 997};
    std::map<std::string, std::vector<double>> starts;
    double brought = 0, used = 0;
    for (size_t build = 0; build < 3; ++build) {
        for (int64 i = 0; i < sizes[build]; ++i) {
            const auto ms = static_cast<int64>(source() % 100'000);
            const auto bytes = static_cast<int64>(source() % 1'000'000);
            starts[builds[build]].push_back(static_cast<double>(ms));
            brought += static_cast<double>(bytes);
            used += static_cast<double>(bytes / 3);
            lines += record(std::string(builds[build]) + std::to_string(i), i + 1,
                            R"(,"startMs":)" + std::to_string(ms) + R"(,"accuracy":{"brought":)" +
                                std::to_string(bytes) + R"(,"earlyUsed":)" + std::to_string(bytes / 3) + "}");
            lines.replace(lines.rfind("\"b1\""), 4, std::string("\"") + builds[build] + "\"");
            lines += "\n";
        }
    }
    dir.write("in/a.jsonl", lines);
    ZqFleet::Settings chosen = settings();
    chosen.by = ZqFleetBy::Build;
    const Outcome run = collect(chosen);
    ASSERT_EQ(run.failure, "");
    ASSERT_EQ(run.figures.groups.size(), 3u);
    for (const ZqFleetGroup& group : run.figures.groups) {
        SCOPED_TRACE(group.build.str());
        std::vector<double>& values = starts[group.build.str()];
        std::sort(values.begin(), values.end());
        // The smallest value that at least so many percent don't exceed.
        const auto at = [&](size_t percent) { return values[(values.size() * percent + 99) / 100 - 1]; };
        EXPECT_EQ(group.start.n, static_cast<int64>(values.size()));
        EXPECT_EQ(group.start.median, at(50));
        EXPECT_EQ(group.start.ninety, at(90));
        EXPECT_EQ(group.start.ninetyNine, at(99));
    }
    EXPECT_EQ(run.figures.all.brought, brought);
    EXPECT_EQ(run.figures.all.earlyUsed, used);
    EXPECT_EQ(run.figures.courses.front().start.size(), 101u);
    EXPECT_EQ(run.figures.courses.front().start.back(), starts["z"].back());
}

TEST_F(FleetTest, GroupsGoByLinkAndSystem) {
    std::string lines;
    const std::pair<const char*, const char*> speeds[] = {{"0", ""},
                                                          {"9.99", "< 10 Mbit/s"},
                                                          {"10", "10-25 Mbit/s"},
                                                          {"299", "100-300 Mbit/s"},
                                                          {"300", ">= 300 Mbit/s"}};
    for (const auto& [speed, name] : speeds)
        lines +=
            R"({"id":")" + std::string(speed) + R"(","avgSpeed":)" + speed + R"(,"winVer":"Linux"})" + "\n";
    dir.write("in/a.jsonl", lines);
    ZqFleet::Settings chosen = settings();
    chosen.by = ZqFleetBy::Link;
    const Outcome byLink = collect(chosen);
    ASSERT_EQ(byLink.figures.groups.size(), 5u) << byLink.failure;
    for (size_t i = 0; i < 5; ++i)
        EXPECT_EQ(byLink.figures.groups[i].link, speeds[i].second);
    EXPECT_EQ(byLink.figures.nameOf(byLink.figures.groups[0]), "speed not known");
    chosen.by = ZqFleetBy::System;
    const Outcome bySystem = collect(chosen);
    ASSERT_EQ(bySystem.figures.groups.size(), 1u);
    EXPECT_EQ(bySystem.figures.groups[0].system, "Linux");
    EXPECT_EQ(bySystem.figures.groups[0].nRuns, 5);
}

TEST_F(FleetTest, NothingIsHalfThereAfterAFailure) {
    dir.write("in/a.json", "{" + runtime(1) + "}");
    for (const Op op : {Op::Open, Op::Read, Op::Sync, Op::Rename, Op::MakeDir}) {
        SCOPED_TRACE("operation " + std::to_string(static_cast<int>(op)));
        fs::remove_all(dir.path("out"));
        ZqFleet::Settings chosen = settings();
        chosen.parquet = SxString(dir.path("out/parquet"));
        chosen.store = SxString(dir.path("out/store"));
        std::string failure;
        bool hasFailed = false;
        {
            FaultOs os(dir.path());
            os.failNth(op, 1, EIO);
            failure = collect(chosen).failure;
            hasFailed = os.getNFailed() > 0;
        }
        EXPECT_TRUE(!hasFailed || failure != "") << failure;
        EXPECT_FALSE(hasFailed && dir.exists("out/store"));
    }
}
