#include "ZqBlockUse.h"
#include "ZqBlocks.h"
#include "ZqOrderGroups.h"
#include "ZqOrderProfiles.h"
#include "ZqSessionCount.h"

#include <gmock/gmock.h>
#include <numeric>

using testing::ElementsAre;
using testing::Pair;

namespace {

constexpr uint64 BLOCK = ZqBlocks::SIZE, PER_STRETCH = ZqBlocks::STRETCH / BLOCK;

/// Seconds and blocks.
std::vector<std::pair<uint64, uint64>> pointsOf(const ZqOrderProfiles::Profile& profile) {
    std::vector<std::pair<uint64, uint64>> result;
    for (const ZqLoadProfilePoint& point : profile)
        result.emplace_back(point.time, point.size / BLOCK);
    return result;
}

std::vector<uint32> numbers(uint32 from, uint32 to) {
    std::vector<uint32> result(to - from);
    std::iota(result.begin(), result.end(), from);
    return result;
}

} // namespace

TEST(BlockUse, TheRunThatNeedsABlockFirstDecidesUnlessItIsTheOnlyOneOfSeveral) {
    // Two levels have their own start, and what both read comes after that.
    ZqBlockUse two(100);
    two.add(0, {10, 1, 2, 3, 4, 20});
    two.add(1, {20, 1, 2, 3, 4, 10});
    for (const uint64 start : {10U, 20U}) {
        EXPECT_TRUE(two.isEarlier(start, 1));
        EXPECT_TRUE(two.isEarlier(start, 4));
    }
    EXPECT_EQ(two.getN(20), 2U);

    // One run of many reads all backward.
    std::vector<uint64> blocks(1000);
    std::iota(blocks.begin(), blocks.end(), uint64{0});
    ZqBlockUse many(1000);
    for (size_t number = 0; number < 5; ++number)
        many.add(number, blocks);
    many.add(5, {blocks.rbegin(), blocks.rend()});
    for (uint64 rawIdx = 1; rawIdx < blocks.size(); ++rawIdx)
        ASSERT_TRUE(many.isEarlier(rawIdx - 1, rawIdx)) << rawIdx;
    many.add(6, {blocks.rbegin(), blocks.rend()});
    EXPECT_TRUE(many.isEarlier(999, 500));
}

TEST(BlockUse, PlacesOfALargeImageStayInOrder) {
    constexpr uint64 N = (uint64{1} << 24) + 1000;
    std::vector<uint64> blocks(N);
    std::iota(blocks.rbegin(), blocks.rend(), uint64{0});
    ZqBlockUse use(N);
    use.add(0, blocks);
    EXPECT_TRUE(use.isEarlier(N - 1, 0));
    EXPECT_TRUE(use.isEarlier(N / 2 + 2, N / 2));
    EXPECT_FALSE(use.isEarlier(0, N - 1));
}

TEST(OrderProfiles, GiveTheWorstAndTheMedianOfRunsThatDiffer) {
    ZqOrderProfiles profiles(2, 100, 1000);
    profiles.add(10, 0);
    profiles.add(50, 2500);
    EXPECT_THAT(profiles.endRun(), ElementsAre());
    profiles.add(90, -5);
    EXPECT_THAT(profiles.endRun(), ElementsAre());
    // What is read after the core takes a stretch of the link, once, from the first of its reads on.
    profiles.add(20, 900);
    profiles.add(510, 1999);
    profiles.add(549, 1200);
    profiles.add(120, 4000);
    EXPECT_THAT(profiles.endRun(), ElementsAre(10, 2));

    EXPECT_THAT(pointsOf(profiles.getWorst()), ElementsAre(Pair(0, 91), Pair(4, 21 + 2 * PER_STRETCH)));
    // At 0 s 11, 21 and 91; at 1 s 11, 71 and 91; at 2 s 51, 71 and 91; at 4 s 51, 91 and 121.
    EXPECT_THAT(pointsOf(profiles.getMedian()),
                ElementsAre(Pair(0, 21), Pair(1, 21 + PER_STRETCH), Pair(4, 91)));
}

TEST(OrderProfiles, NeverAskForMoreThanThereIs) {
    ZqOrderProfiles profiles(0, 10, 70);
    for (uint64 zqfIdx = 0; zqfIdx < 70; ++zqfIdx)
        profiles.add(zqfIdx, 0);
    profiles.endRun();
    EXPECT_THAT(pointsOf(profiles.getWorst()), ElementsAre(Pair(0, 70)));
}

TEST(SessionCount, RunsOfOneSessionCountOnce) {
    ZqSessionCount count;
    count.add(numbers(0, 1000));
    count.add(numbers(0, 1000));
    count.add(numbers(10, 1000));
    EXPECT_EQ(count.get(), 1U);
    count.add(numbers(500, 1500));
    count.add(numbers(5000, 5100));
    EXPECT_EQ(count.get(), 3U);
    count.add(numbers(505, 1500));
    EXPECT_EQ(count.get(), 3U);
    // Those that need nothing beside the core are one more.
    count.add({});
    count.add({});
    EXPECT_EQ(count.get(), 4U);
}

TEST(OrderGroups, AreWhatRunsReadTogetherAndTellWhatComesNext) {
    ZqOrderGroups groups(100);
    for (int i = 0; i < 3; ++i)
        groups.add({40, 41, 42, 60, 61});
    groups.add({42, 41, 40, 80});
    groups.add({60, 61, 62});
    const std::vector<ZqOrderHints::Group> made = groups.make();
    ASSERT_EQ(made.size(), 4U);
    EXPECT_THAT(made[0].hot, ElementsAre(40, 41, 42));
    EXPECT_THAT(made[1].hot, ElementsAre(60, 61));
    // Stretch 62 was read by one of the four that read what is before it.
    EXPECT_THAT(made[2].hot, ElementsAre(62));
    EXPECT_THAT(made[3].hot, ElementsAre(80));
    // Three of the four who came to the first went on to the second, one to the last: that is too few.
    ASSERT_EQ(made[0].next.size(), 1U);
    EXPECT_EQ(made[0].next[0].group, 1U);
    EXPECT_EQ(made[0].next[0].percent, 60U);
    EXPECT_TRUE(made[2].next.empty());
}
