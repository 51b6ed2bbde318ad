#include "SxClock.h"
#include "SxSystemThread.h"
#include "SxTime.h"
#include "VirtualClock.h"

#include <chrono>
#include <functional>
#include <gmock/gmock.h>
#include <vector>

using testing::ElementsAre;

namespace {

class Job : public SxSystemThread {
public:
    explicit Job(std::function<void()> work_) : work(std::move(work_)) {}
    ~Job() override { wait(); }

protected:
    void main() override { work(); }

private:
    std::function<void()> work;
};

} // namespace

TEST(Clock, AMinuteOfWaitingLooksEveryTenMillisecondsAndTakesNoTime) {
    VirtualClock clock(1'000'000);
    const auto begin = std::chrono::steady_clock::now();
    std::vector<int64> looks;

    EXPECT_FALSE(SxWait::pass(61'000, [&] {
        looks.push_back(clock.elapsedMs());
        return false;
    }));

    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(5));
    ASSERT_EQ(looks.size(), 6101u);
    for (size_t i = 0; i < looks.size(); ++i)
        ASSERT_EQ(looks[i], static_cast<int64>(i) * 10);
    EXPECT_EQ(SxClock::get().systemMs(), 1'061'000);
}

TEST(Clock, WaitingGoesOnAsSoonAsTheStateIsThere) {
    VirtualClock clock;
    EXPECT_TRUE(SxWait::pass(1000, [] { return true; }));
    EXPECT_EQ(clock.elapsedMs(), 0);
    EXPECT_TRUE(SxWait::pass(1000, [&] { return clock.elapsedMs() >= 55; }));
    EXPECT_EQ(clock.elapsedMs(), 60);
    EXPECT_FALSE(SxWait::pass(25, [] { return false; }));
    EXPECT_EQ(clock.elapsedMs(), 85);
}

TEST(Clock, PassesReportEachOneThatEndedWithoutTheState) {
    VirtualClock clock;
    std::vector<int64> ended;
    const auto note = [&](int64 i) { ended.push_back(i); };
    EXPECT_TRUE(SxWait::passes(
        5, 1000, [&] { return clock.elapsedMs() >= 2500; }, note));
    EXPECT_THAT(ended, ElementsAre(0, 1));
    EXPECT_EQ(clock.elapsedMs(), 2500);
    EXPECT_FALSE(SxWait::passes(
        2, 100, [] { return false; }, note));
    EXPECT_THAT(ended, ElementsAre(0, 1, 0, 1));
}

TEST(VirtualClock, JobsInterleaveInTheOrderOfTheirTimes) {
    for (int round = 0; round < 20; ++round) {
        VirtualClock clock;
        std::vector<std::string> seen;
        const auto ticker = [&](const char* name, int64 ms, int n) {
            return [&seen, &clock, name, ms, n] {
                for (int i = 0; i < n; ++i) {
                    SxTime::msleep(ms);
                    seen.push_back(name + std::to_string(clock.elapsedMs()));
                }
            };
        };
        Job slow(ticker("slow ", 30, 3)), fast(ticker("fast ", 20, 3));
        slow.start();
        fast.start();
        SxTime::msleep(25);
        seen.push_back("main " + std::to_string(clock.elapsedMs()));
        slow.wait();
        fast.wait();
        ASSERT_THAT(seen, ElementsAre("fast 20", "main 25", "slow 30", "fast 40",
                                      testing::AnyOf("slow 60", "fast 60"),
                                      testing::AnyOf("slow 60", "fast 60"), "slow 90"));
    }
}

TEST(VirtualClock, TimeStandsStillWhileAThreadWorks) {
    VirtualClock clock;
    int64 before = 0, after = 0;
    Job worker([&] {
        before = clock.elapsedMs();
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        after = clock.elapsedMs();
    });
    worker.start();
    SxTime::sleep(5);
    worker.wait();
    EXPECT_EQ(before, 0);
    EXPECT_EQ(after, 0);
    EXPECT_EQ(clock.elapsedMs(), 5000);
}

TEST(VirtualClock, AJobsEndDoesNotMoveTimePastItsWaiter) {
    VirtualClock clock;
    Job other([] { SxTime::sleep(1000); });
    other.start();
    for (int64 i = 1; i <= 50; ++i) {
        Job child([] { SxTime::msleep(10); });
        child.start();
        child.wait();
        ASSERT_EQ(clock.elapsedMs(), i * 10);
    }
    other.wait();
    EXPECT_EQ(clock.elapsedMs(), 1'000'000);
}

TEST(VirtualClock, RestoresTheMachinesClock) {
    SxClock* machine = &SxClock::get();
    {
        VirtualClock clock(42);
        EXPECT_EQ(SxClock::get().systemMs(), 42);
        clock.adjustSystem(-40);
        EXPECT_EQ(SxClock::get().systemMs(), 2);
        EXPECT_EQ(SxClock::get().steadyNs(), 0);
    }
    EXPECT_EQ(&SxClock::get(), machine);
}
