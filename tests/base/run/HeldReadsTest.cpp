#include "ZqDiskStatus.h"
#include "ZqHeldReads.h"

#include <gtest/gtest.h>

namespace {

constexpr int64 MS = 1'000'000;

/// A drive's status with the last wait that has ended, and when the one began that goes on; milliseconds.
ZqDiskStatus statusOf(int64 lastFrom, int64 lastTo, int64 since = 0) {
    ZqDiskStatus disk;
    disk.lastWaitFromNs = static_cast<uint64>(lastFrom * MS);
    disk.lastWaitToNs = static_cast<uint64>(lastTo * MS);
    disk.waitSinceNs = static_cast<uint64>(since * MS);
    return disk;
}

} // namespace

TEST(HeldReads, CountEachWaitOnceFromTheStartOfTheApplicationOn) {
    ZqHeldReads held;
    held.look(statusOf(1'000, 3'000, 4'000));
    EXPECT_FALSE(held.getSum() || held.isOpen()) << "nothing has been started";
    held.start(2'000 * MS, 5'000 * MS);
    // One from before, one that began before the start, twice.
    held.look(statusOf(1'000, 3'000, 4'000));
    EXPECT_EQ(held.getSum()->n, 0) << "it goes on";
    EXPECT_TRUE(held.isOpen());
    held.look(statusOf(4'000, 7'000));
    EXPECT_FALSE(held.isOpen());
    held.look(statusOf(4'000, 7'000));
    EXPECT_EQ(held.getSum()->n, 1);
    EXPECT_EQ(held.getSum()->longestMs, 2'000);
    ASSERT_EQ(held.getWaits().size(), 1U);
    EXPECT_EQ(held.getWaits()[0].fromMs, 3'000);
    EXPECT_EQ(held.getWaits()[0].toMs, 5'000);
    // One that goes on at the end counts up to that.
    held.look(statusOf(4'000, 7'000, 9'000));
    held.end(10'000 * MS);
    held.look(statusOf(9'000, 20'000, 21'000));
    EXPECT_FALSE(held.isOpen());
    const auto sum = held.getSum();
    EXPECT_EQ(sum->n, 2);
    EXPECT_EQ(sum->longestMs, 2'000);
    EXPECT_EQ(sum->sumMs, 3'000);
}

TEST(HeldReads, GoOnWhereAnotherRunWasKilled) {
    ZqHeldReads held;
    // Started at 1 s, noted at 10 s, gone on with at 60 s.
    held.goOn(60'000 * MS, 1'000 * MS, 10'000 * MS);
    held.look(statusOf(2'000, 9'000, 9'500));
    EXPECT_EQ(held.getSum()->n, 0) << "the first is noted already, the second goes on";
    held.look(statusOf(9'500, 62'000));
    EXPECT_EQ(held.getSum()->longestMs, 52'500);
    EXPECT_EQ(held.getWaits()[0].fromMs, -50'500) << "of this run";
}

TEST(HeldReads, KeepTheLongestOfVeryMany) {
    ZqHeldReads held;
    held.start(1, 1);
    const auto n = static_cast<int64>(ZqHeldReads::MOST) + 10;
    for (int64 i = 1; i <= n; ++i)
        held.look(statusOf(i * 10'000, i * 10'000 + 1'000 + i));
    EXPECT_EQ(held.getSum()->n, n);
    ASSERT_EQ(held.getWaits().size(), ZqHeldReads::MOST);
    EXPECT_EQ(held.getWaits().front().toMs - held.getWaits().front().fromMs, 1'011);
}
