#include "ZqUnreadOrder.h"

#include <gmock/gmock.h>
#include <numeric>

namespace {

using testing::ElementsAre;

constexpr uint64 PER_FILE = 10; ///< blocks

/// The names of the files in the order that their unread blocks get after one run has read `read`.
std::vector<std::string> orderOf(const std::vector<std::string>& names, const ZqOrderRuns::Blocks& read) {
    const uint64 nRaw = names.size() * PER_FILE;
    std::vector<ZqFileTable::Row> rows;
    for (const std::string& name : names)
        rows.push_back({rows.size() * PER_FILE, PER_FILE, PER_FILE * 4096, name});
    const SxString buildId = "0123456789abcdef0123456789abcdef";
    const ZqOrderImage image{
        "image", buildId, std::vector<bool>(nRaw, true), {}, ZqFileTable(buildId, nRaw, rows)};
    ZqBlockUse use(nRaw);
    use.add(0, read);
    std::vector<std::string> found;
    zqUnreadOrder(
        image, use, [&](uint64 rawIdx) { return use.getN(rawIdx) == 0; },
        [&](uint64 rawIdx) {
            const std::string& name = names[rawIdx / PER_FILE];
            if (found.empty() || found.back() != name) found.push_back(name);
        });
    return found;
}

/// All blocks of the files of these numbers.
ZqOrderRuns::Blocks whole(const std::vector<uint64>& files) {
    ZqOrderRuns::Blocks blocks;
    for (const uint64 file : files) {
        for (uint64 i = 0; i < PER_FILE; ++i)
            blocks.push_back(file * PER_FILE + i);
    }
    return blocks;
}

} // namespace

TEST(UnreadOrder, WhatFilesOfTheSameKindMakeLikelyComesFirst) {
    // Of two levels the maps were read, and no music. The third one's map is wanted, and then what lies
    // beside.
    EXPECT_THAT(orderOf({"docs/a.txt", "docs/b.txt", "l1/map.png", "l1/song.ogg", "l2/map.png", "l2/song.ogg",
                         "l3/map.png", "l3/song.ogg"},
                        whole({2, 4})),
                ElementsAre("l3/map.png", "l3/song.ogg", testing::_, testing::_, testing::_, testing::_));
    // Digits in names don't make another kind.
    EXPECT_EQ(orderOf({"a/page1.dat", "a/zzz.bin", "b/page22.dat", "b/zzz.bin"}, whole({0})).front(),
              "b/page22.dat");
    // The rest of a file that was read in part comes before others of its folder.
    EXPECT_THAT(orderOf({"x/1.wad", "x/2.wad", "x/3.wad"}, {11, 12}),
                ElementsAre("x/2.wad", "x/1.wad", "x/3.wad"));
}
