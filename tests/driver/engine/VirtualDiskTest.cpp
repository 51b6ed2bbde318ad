#include "DriveImage.h"
#include "Failure.h"
#include "SxFileIO.h"
#include "SxJSONParser.h"
#include "SxMd5.h"
#include "SxTime.h"
#include "VirtualClock.h"
#include "ZqBlocks.h"

#include <array>
#include <cstring>
#include <gmock/gmock.h>

namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using Result = Drive::Result;

/// An image whose blocks stand in RAW order, of which none is present.
struct OrderedImage : DriveImage {
    explicit OrderedImage(TestRandom random = TestRandom(1)) : DriveImage(random, 32, 1.0, "watched/") {
        zqf = image.raw;
        for (int64 rawIdx = 0; rawIdx < 32; ++rawIdx)
            image.map(rawIdx) = static_cast<uint64>(rawIdx);
        sizeRaw = sizeZqf = zqf.size();
        image.write(prefix);
        std::ofstream(path("img.zqf"), std::ios::binary) << zqf;
    }
    void deliver(VirtualDisk* drive, uint64 zqfIdx, uint64 n) const {
        drive->deliver(zqfIdx, zqf.data() + zqfIdx * ZqBlocks::SIZE, n * ZqBlocks::SIZE);
    }
};

struct TraceRecord {
    uint64 block, time;
};

std::vector<TraceRecord> readTrace(const std::string& path) {
    const std::string bytes = TempDir::readFile(path);
    EXPECT_EQ(bytes.size() % sizeof(TraceRecord), 0U);
    std::vector<TraceRecord> records(bytes.size() / sizeof(TraceRecord));
    std::memcpy(records.data(), bytes.data(), records.size() * sizeof(TraceRecord));
    return records;
}

} // namespace

TEST(VirtualDisk, AnImageThatDoesNotFitIsRefused) {
    struct Case {
        const char* name;
        std::function<void(const OrderedImage&, VirtualDisk::Config*)> spoil;
        const char* failure;
    };
    const auto writeMap = [](const OrderedImage& image, int64 rawIdx, uint64 zqfIdx) {
        std::string bytes = image.image.idxBytes();
        std::memcpy(&bytes[static_cast<size_t>(rawIdx) * 8], &zqfIdx, 8);
        image.dir.write("watched/img.idx", bytes);
    };
    const Case cases[] = {
        {"no map", [](auto& i, auto*) { std::filesystem::remove(i.path("img.idx")); }, "img.idx"},
        {"no blocks", [](auto& i, auto*) { std::filesystem::remove(i.path("img.zqf")); }, "img.zqf"},
        {"odd map", [](auto& i, auto*) { std::filesystem::resize_file(i.path("img.idx"), 255); },
         "Invalid size of"},
        {"empty map", [](auto& i, auto*) { i.dir.write("watched/img.idx", ""); }, "Invalid size of"},
        {"short map", [](auto& i, auto*) { std::filesystem::resize_file(i.path("img.idx"), 248); },
         "has 31 entries"},
        {"larger disk", [](auto&, auto* c) { ++c->sizeRaw; }, "needs 33"},
        {"entry beyond", [&](auto& i, auto*) { writeMap(i, 3, 32); }, "ZqF index 32 for RAW block 3"},
        {"top bit", [&](auto& i, auto*) { writeMap(i, 3, ~uint64{1}); }, "for RAW block 3"},
        {"equal entries", [&](auto& i, auto* c) { writeMap(i, 3, 4), c->readOnly = false; },
         "ZqF index 4 twice"},
        {"partial in place", [](auto&, auto* c) { c->readOnly = false, c->cursor = 31; }, "31 of 32 blocks"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        const OrderedImage image;
        VirtualDisk::Config config = image.config(Mode::Ro, 32);
        test.spoil(image, &config);
        EXPECT_THAT(failureOf([&] { const VirtualDisk disk(config, [](uint64) {}); }),
                    HasSubstr(test.failure));
    }
}

TEST(VirtualDisk, ADeliveryThatDoesNotFitIsRefused) {
    struct Case {
        uint64 zqfIdx, length;
        const char* failure;
    };
    const OrderedImage image;
    Drive drive(image, Mode::Ro, 4);
    const std::string bytes(UnderflowStore::LONGEST_DELIVERY + 4096, 'x');
    for (const Case& test :
         {Case{5, 0, "is empty"}, Case{32, 4096, "beyond the image"}, Case{~uint64{0}, 4096, "beyond"},
          Case{31, 4097, "beyond the image"}, Case{5, 4095, "inside a block"},
          Case{5, UnderflowStore::LONGEST_DELIVERY + 4096, "too long"}, Case{3, 4096, ""},
          Case{31, 100, ""}}) {
        const std::string failure =
            failureOf([&] { drive.disk.deliver(test.zqfIdx, bytes.data(), test.length); });
        EXPECT_THAT(failure, HasSubstr(test.failure)) << test.zqfIdx << ", " << test.length;
        EXPECT_EQ(failure.empty(), *test.failure == '\0') << failure;
    }
    ASSERT_EQ(drive.read(3, 1, 1), Result::Done);
    EXPECT_EQ(drive.buffer, image.image.rawBlock(3)) << "a delivery below the cursor changes nothing";
    ASSERT_EQ(drive.read(31, 1, 1), Result::Done);
    EXPECT_EQ(drive.buffer, std::string(100, 'x') + std::string(3996, '\0'));
}

TEST(VirtualDisk, TheQueueGivesTheOldestFirstAndUndeliveredBlocksAgain) {
    VirtualClock clock;
    const OrderedImage image;
    Drive drive(image, Mode::Ro, 2);
    ASSERT_EQ(drive.read(10, 3, 1), Result::Held);
    ASSERT_EQ(drive.read(4, 2, 2), Result::Held);
    ASSERT_EQ(drive.read(11, 4, 3), Result::Held);
    EXPECT_EQ(drive.disk.queueLength(), 7U);
    EXPECT_THAT(drive.disk.popMissing(4), ElementsAre(10, 11, 12, 4));
    SxClock::get().sleepNs(60'000'000);
    EXPECT_THAT(drive.disk.popMissing(2), ElementsAre(5, 13));
    image.deliver(&drive.disk, 11, 1);
    EXPECT_EQ(drive.disk.queueLength(), 1U);
    SxClock::get().sleepNs(40'000'000);
    EXPECT_EQ(drive.disk.queueLength(), 4U);
    EXPECT_THAT(drive.disk.popMissing(9), ElementsAre(10, 12, 4, 14));
    uint64 offset = 0, length = 0;
    EXPECT_TRUE(drive.disk.oldestRequest(&offset, &length));
    EXPECT_EQ(offset, 10 * ZqBlocks::SIZE);
    EXPECT_EQ(length, 2 * ZqBlocks::SIZE);
    drive.disk.setCursor(13);
    EXPECT_THAT(drive.woken, testing::UnorderedElementsAre(1, 2)) << "the third waits for 13 and 14";
    EXPECT_EQ(drive.disk.queueLength(), 0U);
}

TEST(VirtualDisk, AWaitLastsAsLongAsAnyReadIsHeld) {
    VirtualClock clock;
    const OrderedImage image;
    Drive drive(image, Mode::Ro, 2);
    const auto ms = [](int64 n) { SxTime::msleep(n); };
    const auto spanMs = [&] {
        const ReadWaits::View view = drive.disk.waitsOfReads();
        return (view.lastToNs - view.lastFromNs) / 1'000'000;
    };
    ms(1); // at 0 this clock says that there is none
    ASSERT_EQ(drive.read(10, 1, 1), Result::Held);
    ms(300);
    ASSERT_EQ(drive.read(20, 1, 2), Result::Held);
    ms(100);
    image.deliver(&drive.disk, 10, 1);
    EXPECT_NE(drive.disk.waitsOfReads().sinceNs, 0);
    EXPECT_EQ(drive.disk.waitsOfReads().lastToNs, 0) << "it goes on with the other one";
    ms(200);
    image.deliver(&drive.disk, 20, 1);
    EXPECT_EQ(spanMs(), 600);
    EXPECT_EQ(drive.disk.waitsOfReads().sinceNs, 0);
    // A short one isn't kept. A suspended drive's is one.
    ASSERT_EQ(drive.read(11, 1, 3), Result::Held);
    ms(400);
    image.deliver(&drive.disk, 11, 1);
    EXPECT_EQ(spanMs(), 600);
    drive.disk.suspend();
    ASSERT_EQ(drive.read(11, 1, 4), Result::Held);
    ms(1'000);
    drive.disk.resume();
    EXPECT_EQ(spanMs(), 1'000);
}

TEST(VirtualDisk, HeldReadsFailWhenTheyAreToAndAtTheEnd) {
    const OrderedImage image;
    Drive drive(image, Mode::Ro, 2);
    ASSERT_EQ(drive.read(10, 3, 1), Result::Held);
    EXPECT_TRUE(drive.disk.isUnderflow());
    drive.disk.setFailOnUnderflow();
    EXPECT_THAT(drive.woken, ElementsAre(1));
    EXPECT_FALSE(drive.disk.isUnderflow());
    EXPECT_EQ(drive.disk.queueLength(), 0U);
    EXPECT_EQ(drive.read(10, 3, 1, true), Result::Failed);
    EXPECT_EQ(drive.error, EIO);
    EXPECT_EQ(drive.read(20, 1, 2), Result::Failed);
    EXPECT_EQ(drive.read(0, 2, 3), Result::Done);

    drive.disk.suspend();
    ASSERT_EQ(drive.read(0, 1, 4), Result::Held);
    EXPECT_FALSE(drive.disk.isUnderflow()) << "it waits for no block";
    drive.disk.close();
    EXPECT_THAT(drive.woken, ElementsAre(1, 4));
    EXPECT_EQ(drive.read(0, 1, 4, true), Result::Failed);
    EXPECT_EQ(drive.error, EIO);
}

TEST(VirtualDisk, AReadThatComesShortBelowTheCursorIsTriedAgainForAWhile) {
    VirtualClock clock;
    const OrderedImage image;
    FaultOs os(image.dir.path("watched"));
    Drive drive(image, Mode::Ro, 20);
    os.setReadEnd("img.zqf", 8 * ZqBlocks::SIZE + 1);
    EXPECT_EQ(drive.read(4, 4, 1), Result::Done);
    ASSERT_EQ(drive.read(4, 5, 2), Result::Held);
    ASSERT_EQ(drive.read(9, 1, 3), Result::Held);
    EXPECT_EQ(drive.disk.nHeld(), 2U);
    EXPECT_FALSE(drive.disk.isUnderflow()) << "nobody else can bring these blocks";
    EXPECT_EQ(drive.disk.queueLength(), 0U);
    EXPECT_THAT(drive.woken, IsEmpty());

    // The write goes on, slowly.
    for (int64 n = 1; n <= 30; ++n) {
        SxClock::get().sleepNs(300'000'000);
        drive.disk.tick();
        ASSERT_THAT(drive.woken, ElementsAre(2, 3));
        drive.woken.clear();
        ASSERT_EQ(drive.read(4, 5, 2, true), Result::Held);
        ASSERT_EQ(drive.read(9, 1, 3, true), Result::Held);
    }
    EXPECT_EQ(drive.disk.getFailure(), "");
    os.setReadEnd("img.zqf", 9 * ZqBlocks::SIZE);
    drive.disk.tick();
    ASSERT_EQ(drive.read(4, 5, 2, true), Result::Done);
    EXPECT_EQ(drive.buffer, image.image.raw.substr(4 * ZqBlocks::SIZE, 5 * ZqBlocks::SIZE));
    ASSERT_EQ(drive.read(9, 1, 3, true), Result::Held);

    // A new request under the same token gets its time anew; the other one's time is up.
    ASSERT_EQ(drive.read(10, 1, 2), Result::Held);
    SxClock::get().sleepNs(1'100'000'000);
    drive.disk.tick();
    ASSERT_EQ(drive.read(10, 1, 2, true), Result::Held);
    EXPECT_EQ(drive.read(9, 1, 3, true), Result::Failed);
    EXPECT_EQ(drive.error, EIO);
    EXPECT_THAT(drive.disk.getFailure().str(), AllOf(HasSubstr("img.zqf"), HasSubstr("ends")));
    EXPECT_EQ(drive.read(11, 1, 4), Result::Failed) << "a file that was cut isn't waited for by each read";
    drive.disk.setCursor(21);
    EXPECT_EQ(drive.read(11, 1, 4), Result::Held) << "it grows";
    EXPECT_TRUE(drive.disk.forget(4));
    drive.woken.clear();
    ASSERT_EQ(drive.read(12, 1, 5), Result::Held);
    drive.disk.setFailOnUnderflow();
    EXPECT_THAT(drive.woken, testing::Contains(5));
    EXPECT_EQ(drive.read(12, 1, 5, true), Result::Failed) << "at once, as where blocks are missing";
}

TEST(VirtualDisk, AWriteOfAPartIsHeldWhereItsBlockComesShort) {
    const OrderedImage image;
    FaultOs os(image.dir.path("watched"));
    Drive drive(image, Mode::Rtw, 20);
    os.setReadEnd("img.zqf", 8 * ZqBlocks::SIZE + 1);
    const std::string data(ZqBlocks::SIZE, 'x');
    const uint64 offset = 8 * ZqBlocks::SIZE + 100;
    ASSERT_EQ(drive.disk.write(offset, ZqBlocks::SIZE, data.data(), 1, false, &drive.error), Result::Held);
    drive.disk.tick();
    ASSERT_THAT(drive.woken, ElementsAre(1));
    os.setReadEnd("", -1);
    ASSERT_EQ(drive.disk.write(offset, ZqBlocks::SIZE, data.data(), 1, true, &drive.error), Result::Done);
    ASSERT_EQ(drive.read(8, 2, 2), Result::Done);
    std::string expected = image.image.raw.substr(8 * ZqBlocks::SIZE, 2 * ZqBlocks::SIZE);
    expected.replace(100, ZqBlocks::SIZE, data);
    EXPECT_EQ(drive.buffer, expected);
}

TEST(VirtualDisk, OnlyWhatTheImageLacksOfItsLastBlockIsZeros) {
    struct Case {
        const char* name;
        uint64 cursor;  ///< at the start; all is there after it
        int64 cutBytes; ///< of the file, once it was whole; 0 for none
        int64 hidden;   ///< bytes at the end that reads don't give yet
        Result expected;
    };
    constexpr int64 LAST = 1000; // bytes of the last block
    for (const Case& test :
         {Case{"whole from the start", 32, 0, 0, Result::Done}, Case{"whole later", 20, 0, 0, Result::Done},
          Case{"still written", 32, 0, 1, Result::Held}, Case{"none of it there", 20, 0, LAST, Result::Held},
          Case{"cut inside", 32, 600, 0, Result::Held}, Case{"cut before it", 20, LAST, 0, Result::Held}}) {
        SCOPED_TRACE(test.name);
        const OrderedImage image;
        const int64 size = 31 * 4096 + LAST;
        std::filesystem::resize_file(image.path("img.zqf"), size);
        FaultOs os(image.dir.path("watched"));
        Drive drive(image, Mode::Ro, test.cursor);
        drive.disk.setCursor(32);
        std::filesystem::resize_file(image.path("img.zqf"), static_cast<uint64>(size - test.cutBytes));
        os.setReadEnd("img.zqf", size - test.hidden);
        ASSERT_EQ(drive.read(30, 2, 1), test.expected);
        // No image has anything there, so these are zeros, whatever has become of the file.
        char rest[512];
        int error = 0;
        EXPECT_EQ(drive.disk.read(31 * ZqBlocks::SIZE + 2048, sizeof rest, rest, 2, false, &error),
                  Result::Done);
        EXPECT_EQ(std::string(rest, sizeof rest), std::string(sizeof rest, '\0'));
        if (test.expected != Result::Done) continue;
        EXPECT_EQ(drive.buffer.substr(0, ZqBlocks::SIZE + LAST),
                  image.image.raw.substr(30 * ZqBlocks::SIZE, ZqBlocks::SIZE + LAST));
        EXPECT_EQ(drive.buffer.find_first_not_of('\0', ZqBlocks::SIZE + LAST), std::string::npos);
    }
}

TEST(VirtualDisk, ReadsAreCountedByWhereTheyCameFromAndForHowLongTheyWaited) {
    VirtualClock clock;
    const OrderedImage image;
    Drive drive(image, Mode::Rtw, 4);
    const auto bytes = [&](ReadPlan::Kind kind) {
        return drive.disk.getReads()->getBytes(kind) / ZqBlocks::SIZE;
    };
    EXPECT_EQ(drive.read(0, 3, 1), Result::Done);
    EXPECT_EQ(drive.write(2, std::string(ZqBlocks::SIZE, 'w')), 0);
    EXPECT_EQ(drive.discard(3, 1), 0);
    EXPECT_EQ(drive.read(0, 4, 2), Result::Done);
    // Two wait for one block, one of them twice; a third one is given up.
    EXPECT_EQ(drive.read(9, 2, 3), Result::Held);
    SxTime::msleep(30);
    EXPECT_EQ(drive.read(10, 1, 4), Result::Held);
    EXPECT_EQ(drive.read(20, 1, 5), Result::Held);
    SxTime::msleep(10);
    EXPECT_EQ(drive.disk.readsHeldNs() / 1'000'000, 40 + 10 + 10);
    EXPECT_TRUE(drive.disk.forget(5));
    drive.disk.suspend();
    image.deliver(&drive.disk, 9, 2);
    EXPECT_EQ(drive.read(9, 2, 3, true), Result::Held);
    SxTime::msleep(5);
    drive.disk.resume();
    EXPECT_EQ(drive.read(9, 2, 3, true), Result::Done);
    EXPECT_EQ(drive.read(10, 1, 4, true), Result::Done);
    SxTime::msleep(100);
    EXPECT_EQ(drive.disk.readsHeldNs() / 1'000'000, 40 + 10 + 10 + 5);
    EXPECT_EQ(drive.disk.getReads()->getWaits(), 3U);
    EXPECT_THAT((std::array{bytes(ReadPlan::Stored), bytes(ReadPlan::Delivered), bytes(ReadPlan::Layered),
                            bytes(ReadPlan::Zeros)}),
                ElementsAre(3 + 2, 2 + 1, 1, 1));
}

TEST(VirtualDisk, TheTraceHasEachBlockOfEachRequestOnce) {
    VirtualClock clock(1'700'000'000'000);
    const OrderedImage image;
    Drive drive(image, Mode::Rtw, 4);
    drive.disk.getReads()->setQACursor(3);
    EXPECT_EQ(drive.read(0, 1, 1), Result::Done);
    image.dir.write("watched/img.trc", "of an older run");
    drive.disk.getTrace()->start(image.prefix);
    EXPECT_FALSE(drive.disk.getTrace()->hasEvent());
    EXPECT_EQ(drive.read(2, 3, 2), Result::Held);
    image.deliver(&drive.disk, 4, 1);
    EXPECT_EQ(drive.read(2, 3, 2, true), Result::Done);
    EXPECT_TRUE(drive.disk.getTrace()->hasEvent());
    EXPECT_FALSE(drive.disk.getTrace()->hasEvent());
    SxClock::get().sleepNs(1'500'200);
    clock.adjustSystem(-5000);
    EXPECT_EQ(drive.write(7, drive.buffer), 0);
    drive.disk.tick();
    EXPECT_EQ(readTrace(image.path("img.trc")).size(), 4U);
    // Others can tell that it is being written.
    SxFileIO reader(image.path("img.trc"), "rb");
    EXPECT_EQ(SxOs::get().isLocked(reader.getFd(), 0, 1, SxOs::Lock::Exclusive), 1);
    drive.disk.getTrace()->stop();
    EXPECT_EQ(SxOs::get().isLocked(reader.getFd(), 0, 1, SxOs::Lock::Exclusive), 0);
    EXPECT_EQ(drive.read(0, 1, 4), Result::Done);

    constexpr uint64 START = (1'700'000'000'000 + 11'644'473'600'000) * 10'000, WRITE = uint64{1} << 63;
    std::vector<std::pair<uint64, uint64>> found;
    for (const TraceRecord& record : readTrace(image.path("img.trc")))
        found.emplace_back(record.block, record.time);
    EXPECT_THAT(found, ElementsAre(std::pair(2, START), std::pair(3, START), std::pair(4, START),
                                   std::pair(7 | WRITE, START + 15'002)));
    EXPECT_EQ(drive.disk.getReads()->get(), 3U);
    EXPECT_EQ(drive.disk.getReads()->nBeyondQA(), 1U);
}

TEST(VirtualDisk, TheRecordOfATraceThatHasEndedTellsWhatIsWhole) {
    const OrderedImage image;
    FaultOs os(image.dir.path("watched"));
    const auto record = [&] {
        SxJSONParser parser;
        parser.readFile(image.prefix + "trace.json");
        return parser.getRootSymbol();
    };
    const char* const STARTED = R"({"version": 2, "time0": 5, "method": "monitoring", "size": 7,
        "newer": [1, {"a": null}], "checksums": {"mnt": "abc"}})";
    for (const bool isBroken : {false, true}) {
        SCOPED_TRACE(isBroken ? "a write failed" : "all was written");
        image.dir.write("watched/trace.json", STARTED);
        Drive drive(image, Mode::Ro, 32);
        drive.disk.getTrace()->start(image.prefix);
        EXPECT_EQ(drive.read(0, 3, 1), Result::Done);
        drive.disk.tick();
        EXPECT_EQ(image.dir.read("watched/trace.json"), STARTED) << "as a kill would leave it";
        EXPECT_EQ(drive.read(4, 2, 1), Result::Done);
        if (isBroken) os.failNth(FaultOs::Op::Write, 1, ENOSPC, "img.trc");
        drive.disk.close();
        if (isBroken) {
            EXPECT_EQ(image.dir.read("watched/trace.json"), STARTED);
            continue;
        }
        const SxString digest = SxMd5::file(image.prefix + "img.trc");
        EXPECT_EQ(record().toJson().str(),
                  R"({"version":2,"time0":5,"method":"monitoring","size":80,"newer":[1,{"a":null}],)"
                  R"("checksums":{"mnt":"abc","trc":")" +
                      digest.str() + R"("}})");
    }
    // A record that can't be changed keeps no drive from ending.
    image.dir.write("watched/trace.json", "{");
    Drive drive(image, Mode::Ro, 32);
    drive.disk.getTrace()->start(image.prefix);
    drive.disk.getTrace()->stop();
    EXPECT_EQ(image.dir.read("watched/trace.json"), "{");
}

TEST(VirtualDisk, ATraceThatCanNotBeWrittenEndsAndReadsGoOn) {
    const OrderedImage image;
    FaultOs os(image.dir.path("watched"));
    Drive drive(image, Mode::Ro, 32);
    EXPECT_THAT(failureOf([&] { drive.disk.getTrace()->start(image.prefix + "nowhere"); }),
                HasSubstr("nowhere/img.trc"));
    drive.disk.getTrace()->start(image.prefix);
    os.failNth(FaultOs::Op::Write, 1, EIO, "img.trc");
    EXPECT_EQ(drive.read(0, 3, 1), Result::Done);
    drive.disk.tick();
    EXPECT_FALSE(drive.disk.getTrace()->isOn());
    EXPECT_THAT(drive.disk.getTrace()->getFailure().str(), HasSubstr("img.trc"));
    EXPECT_EQ(drive.read(0, 3, 2), Result::Done);
}

TEST(VirtualDisk, ADeliveryThatCanNotBeKeptCanBeGivenAgain) {
    const OrderedImage image;
    FaultOs os(image.dir.path("watched"));
    Drive drive(image, Mode::Ro, 2);
    ASSERT_EQ(drive.read(10, 3, 1), Result::Held);
    os.failNth(FaultOs::Op::Write, 1, EIO, "img.delivered");
    EXPECT_THAT(failureOf([&] { image.deliver(&drive.disk, 10, 3); }), HasSubstr("ZqF block 10"));
    EXPECT_THAT(drive.woken, IsEmpty());
    image.deliver(&drive.disk, 10, 3);
    EXPECT_THAT(drive.woken, ElementsAre(1));
    EXPECT_EQ(drive.read(10, 3, 1, true), Result::Done);
    EXPECT_EQ(drive.buffer, image.image.raw.substr(10 * ZqBlocks::SIZE, 3 * ZqBlocks::SIZE));
    EXPECT_EQ(image.dir.snapshot("watched").size(), 4U) << "the store's file has no name";
}

TEST(VirtualDisk, DeliveredBlocksThatMadeRoomAreAskedForAgain) {
    TestRandom random;
    const uint64 nBlocks = UnderflowStore::MAX_WITHOUT_FILE / ZqBlocks::SIZE + 600, nAtOnce = 256;
    const DriveImage image(random, nBlocks, 1.);
    FaultOs os(image.dir.path());
    os.setDiskLeft(0);
    Drive drive(image, Mode::Ro, 2);
    for (uint64 first = 2; first < image.nZqf; first += nAtOnce) {
        const uint64 from = first * ZqBlocks::SIZE;
        const uint64 size = std::min(nAtOnce * ZqBlocks::SIZE, image.sizeZqf - from);
        drive.disk.deliver(first, image.zqf.data() + from, size);
    }
    uint64 rawIdx = 0;
    while (image.zqfIdxOf(rawIdx) != 10)
        ++rawIdx;
    ASSERT_EQ(drive.read(rawIdx, 1, 5), Drive::Result::Held) << "it was among the first that came";
    EXPECT_THAT(drive.disk.popMissing(4), ElementsAre(10));
    drive.disk.deliver(10, image.zqf.data() + 10 * ZqBlocks::SIZE, ZqBlocks::SIZE);
    EXPECT_THAT(drive.woken, ElementsAre(5));
    EXPECT_EQ(drive.read(rawIdx, 1, 5, true), Drive::Result::Done);
    EXPECT_EQ(drive.buffer, image.rawBytes().substr(rawIdx * ZqBlocks::SIZE, ZqBlocks::SIZE));
}
