#include "BaseTest.h"
#include "Builders.h"
#include "SxEventBus.h"
#include "SxTime.h"
#include "VirtualClock.h"
#include "ZqAppParams.h"
#include "ZqFWriter.h"

#include <thread>

namespace {

constexpr uint64 NONE = ZqFWriter::NO_OFFSET;
constexpr uint64 PIECE = 2'000'000;

/// An image folder whose `img.zqf` is still to come.
class FWriterTest : public testing::Test {
protected:
    FWriterTest() { SxEventBus::getGlobalObj().subscribe(SX_APP_ERROR, &errors); }

    /// `present` bytes of `total` are there.
    void prepare(uint64 total, uint64 present = 0) {
        content = random.bytes(total);
        ZqAppParams app;
        app.sizeZqf = total;
        app.write(folder);
        if (present > 0) dir.write("image/img.zqf", content.substr(0, present));
    }
    SxArray<char> part(uint64 offset, uint64 n) const {
        const std::string bytes = content.substr(offset, n);
        SxArray<char> result(static_cast<int64>(bytes.size()));
        std::copy(bytes.begin(), bytes.end(), result.begin());
        return result;
    }
    void push(ZqFWriter& writer, uint64 offset, uint64 n) const { writer.pushChunk(offset, part(offset, n)); }
    std::string image() const { return dir.read("image/img.zqf"); }
    std::vector<std::string> logLines() const {
        std::vector<std::string> lines;
        for (const SxString& line : SxString(dir.read("image/write.log")).tokenize('\n'))
            lines.push_back(line.str());
        return lines;
    }
    /// The text of the only failure that was published since the last question, or an empty one.
    std::string publishedFailure() {
        SxEvent event;
        if (!errors.tryPop(&event)) return "";
        EXPECT_EQ(event.getData().getText(0), folder);
        EXPECT_EQ(errors.getWaitSize(), 0);
        return event.getData().getText(1).str();
    }

    TestRandom random;
    const TempDir dir;
    const SxString folder = dir.prefix() + "image/";
    std::string content;
    SxEventListener errors;
};

} // namespace

TEST_F(FWriterTest, CursorsAndGaps) {
    prepare(9'000'000);
    ZqFWriter writer(folder, "img.zqf");
    EXPECT_TRUE(writer.isNewImage());
    EXPECT_TRUE(dir.exists("image/img.zqf")) << "the image is there before the thread";
    struct Step {
        uint64 offset, size, cursor, available, held;
    };
    const Step steps[] = {
        {0, 0, 0, 0, 0},
        {4'000'000, 2'000'000, 0, 0, 2'000'000},
        {10, 100, 0, 0, 2'000'100},                      // not on the grid
        {0, 1'500'000, 1'500'000, 1'500'000, 3'500'100}, // and the grid isn't met at 4,000,000
        {1'500'000, 4'500'000, 6'000'000, 6'000'000, 8'000'100},
        {6'000'000, 1, 6'000'001, 6'000'001, 8'000'101},
        {6'000'000, 1, 6'000'001, 6'000'001, 8'000'101}, // twice
    };
    for (const Step& s : steps) {
        SCOPED_TRACE(s.offset);
        push(writer, s.offset, s.size);
        writer.updateBufferCursor();
        EXPECT_EQ(writer.getBufferCursor(), s.cursor);
        EXPECT_EQ(writer.getBytesAvail(), s.available);
        EXPECT_EQ(writer.getBytesHeld(), s.held);
    }
    EXPECT_EQ(writer.popOffset(), 0U);
    EXPECT_EQ(writer.popOffset(), NONE) << "the write cursor stays until the bytes are written";
    EXPECT_EQ(writer.getBytesAvail(), 4'500'001U);
}

TEST_F(FWriterTest, WritesWhatComesInAnyOrder) {
    const uint64 total = 23'456'789, present = 1'234'567;
    prepare(total, present);
    dir.write("image/chunks/77.chunk", "of an earlier run");
    ZqFWriter writer(folder, "img.zqf");
    EXPECT_FALSE(dir.exists("image/chunks/77.chunk"));
    EXPECT_FALSE(writer.isNewImage());
    writer.finalize();
    dir.write("image/chunks/" + std::to_string(present) + ".chunk", "x");
    writer.start();
    std::vector<std::pair<uint64, uint64>> pushes;
    for (uint64 at = present; at < total;) {
        const uint64 n = std::min(total - at, random.between(1, random.chance(0.1) ? 6'000'000 : 300'000));
        pushes.emplace_back(at, n);
        at += n;
    }
    for (size_t i = pushes.size() - 1; i > 0; --i)
        std::swap(pushes[i], pushes[random.below(i + 1)]);
    std::thread other([&] {
        for (size_t i = 0; i < pushes.size(); i += 2)
            push(writer, pushes[i].first, pushes[i].second);
    });
    for (size_t i = 1; i < pushes.size(); i += 2)
        push(writer, pushes[i].first, pushes[i].second);
    other.join();
    writer.wait();
    EXPECT_TRUE(writer.isCompleteImage());
    EXPECT_TRUE(image() == content);
    EXPECT_EQ(writer.getBytesHeld(), 0U);
    EXPECT_FALSE(dir.exists("image/chunks") || dir.exists("image/test.dat"));
    const std::vector<std::string> lines = logLines();
    // A line for each two million bytes, and one a second.
    EXPECT_THAT(lines.size(),
                AllOf(testing::Ge(3 + (total - present) / 6'000'000), testing::Le(3 + 12 + 10u)));
    EXPECT_THAT(lines[0], AllOf(StartsWith("#Time0: "), HasSubstr("         1234567 bytes")));
    EXPECT_THAT(lines[1], HasSubstr("of        52428800 bytes took"));
    for (size_t i = 2; i < lines.size(); ++i)
        EXPECT_EQ(lines[i].size(), i == 2 ? 182U : 180U) << lines[i];
    EXPECT_EQ(lines.back().substr(20 + 4 * 16 + 1, 15), "       23456789");
    EXPECT_EQ(publishedFailure(), "");
}

TEST_F(FWriterTest, ThePaceFollowsTheDownload) {
    VirtualClock clock;
    prepare(60'000'000);
    ZqFWriter writer(folder, "img.zqf");
    writer.start();
    SxTime::msleep(3600'000);
    EXPECT_EQ(writer.getBytesPerSecond(), 0U);
    clock.adjustSystem(-7200'000);
    const int64 begin = clock.elapsedMs();
    for (uint64 at = 0; at < 20'000'000; at += PIECE)
        push(writer, at, PIECE);
    while (writer.getWriteCursor() < 20'000'000)
        SxTime::msleep(10);
    // Ten pieces at the least speed, 3 MiB/s.
    EXPECT_THAT(clock.elapsedMs() - begin, AllOf(testing::Ge(6340), testing::Le(6420)));
    EXPECT_EQ(writer.getBytesPerSecond(), 20'000'000'000 / 3'600'000U);
    EXPECT_THAT(logLines().back(), HasSubstr("         3149606         3145728         3145728"));

    push(writer, 20'000'000, PIECE);
    SxTime::msleep(15);
    EXPECT_EQ(image().size(), 22'000'000U) << "a chunk is used as soon as it is there";
    writer.finalize();
    SxTime::msleep(1000);
    const int64 fast = clock.elapsedMs();
    for (uint64 at = 22'000'000; at < 60'000'000; at += PIECE)
        push(writer, at, PIECE);
    writer.wait();
    EXPECT_LE(clock.elapsedMs() - fast, 30);
    EXPECT_TRUE(writer.isCompleteImage());
}

TEST_F(FWriterTest, WithoutAPaceNothingIsTestedAndNothingWaits) {
    VirtualClock clock;
    prepare(200'000'000);
    ZqFWriter writer(folder, "img.zqf");
    writer.setUnpaced();
    writer.start();
    // A line a second where little comes, and one for each piece.
    for (uint64 at = 0; at < 20'000; at += 10) {
        push(writer, at, 10);
        SxTime::msleep(10);
    }
    for (uint64 at = 20'000; at < 200'000'000; at += PIECE)
        push(writer, at, PIECE);
    writer.wait();
    EXPECT_LE(clock.elapsedMs(), 20'050);
    EXPECT_TRUE(writer.isCompleteImage());
    const std::vector<std::string> lines = logLines();
    EXPECT_THAT(lines.size(), AllOf(testing::Ge(3 + 19 + 100u), testing::Le(3 + 22 + 100u)));
    EXPECT_EQ(lines[1], "# Testwrites of               0 bytes took               0 ms");
    EXPECT_EQ(lines.back().substr(20 + 4 * 16 + 1, 15), "      200000000");
    EXPECT_THAT(lines.back(), HasSubstr("               0         3145728               0"));
}

TEST_F(FWriterTest, WhatIsWrittenIsSyncedAndNoted) {
    VirtualClock clock;
    prepare(300'000'000);
    FaultOs os(dir.path());
    uint64 before = 0;
    const auto noted = [&] { return std::stoull(dir.read("image/img.zqf.synced")); };
    {
        ZqFWriter writer(folder, "img.zqf");
        writer.setUnpaced();
        writer.start();
        push(writer, 0, PIECE);
        SxTime::msleep(9'500);
        EXPECT_EQ(noted(), 0U);
        SxTime::msleep(1'000);
        EXPECT_EQ(noted(), PIECE) << "ten seconds";
        for (uint64 at = PIECE; at < 80'000'000; at += PIECE)
            push(writer, at, PIECE);
        SxTime::msleep(200);
        EXPECT_THAT(noted(), AllOf(testing::Ge(uint64{64} << 20), testing::Le(80'000'000U))) << "64 MiB";
        // What isn't on the device isn't noted, nor is what comes after that.
        os.failNth(Op::Sync, 1, EIO, "img.zqf");
        before = noted();
        push(writer, 80'000'000, PIECE);
        SxTime::msleep(20'000);
        push(writer, 82'000'000, PIECE);
        SxTime::msleep(20'000);
        EXPECT_EQ(os.getNFailed(), 1);
        EXPECT_EQ(noted(), before);
        writer.stop();
        writer.wait();
        EXPECT_EQ(publishedFailure(), "");
    }
    ZqFWriter next(folder, "img.zqf");
    EXPECT_EQ(image().size(), 84'000'000U) << "after a mere stop all is believed";
    next.setUnpaced();
    next.start();
    push(next, 84'000'000, PIECE);
    SxTime::msleep(100);
    next.stop();
    next.wait();
    EXPECT_EQ(noted(), before) << "no sync of a later writer brings back what one has lost";
    // Begun anew, the note of what was there before vouches for nothing.
    fs::remove(dir.path("image/img.zqf"));
    ZqFWriter anew(folder, "img.zqf");
    anew.setUnpaced();
    anew.start();
    SxTime::msleep(100);
    EXPECT_EQ(noted(), 0U);
    push(anew, 0, PIECE);
    SxTime::msleep(100);
    anew.stop();
    anew.wait();
    EXPECT_EQ(noted(), PIECE) << "a stop syncs the rest";
}

TEST_F(FWriterTest, StopsAndThrottles) {
    for (const uint64 nPushed : {0U, 2U}) {
        VirtualClock clock;
        prepare(10'000'000);
        ZqFWriter writer(folder, "img.zqf");
        writer.start();
        writer.setThrottle(true);
        for (uint64 i = 0; i < nPushed; ++i)
            push(writer, i * PIECE, PIECE);
        EXPECT_EQ(clock.elapsedMs(), static_cast<int64>(nPushed) * 1000);
        SxTime::msleep(100);
        writer.stop();
        writer.wait();
        EXPECT_LE(clock.elapsedMs(), static_cast<int64>(nPushed) * 1000 + 120);
        EXPECT_FALSE(writer.isCompleteImage());
        EXPECT_EQ(image(), content.substr(0, nPushed * PIECE));
        EXPECT_EQ(publishedFailure(), "");
        fs::remove_all(dir.path("image"));
    }
    prepare(5, 5);
    ZqFWriter complete(folder, "img.zqf");
    complete.start();
    complete.wait();
    EXPECT_TRUE(complete.isCompleteImage());
    EXPECT_FALSE(dir.exists("image/chunks") || dir.exists("image/test.dat"));
}

TEST_F(FWriterTest, AFullDiskIsGoneOnFrom) {
    prepare(10'000'000, 100);
    FaultOs os(dir.path());
    for (const int64 room : {0, 3'000'001, 4'000'000}) {
        SCOPED_TRACE(room);
        os.setDiskLeft(room);
        const uint64 before = image().size();
        ZqFWriter writer(folder, "img.zqf");
        writer.finalize();
        writer.start();
        for (uint64 at = before; at < 10'000'000; at += PIECE)
            push(writer, at, PIECE);
        writer.wait();
        EXPECT_FALSE(writer.isCompleteImage());
        EXPECT_THAT(publishedFailure(), HasSubstr("No space left"));
        EXPECT_EQ(image(), content.substr(0, image().size()));
        EXPECT_GE(image().size(), before + static_cast<uint64>(room) * 9 / 10);
        EXPECT_FALSE(dir.exists("image/test.dat")) << "it would hold the room that is missing";
    }
    os.setDiskLeft(1 << 30);
    ZqFWriter writer(folder, "img.zqf");
    writer.finalize();
    writer.start();
    for (uint64 at = image().size(); at < 10'000'000; at += PIECE)
        push(writer, at, PIECE);
    writer.wait();
    EXPECT_TRUE(writer.isCompleteImage());
    EXPECT_TRUE(image() == content);
}

TEST_F(FWriterTest, TheReserveOfTheDiskStays) {
    VirtualClock clock;
    prepare(10'000'000, 100'000);
    FaultOs os(dir.path());
    os.setDiskLeft(5'000'000);
    const ZqDiskReserve reserve(folder, 100'000);
    ASSERT_EQ(reserve.getSize(), 510'000U);
    for (const bool isStopped : {true, false}) {
        ZqFWriter writer(folder, "img.zqf");
        writer.setReserve(reserve);
        writer.finalize();
        writer.start();
        const uint64 begin = image().size();
        for (uint64 at = begin; at < 10'000'000; at += PIECE)
            push(writer, at, PIECE);
        while (!writer.isWaitingForRoom())
            SxTime::msleep(100);
        EXPECT_EQ(image().size(), 4'100'000U);
        EXPECT_EQ(writer.getBytesHeld(), 10'000'000 - image().size());
        if (!isStopped) {
            // Others fill the disk, and make room again in pieces.
            os.setDiskLeft(1);
            SxTime::msleep(60'000);
            EXPECT_TRUE(writer.isWaitingForRoom());
            os.setDiskLeft(3'000'000);
            SxTime::msleep(200);
            EXPECT_TRUE(writer.isWaitingForRoom());
            EXPECT_EQ(image().size(), 6'100'000U) << "the next piece would go beyond the reserve";
            os.setDiskLeft(1 << 30);
        }
        if (isStopped) writer.stop();
        const int64 asked = clock.elapsedMs();
        writer.wait();
        EXPECT_LE(clock.elapsedMs() - asked, 400);
        EXPECT_EQ(writer.isCompleteImage(), !isStopped);
        EXPECT_FALSE(writer.isWaitingForRoom());
        EXPECT_EQ(publishedFailure(), "");
    }
    EXPECT_TRUE(image() == content);
}

TEST_F(FWriterTest, Failures) {
    struct Case {
        Op op;
        const char *path, *text;
    };
    for (const Case& c : {Case{Op::Write, "test.dat", "Cannot perform disk speed test"},
                          Case{Op::Open, "write.log", "write.log"}, Case{Op::Open, "app.json", "app.json"},
                          Case{Op::Write, "img.zqf", "img.zqf"}}) {
        SCOPED_TRACE(c.path);
        prepare(10);
        FaultOs os(dir.path());
        ZqFWriter writer(folder, "img.zqf");
        push(writer, 0, 10);
        os.failNth(c.op, 1, EIO, c.path);
        EXPECT_THAT(failureOf(writer), HasSubstr(c.text));
        EXPECT_THAT(publishedFailure(), HasSubstr(c.text));
        EXPECT_FALSE(writer.isCompleteImage());
    }
    // What can't be removed in the end is no failure.
    prepare(10);
    FaultOs os(dir.path());
    ZqFWriter writer(folder, "img.zqf");
    push(writer, 0, 10);
    os.failNth(Op::RemoveDir, 1, EBUSY, "chunks");
    EXPECT_EQ(failureOf(writer), "");
    EXPECT_EQ(os.getNFailed(), 1);
    EXPECT_TRUE(writer.isCompleteImage());
    EXPECT_EQ(publishedFailure(), "");
}
