#include "Builders.h"
#include "FaultOs.h"
#include "SxFileIO.h"
#include "ZqFileCopyTask.h"

#include <gmock/gmock.h>

using testing::AllOf;
using testing::HasSubstr;
using Range = ZqFileCopyTask::Range;

namespace {

constexpr uint64 BATCH = 1 << 20, BLOCK = 4096;

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
                  const SxArray<Range>& ranges, bool isGenerated = false) {
    std::error_code noTarget;
    const bool inPlace = std::filesystem::equivalent(dir.path(sourceName), dir.path(targetName), noTarget);
    const std::string source = dir.read(sourceName);
    std::string target = dir.exists(targetName) ? dir.read(targetName) : "";
    const std::string copied = copyInMemory(inPlace ? target : source, target, ranges);

    const auto rangeAt = [&](int64 i) { return ranges(i); };
    const auto task =
        isGenerated ? std::make_unique<ZqFileCopyTask>(dir.path(sourceName), dir.path(targetName),
                                                       ranges.getSize(), rangeAt)
                    : std::make_unique<ZqFileCopyTask>(dir.path(sourceName), dir.path(targetName), ranges);
    ASSERT_EQ(failureOf(*task), "");
    EXPECT_EQ(task->getNTotal(), copied.size());
    EXPECT_EQ(task->getNCurrent(), copied.size());
    EXPECT_EQ(task->getMD5().toString(), SxMd5::get(SxString(copied)));
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

/// Whether a range of whole blocks reads one that was written before: each is compared with all earlier ones.
bool readsItsOwnWrites(const SxArray<Range>& ranges) {
    const auto overlap = [](uint64 a, uint64 b, uint64 nA, uint64 nB) { return a < b + nB && b < a + nA; };
    for (int64 i = 0; i < ranges.getSize(); ++i) {
        const Range& r = ranges(i);
        if (r.sourceOffset < r.targetOffset && r.targetOffset < r.sourceOffset + r.length) return true;
        for (int64 j = 0; j < i; ++j) {
            const Range& earlier = ranges(j);
            if (overlap(r.sourceOffset, earlier.targetOffset, r.length, earlier.length)) return true;
        }
    }
    return false;
}

} // namespace

TEST(CopyTask, RandomRangesFollowTheModel) {
    for (uint64 round = 0; round < 40; ++round) {
        TempDir dir(TempDir::inMemory());
        TestRandom random(100 + round);
        TRACE_SEED(random);
        const uint64 size = random.between(1, 60'000);
        const uint64 maxLength = random.chance(0.5) ? 50 : 9'000, n = random.below(300);
        dir.write("source", random.bytes(size));
        if (random.chance(0.5)) dir.write("target", random.bytes(random.below(80'000)));
        expectCopied(dir, "source", "target", randomRanges(random, n, size, 70'000, maxLength),
                     random.chance(0.5));
    }
}

TEST(CopyTask, RangesInOneFileAreCopiedOrRefusedAsAWhole) {
    int nRefused = 0;
    constexpr int ROUNDS = 200;
    for (int round = 0; round < ROUNDS; ++round) {
        TempDir dir(TempDir::inMemory());
        TestRandom random(static_cast<uint64>(500 + round));
        TRACE_SEED(random);
        constexpr uint64 N_BLOCKS = 40;
        const std::string bytes = random.bytes(N_BLOCKS * BLOCK);
        dir.write("file", bytes);
        SxArray<Range> ranges;
        for (uint64 n = random.between(1, 5); n > 0; --n) {
            const uint64 nBlocks = random.between(1, 8);
            // Some beyond the end.
            ranges.append({random.below(N_BLOCKS - nBlocks + 1) * BLOCK, random.below(N_BLOCKS + 20) * BLOCK,
                           nBlocks * BLOCK});
        }
        if (!readsItsOwnWrites(ranges)) {
            expectCopied(dir, "file", "file", ranges);
            continue;
        }
        ++nRefused;
        EXPECT_THAT(failureOf(dir.path("file"), dir.path("file"), ranges),
                    AllOf(HasSubstr(dir.path("file")), HasSubstr("written there before")));
        EXPECT_TRUE(dir.read("file") == bytes) << "was changed";
    }
    EXPECT_GT(nRefused, ROUNDS / 5);
    EXPECT_LT(nRefused, ROUNDS * 4 / 5);
}

TEST(CopyTask, RangesOverSeveralBatches) {
    const TempDir dir(TempDir::inMemory());
    dir.write("file", TestRandom().bytes(9 * BATCH + 1000));
    std::filesystem::create_hard_link(dir.path("file"), dir.path("same"));
    // More bytes than all buffers hold, overlapping itself from above, and then beyond the old end.
    expectCopied(dir, "file", "same", {{5000, 17, 9 * BATCH - 4000}});
    expectCopied(dir, "file", "same", {{1, 11 * BATCH, BATCH + 5}, {2 * BATCH, BATCH - 4, BATCH}});
    expectCopied(dir, "file", "other", {{1, 2 * BATCH, BATCH + 5}, {BATCH, 0, BATCH}, {0, 3, 4 * BATCH}});
    EXPECT_THAT(failureOf(dir.path("file"), dir.path("same"), {{0, BATCH, 2 * BATCH}}),
                HasSubstr("written there before"));
}

TEST(CopyTask, ManyTinyRanges) {
    const TempDir dir(TempDir::inMemory());
    TestRandom random;
    dir.write("source", random.bytes(50'000));
    // Both sides jump with each range, so that nothing can be merged.
    SxArray<Range> ranges;
    for (uint64 i = 0; i < 30'000; ++i)
        ranges.append({random.below(49'990), (i * 7) % 210'000, i % 5});
    expectCopied(dir, "source", "target", ranges, true);
}

TEST(CopyTask, RefusesRangesBeforeAByteIsWritten) {
    constexpr uint64 MOST = INT64_MAX;
    const std::pair<SxArray<Range>, const char*> cases[] = {
        {{{0, 0, 10}, {9'990, 100, 11}}, "ends at byte 10000, and range 1 wants 11 bytes at offset 9990"},
        {{{0, 0, 10}, {~uint64{0}, 0, 2}}, "range 1 wants 2 bytes at offset 18446744073709551615"},
        {{{0, 0, 10}, {10'001, 0, 0}}, "range 1 wants 0 bytes at offset 10001"},
        {{{0, 0, 10}, {0, 0, ~uint64{0}}}, "range 1 wants 18446744073709551615 bytes"},
        {{{0, 0, 10}, {0, MOST, 1}}, "Range 1 is out of bounds: 1 bytes to offset 9223372036854775807"},
        {{{0, 0, 10}, {0, ~uint64{0}, 1}}, "Range 1 is out of bounds"},
    };
    const TempDir dir(TempDir::inMemory());
    dir.write("source", std::string(10'000, 'x'));
    dir.write("old", "old");
    for (const auto& [ranges, text] : cases) {
        EXPECT_THAT(failureOf(dir.path("source"), dir.path("target"), ranges),
                    AllOf(HasSubstr(text), HasSubstr(dir.path("target"))));
        EXPECT_FALSE(dir.exists("target")) << text;
        failureOf(dir.path("source"), dir.path("old"), ranges);
        EXPECT_EQ(dir.read("old"), "old") << text;
    }
    EXPECT_THAT(failureOf(dir.path("none"), dir.path("target"), {{0, 0, 1}}),
                AllOf(HasSubstr("none"), HasSubstr("No such file")));
    EXPECT_FALSE(dir.exists("target"));
}

TEST(CopyTask, DoesNotWriteThroughALink) {
    const TempDir dir(TempDir::inMemory());
    dir.write("source", "new");
    dir.write("elsewhere", "old");
    std::filesystem::create_symlink("elsewhere", dir.path("link"));
    std::filesystem::create_symlink("nowhere", dir.path("loose"));
    for (const char* link : {"link", "loose"}) {
        EXPECT_THAT(failureOf(dir.path("source"), dir.path(link), {{0, 0, 3}}),
                    AllOf(HasSubstr(dir.path(link)), HasSubstr("is a link")));
    }
    EXPECT_EQ(dir.read("elsewhere"), "old");
    EXPECT_FALSE(dir.exists("nowhere"));
}

TEST(CopyTask, FaultsOfTheDiskAreToldWithTheirFile) {
    using Op = FaultOs::Op;
    TempDir dir(TempDir::inMemory());
    // Single blocks over more batches than there are buffers: most faults come while the digest is at work.
    dir.write("source", TestRandom().bytes(9 * BATCH));
    SxArray<Range> ranges;
    for (uint64 i = 9 * BATCH / BLOCK; i > 0; --i)
        ranges.append({(i - 1) * BLOCK, i * 2 * BLOCK, BLOCK});
    FaultOs os(dir.path());
    struct Case {
        Op op;
        int64 nth;
        const char* file;
    };
    const Case cases[] = {{Op::Open, 1, "source"},     {Op::Open, 1, "target"},    {Op::Stat, 1, "target"},
                          {Op::Read, 1, "source"},     {Op::Read, 2000, "source"}, {Op::Write, 1, "target"},
                          {Op::Write, 2300, "target"}, {Op::Sync, 1, "target"},    {Op::Close, 1, "target"},
                          {Op::SyncDir, 1, ""}};
    for (const Case& fault : cases) {
        SCOPED_TRACE(testing::Message() << static_cast<int>(fault.op) << ", " << fault.nth);
        os.failNth(fault.op, fault.nth, EIO, fault.file);
        EXPECT_THAT(failureOf(dir.path("source"), dir.path("target"), ranges),
                    AllOf(HasSubstr(dir.path(fault.file)), HasSubstr("Input/output error")));
        EXPECT_EQ(os.getNFailed(), 1);
    }
    // The file tells its old size, and has become shorter.
    os.setReadEnd("source", 8 * BATCH + 5);
    EXPECT_THAT(failureOf(dir.path("source"), dir.path("target"), ranges),
                AllOf(HasSubstr(dir.path("source")), HasSubstr("ends at byte 8388613")));
    os.setReadEnd("source", -1);
    os.setDiskLeft(5'000);
    EXPECT_THAT(failureOf(dir.path("source"), dir.path("third"), {{0, 0, 9'000}}),
                AllOf(HasSubstr(dir.path("third")), HasSubstr("No space left")));
}

TEST(CopyTask, WhatWasCopiedOutlivesAPowerCut) {
    TempDir dir(TempDir::inMemory());
    const std::string bytes = TestRandom().bytes(9 * BATCH);
    dir.write("source", bytes);
    FaultOs os(dir.path());
    for (const uint64 to : {uint64{0}, uint64{100}}) { // a new file, and then one that is there
        EXPECT_EQ(failureOf(dir.path("source"), dir.path("target"), {{to, to, 9 * BATCH - to}}), "");
        os.crash();
        ASSERT_TRUE(dir.exists("target"));
        EXPECT_TRUE(dir.read("target") == bytes);
    }
    // The name of a file that was made by somebody who was cut off.
    { const SxFileIO made(dir.path("third"), "wb"); }
    EXPECT_EQ(failureOf(dir.path("source"), dir.path("third"), {{0, 0, 10}}), "");
    os.crash();
    ASSERT_TRUE(dir.exists("third"));
    EXPECT_EQ(dir.read("third"), bytes.substr(0, 10));
}

TEST(CopyTask, StopEndsEarly) {
    TempDir dir(TempDir::inMemory());
    const std::string bytes = TestRandom().bytes(8 * BATCH);
    dir.write("source", bytes);

    class StoppingOs : public FaultOs {
    public:
        using FaultOs::FaultOs;
        int64 writeAt(int fd, const void* buffer, int64 n, int64 offset) override {
            if (++nWrites == stopAt) task->stop();
            return FaultOs::writeAt(fd, buffer, n, offset);
        }
        ZqFileCopyTask* task = nullptr;
        int64 nWrites = 0, stopAt = 0;
    };
    StoppingOs os(dir.path());
    SxArray<Range> ranges;
    for (uint64 i = 0; i < 2048; ++i)
        ranges.append({i * BLOCK, i * 2 * BLOCK, BLOCK});
    for (const int64 stopAt : {1, 1500, 2048}) {
        ZqFileCopyTask task(dir.path("source"), dir.path("target"), ranges);
        os.task = &task;
        os.nWrites = 0;
        os.stopAt = stopAt;
        EXPECT_EQ(failureOf(task), "");
        EXPECT_EQ(os.nWrites, stopAt);
        EXPECT_EQ(task.getNCurrent(), static_cast<uint64>(stopAt) * BLOCK);
        // Nobody takes it for the digest of the whole.
        EXPECT_THROW(task.getMD5().toString(), SxException);
    }
    os.stopAt = 0;
    ZqFileCopyTask early(dir.path("source"), dir.path("target"), ranges);
    early.stop();
    os.nWrites = 0;
    EXPECT_EQ(failureOf(early), "");
    EXPECT_EQ(os.nWrites, 0);
}
