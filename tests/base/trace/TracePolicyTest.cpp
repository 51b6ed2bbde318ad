#include "BaseTest.h"
#include "TraceMaking.h"
#include "ZqRunTraces.h"
#include "ZqTracePolicy.h"

namespace {

using Policy = ZqTracePolicy;

/// An image folder with traces of runs.
class Traced {
public:
    std::string path(const std::string& name) const { return dir.path("image/traces/" + name); }
    /// Records a run that no other one is like.
    void record(const std::string& name, const SxString& build = "build") {
        const auto items = SxPtr<ZqTrace::Items>::create();
        ++nRecorded;
        for (uint64 i = 0; i < 3; ++i)
            items->append(ZqTraceItem(nRecorded + i, 1'700'000'000'000 + 10 * i, false));
        ZqTrace::write(items, SxString(path(name) + "/"), ZqTraceParams::Monitoring, build);
    }
    void recordSeveral(int n) {
        for (int i = 0; i < n; ++i)
            record("2026-11-27T10-0" + std::to_string(i));
    }
    /// Changes the record of a trace.
    void edit(const std::string& name, const std::function<void(ZqTraceParams* record)>& change) const {
        ZqTraceParams trace{SxString(path(name) + "/")};
        change(&trace);
        trace.write();
    }
    Policy::Decision decide(int64 nUntraced = 0, Policy::Wish wish = Policy::AsNeeded,
                            bool isComplete = true) const {
        return Policy::decide({dir.path("image"), "build", isComplete, nUntraced, wish});
    }

    const TempDir dir;

private:
    uint64 nRecorded = 0;
};

} // namespace

TEST(TracePolicy, ACompleteImageIsTracedFiveTimesAndThenEachTenthTime) {
    Traced image;
    for (int i = 0; i < 5; ++i) {
        const Policy::Decision decision = image.decide(100);
        EXPECT_TRUE(decision.records);
        EXPECT_EQ(decision.reason, Policy::Few);
        EXPECT_EQ(decision.nSound, i);
        image.record(std::to_string(i));
    }
    for (const int64 nUntraced : {0, 1, 8, 9, 10, 1'000'000}) {
        SCOPED_TRACE(nUntraced);
        const Policy::Decision decision = image.decide(nUntraced);
        EXPECT_EQ(decision.records, nUntraced >= 9);
        EXPECT_EQ(decision.reason, nUntraced >= 9 ? Policy::Turn : Policy::Enough);
    }
    // An image that arrives is traced by each run, and a wish decides in any case.
    EXPECT_TRUE(image.decide(0, Policy::AsNeeded, false).records);
    const Policy::Run unable{image.dir.path("image"), "build", true, 100, Policy::AsNeeded, 0, false};
    EXPECT_FALSE(Policy::decide(unable).records) << "nobody would start a game for that";
    for (const bool isComplete : {true, false}) {
        EXPECT_TRUE(image.decide(0, Policy::Always, isComplete).records);
        EXPECT_FALSE(image.decide(9, Policy::Never, isComplete).records);
    }
}

TEST(TracePolicy, OnlyWhatAnOrderWouldTakeCounts) {
    const auto edited = [](const std::function<void(ZqTraceParams * record)>& change) {
        return [change](const Traced& image) { image.edit("new", change); };
    };
    const std::pair<const char*, std::function<void(const Traced& image)>> cases[] = {
        {"of another build", edited([](auto* record) { record->checksumMnt = "other"; })},
        {"of an unknown build", edited([](auto* record) { record->checksumMnt = ""; })},
        {"appended", edited([](auto* record) { record->method = ZqTraceParams::IncMonitoring; })},
        {"built", edited([](auto* record) { record->firstSessionBlockIndex = 2; })},
        {"with sources", edited([](auto* record) {
             record->sources = {{"a", "b", 16, 1, "c"}};
         })},
        {"without a digest", edited([](auto* record) { record->checksumTrc = ""; })},
        {"whose recorder was killed", edited([](auto* record) {
             record->checksumTrc = "";
             record->size = 0;
         })},
        {"cut off", [](const auto& image) { fs::resize_file(image.path("new/img.trc"), 32); }},
        {"without items", [](const auto& image) { fs::remove(image.path("new/img.trc")); }},
        {"without a record", [](const auto& image) { fs::remove(image.path("new/trace.json")); }},
        {"empty",
         [](const auto& image) {
             image.edit("new", [](auto* record) { record->size = 0; });
             fs::resize_file(image.path("new/img.trc"), 0);
         }},
        {"damaged", [](const auto& image) { image.dir.write("image/traces/new/trace.json", "{\"ver"); }},
        {"endless",
         [](const auto& image) {
             const std::string record = image.dir.read("image/traces/new/trace.json");
             image.dir.write("image/traces/new/trace.json", record + std::string(70'000, ' '));
         }},
        {"a copy",
         [](const auto& image) {
             fs::remove_all(image.path("new"));
             fs::copy(image.path("2026-11-27T10-00"), image.path("new"));
         }},
        {"a link",
         [](const auto& image) {
             fs::rename(image.path("new"), image.dir.path("elsewhere"));
             fs::create_directory_symlink(image.dir.path("elsewhere"), image.path("new"));
         }},
        {"whose record is a link",
         [](const auto& image) {
             fs::rename(image.path("new/trace.json"), image.dir.path("record"));
             fs::create_symlink(image.dir.path("record"), image.path("new/trace.json"));
         }},
        {"a file",
         [](const auto& image) {
             fs::remove_all(image.path("new"));
             image.dir.write("image/traces/new", "mine");
         }},
    };
    for (const auto& [name, spoil] : cases) {
        SCOPED_TRACE(name);
        Traced image;
        image.recordSeveral(4);
        image.record("new");
        ASSERT_EQ(image.decide().reason, Policy::Enough);
        spoil(image);
        const Policy::Decision decision = image.decide();
        EXPECT_EQ(decision.reason, Policy::Few);
        EXPECT_EQ(decision.nSound, 4);
    }
}

TEST(TracePolicy, WhatARunThatRecordsWouldRemoveDoesntCount) {
    Traced image;
    ZqRunTraces runs(image.dir.path("image"));
    for (int i = 0; i < 7; ++i) {
        const std::string name = "run " + std::to_string(i);
        image.record(name);
        runs.add(SxString(image.path(name)), 0);
    }
    const auto decide = [&](int64 nKept) {
        return Policy::decide({image.dir.path("image"), "build", true, 0, Policy::AsNeeded, nKept});
    };
    for (const int64 nKept : {1, 2, 4}) {
        EXPECT_EQ(decide(nKept).reason, Policy::Few);
        EXPECT_EQ(decide(nKept).nSound, nKept);
    }
    for (const int64 nKept : {0, 5, 6, 7, 20})
        EXPECT_EQ(decide(nKept).reason, Policy::Enough) << nKept;
    // The newest ones stay, and whatever no run has made.
    image.edit("run 6", [](auto* record) { record->checksumMnt = "other"; });
    EXPECT_EQ(decide(5).nSound, 4);
    EXPECT_EQ(decide(6).reason, Policy::Enough);
    image.recordSeveral(3);
    EXPECT_EQ(decide(2).nSound, 4);
    EXPECT_EQ(decide(3).reason, Policy::Enough);
}

TEST(TracePolicy, AJoinedTraceDoesntCountAndAMergedOneIsARun) {
    Traced image;
    image.recordSeveral(4);
    const SxString first = image.path("2026-11-27T10-00") + "/",
                   second = image.path("2026-11-27T10-01") + "/";
    ZqTrace(first).append(second, SxString(image.path("appended") + "/"), 5);
    EXPECT_EQ(image.decide().nSound, 4);
    ZqTrace::merge(SxString(image.path("merged") + "/"), asList({first, second}));
    EXPECT_EQ(image.decide().reason, Policy::Enough);
}

TEST(TracePolicy, AStartWaitsNeitherForItemsNorForThousandsOfTraces) {
    Traced image;
    image.recordSeveral(5);
    {
        FaultOs os(image.dir.path());
        os.failNth(Op::Open, 1, EIO, "img.trc", true);
        EXPECT_EQ(image.decide().reason, Policy::Enough);
        EXPECT_EQ(os.getNFailed(), 0) << "items were read";
        // With these there are enough, and no older ones are looked at.
        os.failNth(Op::Stat, 1, EIO, "0 oldest", true);
        image.dir.write("image/traces/0 oldest/trace.json", "{}");
        EXPECT_EQ(image.decide().reason, Policy::Enough);
        EXPECT_EQ(os.getNFailed(), 0) << "more than five were looked at";
    }
    for (int i = 0; i < 96; ++i)
        fs::create_directory(image.path("2027-" + std::to_string(i)));
    EXPECT_EQ(image.decide().nSound, 4) << "more than 100 were looked at";
}

TEST(TracePolicy, WhatCantBeLookedAtFailsNoRun) {
    Traced image;
    EXPECT_EQ(image.decide().nSound, 0) << "there is no folder";
    image.recordSeveral(5);
    FaultOs os(image.dir.path());
    os.failNth(Op::Stat, 1, EIO, "T10-03");
    EXPECT_EQ(image.decide().nSound, 4);
    EXPECT_EQ(os.getNFailed(), 1);
    os.failNth(Op::List, 1, EIO);
    EXPECT_EQ(image.decide().nSound, 0);
    EXPECT_EQ(os.getNFailed(), 1);
    EXPECT_EQ(image.decide().reason, Policy::Enough);
}
