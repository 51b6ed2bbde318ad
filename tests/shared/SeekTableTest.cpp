#include "Failure.h"
#include "NetLab.h"
#include "ZqBlocks.h"
#include "ZqSeekTable.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

namespace {

constexpr uint64 SIZE = 2 * ZqBlocks::STRETCH + 1000;

std::string tableOf(const std::string& entries, uint64 nFrames, char descriptor = '\x80') {
    const std::string footer = le32(nFrames) + std::string(1, descriptor) + le32(0x8F92EAB1);
    return le32(0x184D2A5E) + le32(entries.size() + footer.size()) + entries + footer;
}

std::string entry(uint64 size, uint64 decoded) {
    return le32(size) + le32(decoded) + le32(7);
}

std::string failureOf(const std::string& tail, uint64 sizePacked) {
    return ::failureOf([&] { ZqSeekTable(tail.data(), tail.size(), sizePacked, SIZE); });
}

} // namespace

TEST(SeekTable, refusesWhatDoesNotFit) {
    const std::string good = entry(100, 204'800) + entry(200, 204'800) + entry(50, 1000);
    const std::string table = tableOf(good, 3);
    const uint64 size = 350 + table.size();
    ASSERT_EQ(failureOf(table, size), "");

    std::string noMagic = table, badHeader = table, badLength = table;
    noMagic.back() = 0;
    badHeader[0] = 0x5D;
    badLength[4] = 1;
    const struct {
        const char* name;
        std::string tail;
        uint64 sizePacked;
        const char* text;
    } cases[] = {
        {"nothing", "", size, "too short"},
        {"no room for a footer", table.substr(table.size() - 16), size, "too short"},
        {"tail longer than the file", table, table.size() - 1, "too short"},
        {"no magic", noMagic, size, "doesn't end in a seek table"},
        {"reserved bits", tableOf(good, 3, '\x84'), size, "of an unknown kind"},
        {"too few frames", tableOf(good, 2), size, "has 2 frames, and the image takes 3"},
        {"four thousand million frames", tableOf(good, 0xFFFFFFFF), size, "has 4294967295 frames"},
        {"table cut in front", table.substr(12), size, "cut short"},
        {"no header", badHeader, size, "no header"},
        {"wrong length", badLength, size, "no header"},
        {"no checksums, but room for them", tableOf(good, 3, '\0'), size, "no header"},
        {"empty frame", tableOf(entry(0, 204'800) + good.substr(12), 3), size, "gives frame 0 0 bytes"},
        {"frame larger than any", tableOf(entry(0xFFFFFFFF, 204'800) + good.substr(12), 3), size,
         "gives frame 0"},
        {"long content", tableOf(good.substr(0, 12) + entry(200, 0xFFFFFFFF) + good.substr(24), 3), size,
         "gives frame 1 200 bytes that become 4294967295, where 204800 are due"},
        {"long end", tableOf(good.substr(0, 24) + entry(50, 204'800), 3), size, "gives frame 2"},
        {"larger file", table, size + 1, "and the file has"},
        {"smaller file", table, size - 1, "and the file has"},
    };
    for (const auto& each : cases)
        EXPECT_THAT(failureOf(each.tail, each.sizePacked), HasSubstr(each.text)) << each.name;
}
