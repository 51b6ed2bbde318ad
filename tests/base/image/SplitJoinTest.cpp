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
    dir.write("watched/image.lock", std::string(256, '\n')); // which takes no room then
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

/// A job that runs on the caller's thread.
class Monitor : public ZqTaskMon {
    void main() override {}
};

std::string trySplit(const TempDir& dir, bool compress = false, uint64 partSize = 7) {
    Monitor monitor;
    const std::string failure =
        failureOf([&] { ZqImage(SxString(dir.path("watched/"))).split(partSize, compress, &monitor); });
    EXPECT_TRUE(!failure.empty() || partSize >= ZQF.size() || monitor.getNCurrent() == ZQF.size());
    return failure;
}

std::string tryJoin(const TempDir& dir) {
    Monitor monitor;
    return failureOf([&] { ZqImage(SxString(dir.path("watched/"))).join(&monitor); });
}

void unpack(const TempDir& dir) {
    for (const auto& entry : dir.snapshot()) {
        const std::string packed = dir.path(entry.first);
        if (!packed.ends_with(".zstd")) continue;
        ZqArchive::decompressZSTD(packed, packed.substr(0, packed.size() - 5));
        fs::remove(packed);
    }
}

} // namespace

TEST(SplitJoin, PartsHaveTheirNamesAndSizes) {
    TestRandom random;
    const std::pair<unsigned, unsigned> cases[] = {
        {10, 3},  {9, 1},    {10, 1}, {100, 1}, {8'192'000, 4'096'000}, {8'192'001, 4'095'999},
        {10, 10}, {10, ~0U}, {1, 1},  {0, 5},
    };
    for (const auto& [size, partSize] : cases) {
        SCOPED_TRACE(std::to_string(size) + " in parts of " + std::to_string(partSize));
        const std::string bytes = random.bytes(size);
        const TempDir dir;
        dir.write("img.zqf", bytes);
        const TreeSnapshot whole = contentOf(dir, "");
        Monitor splitting, joining;
        const uint64 count = (uint64{size} + partSize - 1) / partSize;
        EXPECT_EQ(ZqImage(dir.prefix()).split(partSize, false, &splitting), count > 1);
        for (uint64 part = 1; part <= count && count > 1; ++part) {
            std::string number = std::to_string(part);
            number.insert(0, std::to_string(count).size() - number.size(), '0');
            EXPECT_TRUE(dir.read("img.zqf.part" + number) == bytes.substr((part - 1) * partSize, partSize))
                << number;
        }
        if (count > 1) {
            EXPECT_EQ(contentOf(dir, "").size(), count + 1);
            EXPECT_EQ(splitting.getNCurrent() + splitting.getNTotal(), 2 * size);
            EXPECT_EQ(dir.read("img.zqf.info"), std::to_string(size) + "\n" + std::to_string(partSize));
            EXPECT_TRUE(ZqImage(dir.prefix()).join(&joining));
            EXPECT_EQ(joining.getNCurrent() + joining.getNTotal(), 2 * size);
        }
        EXPECT_EQ(contentOf(dir, ""), whole);
    }
}

TEST(SplitJoin, CompressedPartsMustBeUnpacked) {
    const TempDir dir;
    makeWhole(dir);
    EXPECT_EQ(trySplit(dir, true, 2), "");
    const TreeSnapshot split = contentOf(dir);
    const std::string first = dir.path("watched/img.zqf.part01");
    EXPECT_THAT(tryJoin(dir),
                HasSubstr("Part '" + first + "' is missing; '" + first + ".zstd' must be unpacked"));
    EXPECT_EQ(contentOf(dir), split);
    unpack(dir);
    EXPECT_EQ(tryJoin(dir), "");
    EXPECT_EQ(contentOf(dir), WHOLE);
}

TEST(SplitJoin, BadRecordsAndPartsChangeNothing) {
    const std::string invalid = "Invalid content in '";
    using Case = std::tuple<std::string, std::string, std::string>;
    std::vector<Case> cases = {{"info", "1000000\n1", "' is missing"},
                               {"info", "9223372036854775807\n1", "' is missing"},
                               {"info", "26\n5", "has 7 bytes, not 5"},
                               {"info", "27\n7", "img.zqf.part4' has 5 bytes, not 6"},
                               {"part1", "gone", "part1' is missing"},
                               {"part4", "gone", "part4' is missing"},
                               {"part3", "opqrst", "part3' has 6 bytes, not 7"},
                               {"part4", "vwxyz!", "part4' has 6 bytes, not 5"},
                               {"part2", "", "part2' has 0 bytes, not 7"},
                               {"part2/x", "a folder", "part2' is missing"}};
    for (const char* record : {"", "26", "26\n", "\n7", "26\n\n7", "26\n0", "26\n-7", "-26\n7", "26\nseven",
                               "26.0\n7", "26\n0x7", "26\n9223372036854775808", "9223372036854775808\n7"}) {
        cases.emplace_back("info", record, invalid);
    }
    for (const auto& [file, content, reason] : cases) {
        for (const bool resumed : {false, true}) {
            if (resumed && file != "info") continue;
            SCOPED_TRACE((resumed ? "resumed: " : "") + file + " " + content);
            const TempDir dir;
            makeParts(dir);
            dir.write("watched/img.zqf", "precious");
            if (resumed) fs::remove(dir.path("watched/img.zqf.info"));
            const std::string changed = "watched/img.zqf." + (resumed ? "join" : file.substr(0, 5));
            fs::remove(dir.path(changed));
            if (content != "gone")
                dir.write(changed + file.substr(std::min<size_t>(5, file.size())), content);
            const TreeSnapshot before = contentOf(dir);
            const std::string level = reason == invalid
                                          ? "Invalid content in '" + dir.path(changed) + "' file."
                                          : "Cannot join image " + dir.path("watched/img.zqf") + ": ";
            EXPECT_THAT(tryJoin(dir), AllOf(StartsWith(level), HasSubstr(resumed ? "" : reason)));
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
        EXPECT_FALSE(ZqImage(SxString(dir.path("watched/"))).join());
        EXPECT_TRUE(dir.exists("watched/img.zqf.info") && !dir.exists("watched/img.zqf"));
    }
    dir.write("watched/img.zqf.info", RECORD + "\nmore");
    EXPECT_EQ(tryJoin(dir), "");
    EXPECT_EQ(contentOf(dir), WHOLE);
}

TEST(SplitJoin, ResumedJoinKnowsWhatItHas) {
    // Parts that are gone, as their removals may reach the disk in any order; bytes of img.zqf; the reason.
    const std::vector<std::tuple<std::string, size_t, std::string>> cases = {{"", 0, ""},
                                                                             {"", 26, ""},
                                                                             {"12", 20, ""},
                                                                             {"1234", 26, ""},
                                                                             {"2", 14, ""},
                                                                             {"1", 6, "has only 6"},
                                                                             {"13", 20, "has only 20"},
                                                                             {"1234", 25, "has only 25"}};
    for (const auto& [gone, have, reason] : cases) {
        SCOPED_TRACE(gone + " gone, " + std::to_string(have) + " bytes joined");
        const TempDir dir;
        makeParts(dir);
        fs::rename(dir.path("watched/img.zqf.info"), dir.path("watched/img.zqf.join"));
        for (const char part : gone)
            fs::remove(dir.path("watched/img.zqf.part") + part);
        // What is joined but not surely on the disk may be anything.
        const std::string sure = ZQF.substr(0, gone.empty() ? 0 : 7 * static_cast<size_t>(gone.back() - '0'));
        dir.write("watched/img.zqf", (sure + std::string(26, '?')).substr(0, have));
        const TreeSnapshot before = contentOf(dir);
        EXPECT_THAT(trySplit(dir),
                    AllOf(StartsWith("Cannot split image "), HasSubstr("join it again first")));
        EXPECT_EQ(contentOf(dir), before);
        EXPECT_THAT(tryJoin(dir), HasSubstr(reason));
        EXPECT_EQ(contentOf(dir), reason.empty() ? WHOLE : before);
    }
}

TEST(SplitJoin, JoinNeedsTheRoomOfAPart) {
    for (int64 left = 0; left <= 60; ++left) {
        const TempDir dir;
        makeParts(dir);
        FaultOs os(dir.path("watched"));
        os.setDiskLeft(left);
        EXPECT_EQ(tryJoin(dir).empty(), left >= 7) << left;
        EXPECT_EQ(contentOf(dir), left < 7 ? IN_PARTS : WHOLE);
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
        os.setDiskLeft(26 - 3); // with the leftovers' room it is enough
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
    const auto lock = ZqImageLock::take(dir.path("watched"), ZqImageLock::Shape, ZqImageLock::Shared, "play");
    EXPECT_THAT(trySplit(dir), HasSubstr("(play)"));
    dir.write("watched/img.zqf.info", RECORD);
    EXPECT_THAT(tryJoin(dir), HasSubstr("(play)"));
}
