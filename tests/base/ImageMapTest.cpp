#include "BaseTest.h"
#include "Builders.h"
#include "SxFileIO.h"
#include "ZqImage.h"
#include "ZqLog.h"

namespace {

constexpr uint64 NONE = ZqImage::NO_ENTRY;

std::string idxBytes(const std::vector<uint64>& entries) {
    return std::string(reinterpret_cast<const char*>(entries.data()), entries.size() * sizeof(uint64));
}

std::vector<uint64> toVector(const SxArray<uint64>& array) {
    return {array.begin(), array.end()};
}

} // namespace

TEST(ImageMap, MapAndReverseMap) {
    const TempDir dir;
    const ZqImage image(dir.prefix());
    EXPECT_EQ(failureOf([&] { image.getMap(); }), "File '" + dir.path("img.idx") + "' not found.");
    for (const size_t size : {0U, 7U, 12U}) {
        dir.write("img.idx", std::string(size, '\0'));
        EXPECT_EQ(failureOf([&] { image.getMap(); }), "Invalid size of '" + dir.path("img.idx") + "' file.")
            << size;
    }
    dir.write("img.idx", std::string("\1\2\3\4\5\6\7\x88", 8));
    EXPECT_EQ(toVector(image.getMap()), std::vector<uint64>{0x8807060504030201});
    const std::pair<std::vector<uint64>, std::vector<uint64>> cases[] = {
        {{2, NONE, 0, 1}, {2, 3, 0, NONE}},
        {{4, uint64{1} << 63, 0, 0}, {3, NONE, NONE, NONE}}}; // beyond the end, and twice
    for (const auto& [map, reverse] : cases) {
        dir.write("img.idx", idxBytes(map));
        EXPECT_EQ(toVector(image.getMap()), map);
        EXPECT_EQ(toVector(image.getReverseMap()), reverse);
    }
}

TEST(ImageMap, ReadItemWalksTheFile) {
    const TempDir dir;
    dir.write("img.idx", idxBytes({5, NONE, (uint64{1} << 63) + 7, 0}).substr(0, 29));
    FaultOs os(dir.path());
    SxFileIO file(dir.path("img.idx"), "rb", 0600);
    for (const ZqTraceItem& item :
         {ZqTraceItem(5, 0, false), ZqTraceItem(NONE >> 1, 0, true), ZqTraceItem(7, 0, true)}) {
        EXPECT_EQ(ZqImage().readItem(&file), item);
    }
    EXPECT_EQ(ZqImage().readItem(&file), ZqTraceItem()) << "5 bytes are no entry";
    os.failNth(Op::Read, 1, EIO);
    EXPECT_THAT(
        failureOf([&] { ZqImage().readItem(&file); }),
        AllOf(StartsWith("Failed to read trace item block index: "), HasSubstr("Input/output error")));
}

TEST(ImageMap, PrintListsMultiplesOfTheStep) {
    const TempDir dir;
    dir.write("img.idx", idxBytes(std::vector<uint64>(12, 1234)));
    std::string logged;
    ZqLog::setSink([&](const SxString&, const SxString& text) { logged += text.str().substr(4, 2); });
    for (const auto& [first, last, step] :
         {std::tuple{0U, 10U, 4U}, {3U, 10U, 4U}, {0U, 0U, 5U}, {9U, 99U, 1U}, {7U, 3U, 1U}}) {
        ZqImage(dir.prefix()).print(first, last, step);
        logged += "/";
    }
    ZqLog::setSink(nullptr);
    EXPECT_EQ(logged, "0 4 8 /4 8 /0 5 10/9 1011//");
    EXPECT_EQ(ZqImage::formatEntry(4, NONE), "RAW=4         (not included)\n");
    EXPECT_EQ(ZqImage::formatEntry(1234567890, 3), "RAW=1234567890 ZQF=3        \n");
}
