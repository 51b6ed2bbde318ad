#include "DriveImage.h"

#include "ZqBlocks.h"

namespace {

constexpr uint64 MIB = 1 << 20;
using Range = std::pair<uint64, uint64>; ///< MiB

/// Has nothing in the cache, and counts how often each block of `img.zqf` is announced.
class ColdOs : public FaultOs {
public:
    ColdOs(const std::string& watched, uint64 nBlocks) : FaultOs(watched), announced(nBlocks) {}
    int64 readCachedAt(int, void*, int64, int64) override { return -EAGAIN; }
    void adviseSoon(int, int64 offset, int64 n) override {
        for (int64 at = offset; at < offset + n; at += ZqBlocks::SIZE)
            ++announced.at(static_cast<uint64>(at) / ZqBlocks::SIZE);
    }

    std::vector<int> announced;
};

TEST(LookAhead, KeepsAWindowAheadOfOneReader) {
    LookAhead ahead;
    const auto take = [&](uint64 from, uint64 n) {
        const LookAhead::Range range = ahead.take(from * MIB, n * MIB);
        return range.from == range.to ? Range{0, 0} : Range{range.from / MIB, range.to / MIB};
    };
    EXPECT_EQ(take(0, 1), (Range{0, 0})) << "nothing was cold yet";
    ahead.follow(1 * MIB);
    EXPECT_EQ(take(1, 1), (Range{2, 6}));
    ahead.follow(2 * MIB);
    EXPECT_EQ(take(2, 1), (Range{6, 7}));
    EXPECT_EQ(take(4, 1), (Range{7, 9}));
    EXPECT_EQ(take(3, 1), (Range{0, 0})) << "came late";
    EXPECT_EQ(take(100, 1), (Range{0, 0})) << "another place";
    EXPECT_EQ(take(5, 1), (Range{9, 10})) << "is no reason to forget the reader";
    ahead.follow(101 * MIB);
    EXPECT_EQ(take(101, 1), (Range{102, 106}));
    EXPECT_EQ(take(6, 1), (Range{0, 0}));
}

TEST(LookAhead, AnnouncesBlocksWhereTheyAreStored) {
    TestRandom random(4);
    const DriveImage image(random, 10 * MIB / ZqBlocks::SIZE);
    const uint64 present = image.nZqf - 100;
    image.put(0, present, false);
    ColdOs os(image.prefix.str(), image.nZqf);
    VirtualDisk disk(image.config(Mode::Ro, present), [](uint64) {});
    disk.setFailOnUnderflow();
    std::vector<char> buffer(64 * 1024);
    const auto read = [&](uint64 offset) {
        int error = 0;
        disk.read(offset, static_cast<uint32>(buffer.size()), buffer.data(), 1, false, &error);
    };
    uint64 start = 0; // of two neighbouring requests that miss nothing
    const auto isThere = [&](uint64 rawIdx) {
        return !image.hasPlace(rawIdx) || image.zqfIdxOf(rawIdx) < present;
    };
    for (uint64 rawIdx = 0; rawIdx < start + 32; ++rawIdx) {
        if (!isThere(rawIdx)) start = rawIdx + 1;
    }
    read(start * ZqBlocks::SIZE);
    std::fill(os.announced.begin(), os.announced.end(), 0);
    read(start * ZqBlocks::SIZE + buffer.size());
    const uint64 first = start + 16, end = first + 16 + LookAhead::WINDOW / ZqBlocks::SIZE;
    for (uint64 rawIdx = 0; rawIdx < image.nRaw(); ++rawIdx) {
        if (!image.hasPlace(rawIdx)) continue;
        const bool expected = rawIdx >= first && rawIdx < end && isThere(rawIdx);
        ASSERT_EQ(os.announced[image.zqfIdxOf(rawIdx)], expected ? 1 : 0) << "RAW block " << rawIdx;
    }
}

} // namespace
