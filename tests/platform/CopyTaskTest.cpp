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
        if (range.length == 0) continue;
        const std::string bytes = source.substr(range.sourceOffset, range.length);
        copied += bytes;
        target.resize(std::max(target.size(), range.targetOffset + range.length));
        target.replace(range.targetOffset, range.length, bytes);
    }
    return copied;
}

/// Runs a copy and compares the files, the counters and the digest with the model.
void expectCopied(TempDir& dir, const char* sourceName, const char* targetName,
                  const SxArray<Range>& ranges) {
    const bool inPlace = dir.path(sourceName) == dir.path(targetName);
    const std::string source = dir.read(sourceName);
    std::string target = dir.exists(targetName) ? dir.read(targetName) : "";
    const std::string copied = copyInMemory(inPlace ? target : source, target, ranges);

    ZqFileCopyTask task(dir.path(sourceName), dir.path(targetName), ranges);
    EXPECT_EQ(task.getNTotal(), copied.size());
    task.start(6);
    task.wait();

    ASSERT_FALSE(task.hasException()) << task.getException().what();
    EXPECT_EQ(task.getNCurrent(), copied.size());
    EXPECT_EQ(task.getMD5().toString(), SxMd5::get(SxString(copied)));
    // Not EXPECT_EQ, which would print megabytes.
    EXPECT_TRUE(dir.read(targetName) == target) << sourceName << " to " << targetName;
    EXPECT_TRUE(inPlace || dir.read(sourceName) == source);
}

std::string failureOf(const std::string& source, const std::string& target, const SxArray<Range>& ranges) {
    ZqFileCopyTask task(source, target, ranges);
    task.start(6);
    task.wait();
    return task.hasException() ? task.getException().what() : "";
}

/// `n` ranges of up to `maxLength` bytes, sometimes neighbours of the one before.
SxArray<Range> randomRanges(TestRandom& random, int n, uint64 sourceSize, uint64 targetEnd,
                            uint64 maxLength) {
    SxArray<Range> ranges;
    for (int i = 0; i < n; ++i) {
        Range range{random.below(sourceSize), random.below(targetEnd), random.below(maxLength + 1)};
        if (i > 0 && random.chance(0.5)) {
            const Range& last = ranges(i - 1);
            range.sourceOffset = last.sourceOffset + last.length;
            if (random.chance(0.7)) range.targetOffset = last.targetOffset + last.length;
        }
        range.sourceOffset = std::min(range.sourceOffset, sourceSize);
        range.length = std::min(range.length, sourceSize - range.sourceOffset);
        ranges.append(range);
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
        const uint64 maxLength = random.chance(0.5) ? 50 : 9'000;
        const int n = static_cast<int>(random.below(300));
        dir.write("source", random.bytes(size));
        if (random.chance(0.5)) dir.write("target", random.bytes(random.below(80'000)));
        expectCopied(dir, "source", "target", randomRanges(random, n, size, 70'000, maxLength));
        // Targets within the file, so that the size that bounds the sources stays true.
        expectCopied(dir, "source", "source", randomRanges(random, n, size, size, maxLength));
    }
}

TEST(CopyTask, LongAndManyRangesGoThroughSeveralBatches) {
    TempDir dir;
    TestRandom random;
    TRACE_SEED(random);
    constexpr uint64 BLOCK = 4096, N = 3000;
    dir.write("source", random.bytes(N * BLOCK));

    SxArray<Range> blocks, tiny;
    const SxArray<uint64> from = random.permutation(N), to = random.permutation(N);
    for (int64 i = 0; i < static_cast<int64>(N); ++i)
        blocks.append({from(i) * BLOCK, to(i) * BLOCK, BLOCK});
    for (uint64 i = 0; i < 10'000; ++i)
        tiny.append({i * 3, 40'000 - i * 2, 1});
    expectCopied(dir, "source", "scattered", blocks);
    expectCopied(dir, "source", "tiny", tiny);
    expectCopied(dir, "source", "whole", {{0, 0, N * BLOCK}});
    expectCopied(dir, "source", "behind", {{1, N * BLOCK * 2, BATCH + 5}, {BATCH, 0, BATCH}});
    expectCopied(dir, "source", "none", {});
    expectCopied(dir, "source", "source", blocks);
}

TEST(CopyTask, RangesOfOneFileSeeWhatEarlierOnesLeft) {
    const SxArray<Range> cases[] = {
        {{0, 10, 10}, {10, 20, 10}, {20, 30, 10}}, // each takes what the last one wrote
        {{0, 5, 100}},                             // overlaps itself from below
        {{5, 0, 100}},                             // and from above
        {{0, 1, 2 * BATCH + 17}},                  // in several pieces
        {{1, 0, 2 * BATCH + 17}},
        {{100, 3 * BATCH, 10}, {3 * BATCH, 200, 10}}, // behind the old end, and back
        {{0, BATCH, BATCH}, {BATCH, 0, BATCH}, {7, 7, 50}},
        {{0, 2 * BATCH, BATCH - 4}, {0, 2, BATCH}, {2 * BATCH, 9, 8}},
    };
    int i = 0;
    for (const SxArray<Range>& ranges : cases) {
        SCOPED_TRACE(i++);
        TempDir dir;
        TestRandom random;
        dir.write("file", random.bytes(2 * BATCH + 1000));
        expectCopied(dir, "file", "file", ranges);
    }
}

TEST(CopyTask, OneFileIsKnownByWhateverName) {
    TempDir dir;
    TestRandom random;
    const std::string bytes = random.bytes(20'000);
    dir.write("file", bytes);
    std::filesystem::create_hard_link(dir.path("file"), dir.path("second"));
    const SxArray<Range> ranges{{0, 4096, 4096}, {4096, 8192, 4096}};
    std::string expected = bytes;
    copyInMemory(expected, expected, ranges);
    EXPECT_EQ(failureOf(dir.path("file"), dir.path("second"), ranges), "");
    EXPECT_TRUE(dir.read("file") == expected);
}

TEST(CopyTask, FailuresNameFileAndOffset) {
    TempDir dir;
    dir.write("source", std::string(10'000, 'x'));
    const std::string source = dir.path("source"), target = dir.path("target");

    EXPECT_THAT(failureOf(dir.path("none"), target, {{0, 0, 1}}),
                AllOf(HasSubstr("none"), HasSubstr("No such file")));
    EXPECT_FALSE(dir.exists("target"));
    EXPECT_THAT(failureOf(source, dir.path("no/folder"), {{0, 0, 1}}), HasSubstr("no/folder"));
    EXPECT_THAT(failureOf(source, target, {{0, 0, 10}, {9'990, 100, 11}}),
                AllOf(HasSubstr(source), HasSubstr("ends at byte 10000"), HasSubstr("offset 9990")));
    for (const Range& wrong :
         {Range{~uint64{0}, 0, 2}, Range{0, ~uint64{0} >> 1, 1}, Range{0, 0, ~uint64{0}}}) {
        EXPECT_THAT(failureOf(source, target, {{0, 0, 1}, wrong}), HasSubstr("Range 1 is out of bounds"));
    }
    // Their sum would overflow.
    const Range huge{0, 0, ~uint64{0} >> 1};
    EXPECT_THAT(failureOf(source, target, {huge, huge}), HasSubstr("Range 1 is out of bounds"));

    FaultOs os(dir.path());
    const struct {
        FaultOs::Op op;
        int64 nth;
        const char* file;
    } faults[] = {{FaultOs::Op::Read, 2, "source"},
                  {FaultOs::Op::Write, 1, "target"},
                  {FaultOs::Op::Write, 2, "target"},
                  {FaultOs::Op::Sync, 1, "target"}};
    for (const auto& f : faults) {
        os.failNth(f.op, f.nth, EIO);
        EXPECT_THAT(failureOf(source, target, {{0, 0, 100}, {500, 1000, 100}}),
                    AllOf(HasSubstr(f.file), HasSubstr("Input/output error")));
        EXPECT_EQ(os.getNFailed(), 1);
    }
    os.failNth(FaultOs::Op::Sync, 1'000'000, EIO);
    os.setDiskLeft(5'000);
    EXPECT_THAT(failureOf(source, dir.path("third"), {{0, 0, 9'000}}),
                AllOf(HasSubstr("third"), HasSubstr("No space left")));
}

TEST(CopyTask, WhatWasCopiedOutlivesAPowerCut) {
    TempDir dir;
    TestRandom random;
    const std::string bytes = random.bytes(100'000);
    dir.write("source", bytes);
    FaultOs os(dir.path());
    ASSERT_EQ(failureOf(dir.path("source"), dir.path("target"), {{0, 0, 100'000}}), "");
    os.crash();
    EXPECT_TRUE(dir.exists("target") && dir.read("target") == bytes);
}

TEST(CopyTask, StopEndsEarlyAndWhatWasCopiedIsDurable) {
    TempDir dir;
    TestRandom random;
    dir.write("source", random.bytes(8 * BATCH));
    SxArray<Range> ranges;
    for (uint64 i = 0; i < 8; ++i)
        ranges.append({i * BATCH, (7 - i) * BATCH, BATCH});

    ZqFileCopyTask early(dir.path("source"), dir.path("early"), ranges);
    early.stop();
    early.start(6);
    early.wait();
    EXPECT_FALSE(early.hasException());
    EXPECT_EQ(early.getNCurrent(), 0u);

    // The stop arrives with the first batch: the hook runs on the job's thread, ahead of the write.
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
    ZqFileCopyTask late(dir.path("source"), dir.path("late"), ranges);
    os.task = &late;
    late.start(6);
    late.wait();
    EXPECT_FALSE(late.hasException());
    EXPECT_EQ(late.getNCurrent(), BATCH);
    EXPECT_EQ(late.getNTotal(), 8 * BATCH);
    os.crash();
    EXPECT_EQ(dir.read("late").size(), 8 * BATCH) << "what was copied isn't durable";
}
