#include "Builders.h"
#include "TempDir.h"
#include "ZqBlocks.h"
#include "ZqCursorWay.h"
#include "ZqImage.h"
#include "ZqPreparations.h"
#include "ZqRunAccuracy.h"
#include "ZqRunRecord.h"
#include "ZqTraceFormat.h"

#include <cstring>
#include <filesystem>
#include <gmock/gmock.h>
#include <map>
#include <random>

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;
using Move = std::pair<int64, uint64>;

std::vector<Move> movesOf(const ZqCursorWay& way) {
    std::vector<Move> moves;
    for (ZqCursorWay::Walk walk(way); walk.next();)
        moves.emplace_back(walk.getTimeMs(), walk.getIdx());
    return moves;
}

constexpr uint64 GONE = ZqImage::NO_ENTRY;
/// A moment by the machine's clock, and by the steady one.
constexpr int64 T0 = 1'700'000'000'000, S0 = 77'000;

/// An image folder with a map, and a trace of it, as a run leaves them.
struct Played {
    TempDir dir;

    void map(const std::vector<uint64>& entries) const {
        std::string bytes(entries.size() * sizeof(uint64), '\0');
        std::memcpy(bytes.data(), entries.data(), bytes.size());
        dir.write("img.idx", bytes);
    }
    void trace(const std::vector<ZqTraceItem>& items) const {
        std::string bytes;
        for (const ZqTraceItem& item : items) {
            char record[ZqTraceFormat::SIZE];
            ZqTraceFormat::encode(ZqTraceFormat::blockField(item), item.time, record);
            bytes.append(record, sizeof record);
        }
        dir.write("traces/run/img.trc", bytes);
    }
    ZqRunAccuracy judge(uint64 nIncluded, uint64 nBefore, const ZqCursorWay& way,
                        bool isCutOff = false) const {
        return ZqRunAccuracy::judge(
            {dir.path("traces/run"), dir.path(""), nIncluded, nBefore, &way, T0 - S0, isCutOff});
    }
};

ZqTraceItem access(uint64 rawIdx, int64 ms, bool isWrite = false) {
    return ZqTraceItem(rawIdx, static_cast<uint64>(T0 + ms), isWrite);
}

} // namespace

TEST(CursorWay, KeepsEachMoveHoweverFarAndEvenBackInTime) {
    ZqCursorWay way;
    const std::vector<Move> moves = {{T0, 1},           {T0 + 10, 2},          {T0 + 10, 129},
                                     {T0 - 5'000, 130}, {T0 - 4'990, 1 << 28}, {0, ~uint64{0} - 1}};
    for (const auto& [time, place] : moves)
        way.add(time, place);
    way.add(T0 + 99, 5);
    EXPECT_EQ(movesOf(way), moves);
    EXPECT_EQ(way.getEnd(), ~uint64{0} - 1);
}

TEST(RunAccuracy, IsRightToTheByte) {
    const Played run;
    // RAW blocks 0 to 7; 3 isn't included, the image has seven blocks.
    run.map({4, 0, 1, GONE, 2, 6, 5, 3});
    ZqCursorWay way;
    way.add(S0 + 100, 2);
    way.add(S0 + 200, 4);
    way.add(S0 + 300, 6);
    run.trace({
        access(1, 50),        // ZqF 0, there before the run
        access(2, 99),        // ZqF 1, a millisecond too early
        access(2, 150),       // again, when it was there
        access(3, 150),       // not included
        access(4, 200),       // ZqF 2, in the very moment
        access(7, 250, true), // ZqF 3, written first: needs nothing
        access(7, 260),       //
        access(5, 400),       // ZqF 6, which the download never came to
        access(99, 400),      // beyond the disk
    });
    const ZqRunAccuracy found = run.judge(7, 1, way);
    constexpr uint64 BLOCK = ZqBlocks::SIZE;
    EXPECT_TRUE(found.isJudged);
    EXPECT_EQ(found.nBrought, 5 * BLOCK) << "1 to 5";
    EXPECT_EQ(found.nEarlyUsed, 1 * BLOCK) << "2";
    EXPECT_EQ(found.nEarlyUnused, 3 * BLOCK) << "3, 4 and 5";
    EXPECT_EQ(found.nLate, 2 * BLOCK) << "1 and 6";
    EXPECT_EQ(found.nThereBefore, 1 * BLOCK) << "0";
    EXPECT_EQ(found.nRead, 4 * BLOCK);
    EXPECT_DOUBLE_EQ(found.coverage, 5.0 / 7) << "0, 1, 2, 3 and 6";

    // A trace that has ended too early says nothing of what came after it.
    run.trace({access(4, 200), access(5, 250)});
    const ZqRunAccuracy cut = run.judge(7, 1, way, true);
    EXPECT_EQ(cut.nBrought, 3 * BLOCK) << "1 to 3";
    EXPECT_EQ(cut.nEarlyUsed, 1 * BLOCK) << "2";
    EXPECT_EQ(cut.nEarlyUnused, 2 * BLOCK) << "1 and 3";
    EXPECT_EQ(cut.nLate, 1 * BLOCK) << "6";
}

TEST(RunAccuracy, AgreesWithAPlainCountOfARandomRun) {
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937_64 random(seed);
    const auto below = [&](uint64 n) { return random() % n; };
    const Played run;
    constexpr uint64 N_RAW = 30'000, N_INCLUDED = 20'000, N_BEFORE = 3'000;
    std::vector<uint64> entries(N_RAW, GONE);
    for (uint64 i = 0; i < N_INCLUDED; ++i)
        entries[i] = i;
    std::shuffle(entries.begin(), entries.end(), random);
    run.map(entries);
    ZqCursorWay way;
    std::vector<int64> arrival(N_INCLUDED, std::numeric_limits<int64>::max());
    for (uint64 at = N_BEFORE, ms = 0; at < N_INCLUDED - 2'000;) {
        const uint64 next = at + 1 + below(40);
        ms += below(30);
        way.add(S0 + static_cast<int64>(ms), next);
        for (; at < next; ++at)
            arrival[at] = static_cast<int64>(ms);
    }
    std::vector<ZqTraceItem> items;
    std::map<uint64, int64> firstReads;
    for (int64 ms = 0; ms < 8'000; ++ms) {
        const uint64 rawIdx = below(N_RAW);
        items.push_back(access(rawIdx, ms));
        if (entries[rawIdx] != GONE) firstReads.try_emplace(entries[rawIdx], ms);
    }
    run.trace(items);
    uint64 used = 0, late = 0, before = 0, broughtLate = 0;
    for (const auto& [zqfIdx, ms] : firstReads) {
        before += zqfIdx < N_BEFORE;
        if (zqfIdx < N_BEFORE) continue;
        (arrival[zqfIdx] <= ms ? used : late) += 1;
        broughtLate += arrival[zqfIdx] > ms && zqfIdx < way.getEnd();
    }
    const ZqRunAccuracy found = run.judge(N_INCLUDED, N_BEFORE, way);
    EXPECT_EQ(found.nEarlyUsed / ZqBlocks::SIZE, used);
    EXPECT_EQ(found.nLate / ZqBlocks::SIZE, late);
    EXPECT_EQ(found.nThereBefore / ZqBlocks::SIZE, before);
    EXPECT_EQ(found.nBrought / ZqBlocks::SIZE, way.getEnd() - N_BEFORE);
    EXPECT_EQ(found.nEarlyUnused / ZqBlocks::SIZE, way.getEnd() - N_BEFORE - used - broughtLate);
}

TEST(RunRecord, TheNewestStaysTheLastWhereTheClockWasSetBack) {
    const TempDir dir;
    SxList<SxException> failures;
    for (const int64 time : {T0, T0 - 86'400'000, T0 - 1}) {
        ZqRunRecord record;
        record.info.time0 = time;
        record.write(dir.path(""));
        EXPECT_EQ(ZqRunRecord::readLast(dir.path(""), 1, &failures).last().info.time0, time);
    }
    EXPECT_EQ(ZqRunRecord::readLast(dir.path(""), 9, &failures).getSize(), 3);
}

TEST(RunRecord, OneThatCantBeReadIsNamedAndTheOthersAreThere) {
    const TempDir dir;
    dir.write("runs/2026-11-27T10-00-00Z-00000001.json", "{\"version\": 2, \"runTime\": 3}");
    dir.write("runs/2026-11-27T10-00-01Z-00000002.json", "{\"version\": 2, \"runTime\": \"3\"}");
    dir.write("runs/2026-11-27T10-00-02Z-00000003.json", "{\"version\": 2, \"accu");
    SxList<SxException> failures;
    const SxList<ZqRunRecord> records = ZqRunRecord::readLast(dir.path(""), 3, &failures);
    ASSERT_EQ(records.getSize(), 1);
    EXPECT_EQ(records.first().info.runTime, 3);
    ASSERT_EQ(failures.getSize(), 2);
    EXPECT_THAT(failures.first().toString().str(),
                HasSubstr("Failed to read file " + dir.path("runs/2026-11-27T10-00-01Z")));
}

TEST(RunRecord, HasACoverageOnlyWhereThereWasATrace) {
    const TempDir dir;
    ZqRunRecord run;
    run.wasStarted = true;
    run.info.time0 = T0;
    run.write(dir.path(""));
    EXPECT_THAT(run.toJson().toJson().str(), Not(HasSubstr("coverage")));
    // A trace may name nothing of the image.
    ZqRunRecord traced;
    traced.wasStarted = traced.accuracy.isJudged = true;
    traced.info.time0 = T0 + 1000;
    traced.info.coverage = 0;
    traced.write(dir.path(""));
    dir.write("runs/2099-01-01T00-00-00Z-00000003.json",
              R"({"version": 2, "startMs": 1, "coverage": 0, "accuracy": {"waits": 0, "waitedMs": 0}})");
    SxList<SxException> failures;
    const SxList<ZqRunRecord> records = ZqRunRecord::readLast(dir.path(""), 9, &failures);
    ASSERT_EQ(records.getSize(), 3);
    EXPECT_EQ(records(0).info.coverage, std::nullopt);
    EXPECT_EQ(records(1).info.coverage, 0.0);
    EXPECT_EQ(records(2).info.coverage, std::nullopt) << "a former version's record of an untraced run";
}

TEST(RunRecord, ComesBackAsItWasWrittenAndTheLastHundredStay) {
    const TempDir dir;
    dir.write("runs/notes.json", "mine");
    ZqRuntimeInfo done;
    done.patchStats.begin(0);
    done.patchStats.end(7'000, 70);
    ZqPreparations::add(dir.path(""), done);
    ZqPreparations::add(dir.path(""), done);
    SxString last;
    for (int64 i = 0; i <= ZqRunRecord::KEPT; ++i) {
        ZqRunRecord record;
        record.info.time0 = T0 + i * 1000;
        record.info.id = SxString::sprintf("%08dX-0000-4000-8000-000000000000", static_cast<int>(i));
        record.info.guid = "G";
        record.info.imageSize = (int64{1} << 62) + 1;
        record.info.maxSpeed = 0.1;
        record.info.clientToken = "secret";
        record.info.appsAtStart << SxString("steam") << SxString("discord");
        record.wasStarted = true;
        record.startMs = 1234;
        record.firstWindowMs = 2345;
        record.build = "b";
        record.traceFolder = dir.path("traces/run");
        record.accuracy.isJudged = true;
        record.accuracy.nWaits = 3;
        record.accuracy.nLate = 4096;
        record.accuracy.waitedMs = 17;
        record.write(dir.path(""));
        last = record.info.id;
        EXPECT_EQ(record.info.patchStats.timeSec, i == 0 ? 14 : 0) << "told once";
        EXPECT_THAT(record.toJson().toJson().str(), Not(HasSubstr("secret")));
    }
    SxList<SxException> failures;
    const SxList<ZqRunRecord> records = ZqRunRecord::readLast(dir.path(""), 1'000, &failures);
    EXPECT_TRUE(failures.isEmpty());
    ASSERT_EQ(records.getSize(), ZqRunRecord::KEPT);
    EXPECT_EQ(fs::exists(dir.path("runs/notes.json")), true);
    const ZqRunRecord& record = records.last();
    EXPECT_EQ(record.info.id, last);
    EXPECT_EQ(record.info.imageSize, (int64{1} << 62) + 1);
    EXPECT_EQ(record.info.maxSpeed, 0.1);
    EXPECT_EQ(record.info.clientToken, "secret");
    EXPECT_EQ(record.info.appsAtStart.getSize(), 2);
    EXPECT_EQ(record.traceFolder, "traces/run") << "not where the image lies";
    EXPECT_FALSE(record.isExitKnown);
    EXPECT_EQ(record.firstFrameMs, -1);
    EXPECT_EQ(record.startMs, 1234);
    EXPECT_EQ(record.firstWindowMs, 2345);
    EXPECT_EQ(record.accuracy.nLate, 4096U);
    EXPECT_EQ(record.accuracy.waitedMs, 17U);
    for (const auto& entry : fs::directory_iterator(dir.path("runs"))) {
        if (entry.path().filename() == "notes.json") continue;
        EXPECT_EQ(fs::status(entry).permissions(), fs::perms(0600));
    }
}
