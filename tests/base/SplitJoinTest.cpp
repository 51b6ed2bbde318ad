#include "BaseTest.h"
#include "Builders.h"
#include "ZqArchive.h"
#include "ZqImage.h"
#include "ZqImageLock.h"

namespace {

/// 26 bytes; with a part size of 7 they are 4 parts, the last of 5 bytes.
const std::string ZQF = "abcdefghijklmnopqrstuvwxyz";
const std::string RECORD = "26\n7";

/// A folder "watched" with something else in it and a ZqF file, whole or in parts of 7.
void makeImage(const TempDir& dir, bool inParts) {
    dir.write("watched/img.idx", "other");
    if (!inParts) dir.write("watched/img.zqf", ZQF);
    if (!inParts) return;
    dir.write("watched/img.zqf.info", RECORD);
    for (size_t i = 0; i < 4; ++i)
        dir.write("watched/img.zqf.part" + std::to_string(i + 1), ZQF.substr(i * 7, 7));
}

void makeWhole(const TempDir& dir) {
    makeImage(dir, false);
}

void makeParts(const TempDir& dir) {
    makeImage(dir, true);
}

/// The state of a whole image, or of one in parts.
TreeSnapshot stateOf(bool inParts) {
    const TempDir dir;
    makeImage(dir, inParts);
    return contentOf(dir);
}

const TreeSnapshot WHOLE = stateOf(false), IN_PARTS = stateOf(true);

std::string trySplit(const TempDir& dir, bool compress = false, ZqTaskMon* monitor = nullptr) {
    return failureOf([&] { ZqImage(SxString(dir.path("watched/"))).split(7, compress, monitor); });
}

std::string tryJoin(const TempDir& dir, ZqTaskMon* monitor = nullptr) {
    return failureOf([&] { ZqImage(SxString(dir.path("watched/"))).join(monitor); });
}

void unpack(const TempDir& dir) {
    for (const auto& entry : dir.snapshot()) {
        const std::string packed = dir.path(entry.first);
        if (!packed.ends_with(".zstd")) continue;
        ZqArchive::decompressZSTD(packed, packed.substr(0, packed.size() - 5));
        fs::remove(packed);
    }
}

class NoJob : public ZqTaskMon {
    void main() override {}
};
using Monitor = StoppingAt<NoJob>;

} // namespace

TEST(SplitJoin, PartsHaveTheirNamesAndSizes) {
    struct Case {
        size_t size;
        uint64 partSize, count;
        std::vector<std::string> numbers; ///< some of them
    };
    const Case cases[] = {{10, 3, 4, {"1", "2", "3", "4"}},
                          {9, 1, 9, {"1", "9"}},
                          {10, 1, 10, {"01", "10"}},
                          {100, 1, 100, {"001", "100"}},
                          {8'192'000, 4'096'000, 2, {"1", "2"}},
                          {8'192'001, 4'095'999, 3, {"1", "2", "3"}},
                          {10, 10, 0, {}},
                          {10, ~uint64{0}, 0, {}},
                          {1, 1, 0, {}},
                          {0, 5, 0, {}}};
    TestRandom random;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.size) + " in parts of " + std::to_string(c.partSize));
        const std::string bytes = random.bytes(c.size);
        const TempDir dir;
        dir.write("img.zqf", bytes);
        const TreeSnapshot whole = contentOf(dir, "");
        Monitor splitting(~uint64{0}), joining(~uint64{0});
        ZqImage(dir.prefix()).split(c.partSize, false, &splitting);
        EXPECT_EQ(contentOf(dir, "").size(), c.count + 1);
        for (const std::string& number : c.numbers) {
            const uint64 offset = (std::stoull(number) - 1) * c.partSize;
            EXPECT_TRUE(dir.read("img.zqf.part" + number) == bytes.substr(offset, c.partSize)) << number;
        }
        if (c.count > 0) {
            EXPECT_EQ(splitting.getNCurrent() + splitting.getNTotal(), 2 * c.size);
            EXPECT_EQ(dir.read("img.zqf.info"), std::to_string(c.size) + "\n" + std::to_string(c.partSize));
            ZqImage(dir.prefix()).join(&joining);
            EXPECT_EQ(joining.getNCurrent() + joining.getNTotal(), 2 * c.size);
        }
        EXPECT_EQ(contentOf(dir, ""), whole);
    }
}

TEST(SplitJoin, CompressedPartsMustBeUnpacked) {
    TestRandom random;
    for (const uint64 count : {2U, 12U}) {
        const TempDir dir;
        dir.write("watched/img.zqf", random.bytes(20'000) + std::string(80'000, 'x'));
        const TreeSnapshot whole = contentOf(dir);
        Monitor monitor(~uint64{0});
        ZqImage(SxString(dir.path("watched/"))).split((100'000 + count - 1) / count, true, &monitor);
        EXPECT_EQ(monitor.getNCurrent(), 100'000U);
        const TreeSnapshot split = contentOf(dir);
        EXPECT_EQ(split.size(), count + 1);
        const std::string first = dir.path(count < 10 ? "watched/img.zqf.part1" : "watched/img.zqf.part01");
        EXPECT_THAT(tryJoin(dir),
                    HasSubstr("Part '" + first + "' is missing; '" + first + ".zstd' must be unpacked"));
        EXPECT_EQ(contentOf(dir), split);
        unpack(dir);
        EXPECT_EQ(tryJoin(dir), "");
        EXPECT_EQ(contentOf(dir), whole);
    }
}

TEST(SplitJoin, BadRecordsAndPartsChangeNothing) {
    const std::string invalid = "Invalid content in '";
    struct Case {
        std::string file, content, reason;
    };
    const Case cases[] = {{"info", "", invalid},
                          {"info", "26", invalid},
                          {"info", "26\n", invalid},
                          {"info", "\n7", invalid},
                          {"info", "26\n\n7", invalid},
                          {"info", "26\n0", invalid},
                          {"info", "26\n-7", invalid},
                          {"info", "-26\n7", invalid},
                          {"info", "26\nseven", invalid},
                          {"info", "26.0\n7", invalid},
                          {"info", "26\n0x7", invalid},
                          {"info", "26\n9223372036854775808", invalid},
                          {"info", "9223372036854775808\n7", invalid},
                          {"info", std::string("26\n7\0", 5), invalid},
                          {"info", "1000000\n1", "' is missing"},
                          {"info", "9223372036854775807\n1", "' is missing"},
                          {"info", "26\n5", "has 7 bytes, not 5"},
                          {"info", "27\n7", "img.zqf.part4' has 5 bytes, not 6"},
                          {"part1", "gone", "part1' is missing"},
                          {"part4", "gone", "part4' is missing"},
                          {"part3", "opqrst", "part3' has 6 bytes, not 7"},
                          {"part4", "vwxyz!", "part4' has 6 bytes, not 5"},
                          {"part2", "", "part2' has 0 bytes, not 7"},
                          {"part2/x", "a folder", "part2' is missing"}};
    for (const Case& c : cases) {
        for (const bool resumed : {false, true}) {
            if (resumed && c.file != "info") continue;
            SCOPED_TRACE((resumed ? "resumed: " : "") + c.file + " " + c.content);
            const TempDir dir;
            makeParts(dir);
            dir.write("watched/img.zqf", "precious");
            if (resumed) fs::remove(dir.path("watched/img.zqf.info"));
            const std::string changed = "watched/img.zqf." + (resumed ? "join" : c.file.substr(0, 5));
            fs::remove(dir.path(changed));
            if (c.content != "gone")
                dir.write(changed + c.file.substr(std::min<size_t>(5, c.file.size())), c.content);
            const TreeSnapshot before = contentOf(dir);
            const std::string failure = tryJoin(dir);
            const std::string level = c.reason == invalid
                                          ? "Invalid content in '" + dir.path(changed) + "' file."
                                          : "Cannot join image " + dir.path("watched/img.zqf") + ": ";
            EXPECT_THAT(failure, AllOf(StartsWith(level), HasSubstr(resumed ? "" : c.reason)));
            EXPECT_EQ(contentOf(dir), before);
        }
    }
    const TempDir dir;
    makeParts(dir);
    const std::string record = dir.path("watched/img.zqf.info");
    fs::resize_file(record, 1 << 30);
    EXPECT_THAT(tryJoin(dir),
                AllOf(StartsWith("Failed to read '" + record + "' file.: "), HasSubstr("too large")));
    fs::remove(record);
    EXPECT_THAT(tryJoin(dir), StartsWith("Failed to read '" + record + "' file.: "));
    for (const char* single : {"26\n26", "26\n27", "0\n7"}) {
        dir.write("watched/img.zqf.info", single);
        const TreeSnapshot state = contentOf(dir);
        EXPECT_EQ(tryJoin(dir), "");
        EXPECT_EQ(contentOf(dir), state);
    }
    dir.write("watched/img.zqf.info", RECORD + "\nmore");
    EXPECT_EQ(tryJoin(dir), "");
    EXPECT_EQ(contentOf(dir), WHOLE);
}

TEST(SplitJoin, ResumedJoinKnowsWhatItHas) {
    struct Case {
        std::vector<size_t> gone; ///< parts, whose removals may have reached the disk in any order
        size_t have;              ///< bytes of img.zqf
        const char* reason;
    };
    const Case cases[] = {{{}, 0, ""},
                          {{}, 26, ""},
                          {{1, 2}, 20, ""},
                          {{1, 2, 3, 4}, 26, ""},
                          {{2}, 14, ""},
                          {{1, 3}, 23, ""},
                          {{1}, 6, "has only 6"},
                          {{1, 3}, 20, "has only 20"},
                          {{1, 2, 3, 4}, 25, "has only 25"}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.gone.size()) + " parts gone, " + std::to_string(c.have) +
                     " bytes joined");
        const TempDir dir;
        makeParts(dir);
        fs::rename(dir.path("watched/img.zqf.info"), dir.path("watched/img.zqf.join"));
        for (const size_t part : c.gone)
            fs::remove(dir.path("watched/img.zqf.part" + std::to_string(part)));
        // What is joined but not surely on the disk may be anything.
        const size_t sure = c.gone.empty() ? 0 : 7 * c.gone.back();
        dir.write("watched/img.zqf", (ZQF.substr(0, sure) + std::string(26, '?')).substr(0, c.have));
        const TreeSnapshot before = contentOf(dir);
        EXPECT_THAT(trySplit(dir),
                    AllOf(StartsWith("Cannot split image "), HasSubstr("join it again first")));
        EXPECT_EQ(contentOf(dir), before);
        EXPECT_THAT(tryJoin(dir), HasSubstr(c.reason));
        EXPECT_EQ(contentOf(dir), *c.reason ? before : WHOLE);
    }
}

TEST(SplitJoin, FullDisk) {
    for (const bool lying : {false, true}) {
        for (int64 left = 0; left <= 30; ++left) {
            SCOPED_TRACE(std::to_string(left) + " bytes left" + (lying ? ", the system says many" : ""));
            for (const bool compress : {false, true}) {
                const TempDir dir;
                makeWhole(dir);
                ZqImageLock::take(dir.path("watched"), ZqImageLock::Shape, ZqImageLock::Shared,
                                  "makes the file");
                FaultOs os(dir.path("watched"));
                os.setDiskLeft(left);
                if (lying) os.setFreeSpaceAnswer(int64{1} << 40);
                const std::string failure = trySplit(dir, compress);
                EXPECT_TRUE(left >= 26 || failure.starts_with("Cannot ")) << failure;
                if (failure.empty()) continue;
                EXPECT_EQ(contentOf(dir), WHOLE);
                os.setDiskLeft(1 << 20);
                EXPECT_EQ(trySplit(dir, compress), "");
            }
            const TempDir dir;
            makeParts(dir);
            ZqImageLock::take(dir.path("watched"), ZqImageLock::Shape, ZqImageLock::Shared, "makes the file");
            FaultOs os(dir.path("watched"));
            os.setDiskLeft(left);
            if (lying) os.setFreeSpaceAnswer(left % 2 == 0 ? int64{1} << 40 : 14);
            const std::string failure = tryJoin(dir);
            if (!lying ||
                left % 2 == 0) { // with an answer of 14, parts go one by one, and some may have gone
                EXPECT_EQ(failure.empty(), left >= (lying ? 26 : 7))
                    << failure << ": a part of room is enough";
                EXPECT_EQ(contentOf(dir), failure.empty() ? WHOLE : IN_PARTS);
            }
            os.setDiskLeft(1 << 20);
            EXPECT_EQ(failure.empty() ? "" : tryJoin(dir), "");
            EXPECT_EQ(contentOf(dir), WHOLE);
        }
    }
}

TEST(SplitJoin, AnyFailureLeavesAllOrTheResult) {
    for (const bool compress : {false, true}) {
        failEachOperation(
            makeWhole, [&](const TempDir& dir) { return trySplit(dir, compress); },
            [&](const TempDir& dir, const std::string& failure) {
                const bool hasZqf = dir.exists("watched/img.zqf");
                EXPECT_TRUE(!hasZqf || contentOf(dir) == WHOLE) << failure;
                EXPECT_EQ(hasZqf && !failure.empty() ? trySplit(dir, compress) : "", "");
                unpack(dir);
                EXPECT_EQ(contentOf(dir), IN_PARTS);
            });
    }
    for (const std::string begin : {"", "little room", "an older img.zqf", "cut off"}) {
        SCOPED_TRACE(begin);
        const bool isCutOff = begin == "cut off", isLonger = isCutOff || begin == "an older img.zqf";
        const auto prepare = [&](const TempDir& dir) {
            makeParts(dir);
            if (isLonger) dir.write("watched/img.zqf", ZQF.substr(0, 7) + "longer than that which is joined");
            if (!isCutOff) return;
            fs::rename(dir.path("watched/img.zqf.info"), dir.path("watched/img.zqf.join"));
            fs::remove(dir.path("watched/img.zqf.part1"));
        };
        const auto run = [&](const TempDir& dir) {
            if (begin == "little room") dynamic_cast<FaultOs&>(SxOs::get()).setFreeSpaceAnswer(28);
            return tryJoin(dir);
        };
        failEachOperation(prepare, run, [&](const TempDir& dir, const std::string& failure) {
            const bool untouched = dir.exists("watched/img.zqf.info");
            EXPECT_TRUE(!untouched || isLonger || contentOf(dir) == IN_PARTS) << failure;
            const bool isDone = !untouched && !dir.exists("watched/img.zqf.join");
            EXPECT_TRUE(isDone || !failure.empty());
            EXPECT_EQ(isDone ? "" : tryJoin(dir), "");
            EXPECT_EQ(contentOf(dir), WHOLE);
        });
    }
}

TEST(SplitJoin, LeftoversOfASplitThatWasCutOffGo) {
    for (const char* record : {"img.zqf.split", "img.zqf.info"}) {
        const TempDir dir;
        makeWhole(dir);
        dir.write(std::string("watched/") + record, "26\n2"); // 13 parts
        for (const char* part : {"01", "05.zstd", "13"})
            dir.write("watched/img.zqf.part" + std::string(part), "12");
        FaultOs os(dir.path("watched"));
        os.setDiskLeft(26 + 256 -
                       3); // less than the lock file and the parts need, but for the leftovers' room
        EXPECT_EQ(trySplit(dir), "") << record;
        EXPECT_EQ(contentOf(dir), IN_PARTS);
    }
    for (const char* foreign : {"27\n2", "no record"}) {
        const TempDir dir;
        makeWhole(dir);
        dir.write("watched/img.zqf.info", foreign);
        dir.write("watched/img.zqf.part13", "may be all that is left of something");
        EXPECT_EQ(trySplit(dir), "");
        EXPECT_EQ(contentOf(dir).size(), IN_PARTS.size() + 1);
    }
}

TEST(SplitJoin, AStopTakesTheJobBack) {
    for (const uint64 stopAt : {0U, 1U, 8U, 20U}) {
        for (const bool compress : {false, true}) {
            const TempDir dir;
            makeWhole(dir);
            Monitor monitor(stopAt);
            EXPECT_THAT(trySplit(dir, compress, &monitor), HasSubstr("Stopped"));
            EXPECT_EQ(contentOf(dir), WHOLE);
        }
        for (const int64 room : {int64{1} << 30, int64{7}}) {
            // With little room, parts go as soon as they are joined, and there is no way back.
            const bool someAreGone = room == 7 && stopAt > 0;
            const TempDir dir;
            makeParts(dir);
            FaultOs os(dir.path("watched"));
            os.setFreeSpaceAnswer(room);
            Monitor monitor(stopAt);
            EXPECT_THAT(tryJoin(dir, &monitor), HasSubstr("Stopped"));
            EXPECT_EQ(contentOf(dir) == IN_PARTS, !someAreGone);
            EXPECT_EQ(tryJoin(dir), "");
            EXPECT_EQ(contentOf(dir), WHOLE);
        }
    }
}

TEST(SplitJoin, RefusedWithoutAFileOrTheLock) {
    const TempDir dir;
    EXPECT_EQ(trySplit(dir), "ZqImage: ZQF file " + dir.path("watched/img.zqf") + " not available.");
    EXPECT_TRUE(fs::is_empty(dir.path()));
    makeWhole(dir);
    dir.write("watched/img.zqf.info/blocks", "the record's place");
    const TreeSnapshot before = contentOf(dir);
    EXPECT_THAT(trySplit(dir), StartsWith("Cannot write " + dir.path("watched/img.zqf.info") + ": "));
    EXPECT_EQ(contentOf(dir), before);
    fs::remove_all(dir.path("watched/img.zqf.info"));
    const auto reader =
        ZqImageLock::take(dir.path("watched"), ZqImageLock::Shape, ZqImageLock::Shared, "a reader");
    EXPECT_THAT(trySplit(dir), HasSubstr("(a reader)"));
    makeParts(dir);
    EXPECT_THAT(tryJoin(dir), HasSubstr("(a reader)"));
}
