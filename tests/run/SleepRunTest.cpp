#include "StreamRun.h"
#include "SxProcessInfo.h"
#include "TestSleep.h"

namespace {

/// A run on a machine that can be sent to sleep.
class SleepRun : public StreamRun {
protected:
    void SetUp() override {
        const string reason = TestSleep::missing();
        if (!reason.empty()) GTEST_SKIP() << reason;
        machine = std::make_unique<TestSleep>();
        StreamRun::SetUp();
    }
    void TearDown() override {
        StreamRun::TearDown();
        machine.reset();
    }
    bool becomes(int nDelays) const {
        return SxWait::pass(30'000, [&] { return machine->nDelays() == nDelays; });
    }
    /// Whether what reads from the drive for the game is stopped; a read that is held can't be, before its
    /// end.
    bool isGameStopped() const {
        const string games = statusOf(got).mountPath.str() + "/TAVRIN-protected/app";
        bool found = false;
        for (const SxProcessInfo& info : SxProcessInfo::getAll()) {
            std::error_code gone;
            const fs::path link = "/proc/" + std::to_string(info.id) + "/cwd";
            if (fs::read_symlink(link, gone) != games) continue;
            if (info.state != 'T') return false;
            found = true;
        }
        return found;
    }

    std::unique_ptr<TestSleep> machine;
};

} // namespace

TEST_F(SleepRun, TheMachineSleepsOnceTheGameStandsAndHoldsNoRead) {
    pause();
    const auto player = start();
    ASSERT_TRUE(SxWait::pass(30'000, [&] { return hasPaused(); })) << player->says();
    ASSERT_TRUE(becomes(1)) << "nobody holds up the machine's sleep";
    machine->tell(true);
    EXPECT_TRUE(becomes(0)) << player->says();
    EXPECT_TRUE(eventually([this] { return isGameStopped(); }));
    resume();
    machine->tell(false);
    // All goes on, and the next sleep is held up, too.
    EXPECT_TRUE(becomes(1)) << player->says();
    EXPECT_TRUE(SxWait::pass(30'000, [&] { return hasPlayed(); })) << player->says();
    EXPECT_EQ(player->end(), 0) << player->says();
    EXPECT_TRUE(becomes(0)) << "its end leaves the machine awake";
    expectPlayed();
}

TEST_F(SleepRun, AReadThatIsHeldIsFetchedBeforeTheMachineSleeps) {
    server->setRate(1'000'000);
    pause();
    const auto player = start();
    ASSERT_TRUE(SxWait::pass(30'000, [&] { return hasPaused(); })) << player->says();
    ASSERT_TRUE(becomes(1));
    server->stop(); // while the rest of the image, and what the game reads next, is missing
    resume();
    ASSERT_TRUE(SxWait::pass(30'000, [&] { return statusOf(got).nHeld > 0; })) << player->says();
    machine->tell(true);
    // It can't be fetched, so the machine is held up for as long as that grants, and the read stays held.
    EXPECT_FALSE(SxWait::pass(2'000, [&] { return machine->nDelays() == 0; })) << player->says();
    EXPECT_GT(statusOf(got).nHeld, 0u);
    server->setRate(0);
    server->start();
    EXPECT_TRUE(becomes(0)) << player->says();
    EXPECT_EQ(statusOf(got).nHeld, 0u);
    EXPECT_TRUE(eventually([this] { return isGameStopped(); }));
    EXPECT_FALSE(hasPlayed());
    machine->tell(false);
    EXPECT_TRUE(SxWait::pass(60'000, [&] { return hasPlayed(); })) << player->says();
    EXPECT_EQ(player->end(), 0) << player->says();
    expectPlayed();
}
