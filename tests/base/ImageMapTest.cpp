#include "BaseTest.h"
#include "Builders.h"
#include "SxFileIO.h"
#include "ZqImage.h"
#include "ZqLog.h"

namespace {

constexpr uint64 NONE = ZqImage::NO_ENTRY;

std::string idxBytes(const std::vector<uint64>& entries) {
    std::string bytes;
    for (const uint64 entry : entries) {
        for (int shift = 0; shift < 64; shift += 8)
            bytes += static_cast<char>(entry >> shift);
    }
    return bytes;
}

std::vector<uint64> toVector(const SxArray<uint64>& array) {
    return {array.begin(), array.end()};
}

} // namespace

TEST(ImageMap, FilesOfAnImpossibleSizeAreRefused) {
    const TempDir dir;
    const ZqImage image(dir.prefix());
    EXPECT_EQ(failureOf([&] { image.getMap(); }), "File '" + dir.path("img.idx") + "' not found.");
    for (const size_t size : {0U, 7U, 12U}) {
        dir.write("img.idx", std::string(size, '\0'));
        const std::string expected = "Invalid size of '" + dir.path("img.idx") + "' file.";
        EXPECT_EQ(failureOf([&] { image.getMap(); }), expected) << size;
        EXPECT_EQ(failureOf([&] { image.print(0, 0, 1); }), expected) << size;
    }
}

TEST(ImageMap, MapAndReverseMap) {
    const std::pair<std::vector<uint64>, std::vector<uint64>> cases[] = {
        {{0}, {0}},
        {{NONE}, {NONE}},
        {{2, NONE, 0, 1}, {2, 3, 0, NONE}},
        {{4, uint64{1} << 63, 0, 0}, {3, NONE, NONE, NONE}}}; // beyond the end, and twice
    const TempDir dir;
    const ZqImage image(dir.prefix());
    for (const auto& [map, reverse] : cases) {
        dir.write("img.idx", idxBytes(map));
        EXPECT_EQ(toVector(image.getMap()), map);
        EXPECT_EQ(toVector(image.getReverseMap()), reverse);
    }
    TestRandom random(3);
    TRACE_SEED(random);
    const TestImage built(random, 5000, 0.7);
    built.write(dir.prefix(), 0);
    EXPECT_EQ(toVector(image.getMap()), toVector(built.map));
    std::vector<uint64> reverse(5000, NONE);
    for (uint64 rawIdx = 0; rawIdx < 5000; ++rawIdx) {
        const uint64 zqfIdx = built.map(static_cast<int64>(rawIdx));
        if (zqfIdx != NONE) reverse[zqfIdx] = rawIdx;
    }
    EXPECT_EQ(toVector(image.getReverseMap()), reverse);
}

TEST(ImageMap, ReadItemWalksTheFile) {
    const TempDir dir;
    const ZqImage image(dir.prefix());
    dir.write("img.idx", idxBytes({5, NONE, (uint64{1} << 63) + 7}) + "12345");
    SxFileIO file(dir.path("img.idx"), "rb", 0600);
    EXPECT_EQ(image.readItem(&file), ZqTraceItem(5, 0, false));
    EXPECT_EQ(image.readItem(&file), ZqTraceItem(NONE >> 1, 0, true));
    EXPECT_EQ(image.readItem(&file), ZqTraceItem(7, 0, true));
    EXPECT_EQ(image.readItem(&file), ZqTraceItem()) << "5 bytes are no entry";

    dir.write("img.idx", idxBytes({0, 1}));
    FaultOs os(dir.path());
    os.failNth(Op::Read, 1, EIO, "", true);
    SxFileIO broken(dir.path("img.idx"), "rb", 0600);
    EXPECT_THAT(
        failureOf([&] { image.readItem(&broken); }),
        AllOf(StartsWith("Failed to read trace item block index: "), HasSubstr("Input/output error")));
    EXPECT_THAT(failureOf([&] { image.getMap(); }),
                AllOf(HasSubstr("img.idx"), HasSubstr("Input/output error")));
}

TEST(ImageMap, PrintListsMultiplesOfTheStep) {
    const TempDir dir;
    dir.write("img.idx", idxBytes(std::vector<uint64>(12, 1234)));
    const std::tuple<uint64, uint64, uint64, std::vector<uint64>> cases[] = {{0, 10, 4, {0, 4, 8}},
                                                                             {3, 10, 4, {4, 8}},
                                                                             {0, 0, 5, {0, 5, 10}},
                                                                             {0, 99, 11, {0, 11}},
                                                                             {7, 3, 1, {}}};
    for (const auto& [first, last, step, listed] : cases) {
        std::string expected, logged;
        for (const uint64 rawIdx : listed)
            expected += ZqImage::formatEntry(rawIdx, 1234).str();
        ZqLog::setSink([&](const SxString& tag, const SxString& text) {
            logged += (tag == "base" ? text + "\n" : tag).str();
        });
        ZqImage(dir.prefix()).print(first, last, step);
        ZqLog::setSink(nullptr);
        EXPECT_EQ(logged, expected) << first << " " << last;
    }
    EXPECT_EQ(ZqImage::formatEntry(4, NONE), "RAW=4         (not included)\n");
    EXPECT_EQ(ZqImage::formatEntry(1234567890, 3), "RAW=1234567890 ZQF=3        \n");
}
