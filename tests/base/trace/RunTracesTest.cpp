#include "MountTest.h"
#include "SxFileIO.h"
#include "SxOs.h"
#include "ZqRunTraces.h"
#include "ZqTraceLock.h"

namespace {

/// An image folder with the traces of runs.
class Runs {
public:
    std::string path(const std::string& run) const { return dir.path("image/traces/" + run); }
    void make(const std::string& run, int64 nMost = 3) const {
        dir.write("image/traces/" + run + "/trace.json", "{}");
        dir.write("image/traces/" + run + "/img.trc", "");
        ZqRunTraces(dir.path("image")).add(path(run), nMost);
    }
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (const auto& entry : fs::directory_iterator(dir.path("image/traces")))
            if (entry.is_directory()) found.push_back(entry.path().filename().string());
        std::sort(found.begin(), found.end());
        return found;
    }

    const TempDir dir;
};

} // namespace

TEST(RunTraces, OnlyTheNewestOfTheRunsHereStay) {
    const Runs runs;
    // No run here has made these two: one has come from elsewhere, one is a copy in the place of a run's own.
    runs.dir.write("image/traces/0 brought/img.trc", "");
    for (const char* run : {"a", "b", "c"})
        runs.make(run);
    fs::rename(runs.path("a"), runs.path("a0"));
    fs::create_directory(runs.path("a"));
    runs.dir.write("image/traces/a/img.trc", "");
    fs::remove_all(runs.path("a0"));
    EXPECT_THAT(runs.names(), ElementsAre("0 brought", "a", "b", "c"));
    for (const char* run : {"d", "e"})
        runs.make(run);
    EXPECT_THAT(runs.names(), ElementsAre("0 brought", "a", "c", "d", "e"));
    // By when they were made, and not by name.
    runs.make("B");
    EXPECT_THAT(runs.names(), ElementsAre("0 brought", "B", "a", "d", "e"));
    runs.make("f", 0);
    EXPECT_THAT(runs.names(), ElementsAre("0 brought", "B", "a", "d", "e", "f"));
    runs.make("g", 2);
    EXPECT_THAT(runs.names(), ElementsAre("0 brought", "a", "f", "g"));
}

TEST(RunTraces, ThatOfAMountThatFailedGoesAndOfAKilledOneCounts) {
    const Runs runs;
    const auto begin = [&](const std::string& run) {
        ZqRunTraces(runs.dir.path("image")).begin(runs.path(run));
        runs.dir.write("image/traces/" + run + "/trace.json", "{}");
    };
    begin("failed");
    ZqRunTraces(runs.dir.path("image")).drop(runs.path("failed"));
    EXPECT_THAT(runs.names(), testing::IsEmpty());
    for (const char* run : {"killed", "unmade"})
        begin(run);
    fs::remove_all(runs.path("unmade"));
    begin("a");
    runs.make("a", 2);
    EXPECT_THAT(runs.names(), ElementsAre("a", "killed"));
    runs.make("b", 2);
    EXPECT_THAT(runs.names(), ElementsAre("a", "b"));
}

TEST(RunTraces, WhatHoldsMoreOrIsWrittenStays) {
    const Runs runs;
    for (const char* run : {"letters", "locked", "recorded", "plain"})
        runs.make(run, 0);
    runs.dir.write("image/traces/letters/dear.txt", "precious");
    const ZqTraceLock lock(runs.path("locked") + "/");
    SxFileIO recorder(runs.path("recorded") + "/img.trc", "r+b");
    ASSERT_EQ(SxOs::get().lockRange(recorder.getFd(), 0, 1, SxOs::Lock::Exclusive), 0);
    runs.make("new", 1);
    EXPECT_THAT(runs.names(), ElementsAre("letters", "locked", "new", "recorded"));

    // A note that leads elsewhere, or is none, costs nothing.
    runs.dir.write("image/precious/img.trc", "");
    runs.dir.write("image/traces.txt", "1 ../precious\n\nx y\n99\n" + std::string(100, '\0'));
    runs.make("newer", 1);
    EXPECT_TRUE(runs.dir.exists("image/precious/img.trc"));
    EXPECT_THAT(runs.names(), ElementsAre("letters", "locked", "new", "newer", "recorded"));
    fs::remove(runs.dir.path("image/traces.txt"));
    fs::create_directory(runs.dir.path("image/traces.txt"));
    runs.make("newest", 1);
    EXPECT_TRUE(runs.dir.exists("image/traces/newest/trace.json"));
}
