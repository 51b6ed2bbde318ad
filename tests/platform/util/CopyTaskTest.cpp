#include "Builders.h"
#include "FaultOs.h"
#include "ZqFileCopyTask.h"

#include <gmock/gmock.h>

using testing::AllOf;
using testing::HasSubstr;
using Range = ZqFileCopyTask::Range;

namespace {

constexpr uint64 BATCH = 4 << 20;

/// The model: each range as a whole, in order. In one file `source` is `target` itself. Gives the bytes in
/// the order in which they were copied.
std::string copyInMemory(const std::string& source, std::string& target, const SxArray<Range>& ranges) {
    std::string copied;
    for (const Range& range : ranges) {
        if (range.length == 0) continue; // makes no target grow
        const std::string bytes = source.substr(range.sourceOffset, range.length);
        copied += bytes;
        target.resize(std::max(target.size(), range.targetOffset + range.length));
        target.replace(range.targetOffset, range.length, bytes);
    }
    return copied;
}

std::string failureOf(ZqFileCopyTask& task) {
    task.start(6);
    task.wait();
    return task.hasException() ? task.getException().what() : "";
}

std::string failureOf(const std::string& source, const std::string& target, const SxArray<Range>& ranges) {
    ZqFileCopyTask task(source, target, ranges);
    return failureOf(task);
}

/// Runs a copy and compares the files, the counters and the digest with the model.
void expectCopied(const TempDir& dir, const char* sourceName, const char* targetName,
                  const SxArray<Range>& ranges) {
    std::error_code noTarget;
    const bool inPlace = std::filesystem::equivalent(dir.path(sourceName), dir.path(targetName), noTarget);
    const std::string source = dir.read(sourceName);
    std::string target = dir.exists(targetName) ? dir.read(targetName) : "";
    const std::string copied = copyInMemory(inPlace ? target : source, target, ranges);

    ZqFileCopyTask task(dir.path(sourceName), dir.path(targetName), ranges);
    EXPECT_EQ(task.getNTotal(), copied.size());
    ASSERT_EQ(failureOf(task), "");
    EXPECT_EQ(task.getNCurrent(), copied.size());
    EXPECT_EQ(task.getMD5().toString(), SxMd5::get(SxString(copied)));
    // Not EXPECT_EQ, which would print megabytes.
    EXPECT_TRUE(dir.read(targetName) == target) << sourceName << " to " << targetName;
    EXPECT_TRUE(inPlace || dir.read(sourceName) == source);
}

/// `n` ranges of up to `maxLength` bytes, sometimes neighbours of the one before.
SxArray<Range> randomRanges(TestRandom& random, uint64 n, uint64 sourceSize, uint64 targetEnd,
                            uint64 maxLength) {
    SxArray<Range> ranges;
    Range last{0, 0, 0};
    for (uint64 i = 0; i < n; ++i) {
        Range range{random.below(sourceSize), random.below(targetEnd), random.below(maxLength + 1)};
        if (random.chance(0.5)) range.sourceOffset = std::min(last.sourceOffset + last.length, sourceSize);
        if (random.chance(0.5)) range.targetOffset = last.targetOffset + last.length;
        range.length = std::min(range.length, sourceSize - range.sourceOffset);
        ranges.append(range);
        last = range;
    }
    return ranges;
}

} // namespace

TEST(CopyTask, RandomRangesFollowTheModel) {
    for (uint64 round = 0; round < 40; ++round) {
        TempDir dir;
        TestRandom random(100 + round);
        TRACE_SEED(random);
        const uint64 size = random.between(1, 60'000);
        const uint64 maxLength = random.chance(0.5) ? 50 : 9'000, n = random.below(300);
        dir.write("source", random.bytes(size));
        if (random.chance(0.5)) dir.write("target", random.bytes(random.below(80'000)));
        expectCopied(dir, "source", "target", randomRanges(random, n, size, 70'000, maxLength));
        // Targets within the file, so that the size that bounds the sources stays true.
        expectCopied(dir, "source", "source", randomRanges(random, n, size, size, maxLength));
    }
}

TEST(CopyTask, RangesOverSeveralBatchesSeeWhatEarlierOnesLeft) {
    const SxArray<Range> cases[] = {
        {{0, 10, 10}, {10, 20, 10}, {20, 30, 10}},    // each takes what the last one wrote
        {{0, 1, 2 * BATCH + 17}},                     // overlaps itself from below, in several pieces
        {{1, 0, 2 * BATCH + 17}},                     // and from above
        {{100, 3 * BATCH, 10}, {3 * BATCH, 200, 10}}, // beyond the old end, and back
        {{0, BATCH, BATCH}, {BATCH, 0, BATCH}, {7, 7, 50}},
        {{0, 2 * BATCH, BATCH - 4}, {0, 2, BATCH}, {2 * BATCH, 9, 8}},
    };
    for (const SxArray<Range>& ranges : cases) {
        SCOPED_TRACE(&ranges - cases);
        const TempDir dir;
        dir.write("file", TestRandom().bytes(2 * BATCH + 1000));
        std::filesystem::create_hard_link(dir.path("file"), dir.path("same"));
        expectCopied(dir, "file", "same", ranges);
        expectCopied(dir, "file", "other", {{1, 2 * BATCH, BATCH + 5}, {BATCH, 0, BATCH}});
    }
}

TEST(CopyTask, FailuresNameFileAndOffset) {
    TempDir dir;
    dir.write("source", std::string(10'000, 'x'));
    const std::string source = dir.path("source"), target = dir.path("target");

    EXPECT_THAT(failureOf(dir.path("none"), target, {{0, 0, 1}}),
                AllOf(HasSubstr("none"), HasSubstr("No such file")));
    EXPECT_FALSE(dir.exists("target"));
    EXPECT_THAT(failureOf(source, target, {{0, 0, 10}, {9'990, 100, 11}}),
                AllOf(HasSubstr(source), HasSubstr("ends at byte 10000"), HasSubstr("offset 9990")));
    const Range huge{0, 0, ~uint64{0} >> 1};
    const SxArray<Range> wrong[] = {
        {{0, 0, 1}, {~uint64{0}, 0, 2}},
        {{0, 0, 1}, {0, ~uint64{0} >> 1, 1}},
        {{0, 0, 1}, {0, 0, ~uint64{0}}},
        {huge, huge}, // their sum would overflow
    };
    for (const SxArray<Range>& ranges : wrong)
        EXPECT_THAT(failureOf(source, target, ranges), HasSubstr("Range 1 is out of bounds"));

    FaultOs os(dir.path());
    const std::pair<FaultOs::Op, const char*> faults[] = {
        {FaultOs::Op::Read, "source"}, {FaultOs::Op::Write, "target"}, {FaultOs::Op::Sync, "target"}};
    for (const auto& [op, file] : faults) {
        os.failNth(op, 1, EIO);
        EXPECT_THAT(failureOf(source, target, {{0, 0, 100}, {500, 1000, 100}}),
                    AllOf(HasSubstr(file), HasSubstr("Input/output error")));
    }
    os.failNth(FaultOs::Op::Sync, 1'000'000, EIO);
    os.setDiskLeft(5'000);
    EXPECT_THAT(failureOf(source, dir.path("third"), {{0, 0, 9'000}}),
                AllOf(HasSubstr("third"), HasSubstr("No space left")));
}

TEST(CopyTask, StopEndsEarlyAndWhatWasCopiedIsDurable) {
    TempDir dir;
    const std::string bytes = TestRandom().bytes(8 * BATCH);
    dir.write("source", bytes);
    SxArray<Range> ranges;
    for (uint64 i = 0; i < 8; ++i)
        ranges.append({i * BATCH, (7 - i) * BATCH, BATCH});

    // The stop arrives before the first write.
    class StoppingOs : public FaultOs {
    public:
        using FaultOs::FaultOs;
        int64 writeAt(int fd, const void* buffer, int64 n, int64 offset) override {
            if (task) task->stop();
            return FaultOs::writeAt(fd, buffer, n, offset);
        }
        ZqFileCopyTask* task = nullptr;
    };
    StoppingOs os(dir.path());
    ZqFileCopyTask task(dir.path("source"), dir.path("target"), ranges);
    os.task = &task;
    EXPECT_EQ(failureOf(task), "");
    EXPECT_EQ(task.getNCurrent(), BATCH);
    os.crash();
    ASSERT_TRUE(dir.exists("target"));
    EXPECT_TRUE(dir.read("target").substr(7 * BATCH) == bytes.substr(0, BATCH)) << "isn't durable";
}
