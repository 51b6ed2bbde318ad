#include "BaseTest.h"
#include "Builders.h"
#include "SxFileIO.h"
#include "ZqImage.h"

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
