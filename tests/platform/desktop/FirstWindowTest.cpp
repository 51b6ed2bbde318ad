#include "ScriptedDesktop.h"
#include "SxClock.h"
#include "SxLatch.h"
#include "SxTime.h"
#include "ZqFirstWindow.h"

#include <atomic>
#include <gmock/gmock.h>
#include <unistd.h>

namespace {

/// A desktop that shows one window, and may stop answering.
class OneWindow : public ScriptedDesktop {
public:
    bool isNamed() override { return isThere; }
    SxList<int> getProcesses() override {
        ++nLooks;
        if (hangs) answer.isSetWithin(60'000);
        const SxList<int> processes = {owner.load()};
        ++nAnswers;
        return processes;
    }

    bool isThere = true;
    std::atomic<bool> hangs{false};
    std::atomic<int> owner{1}, nLooks{0}, nAnswers{0};
    SxLatch answer;
};

bool eventually(const std::function<bool()>& ready) {
    return SxWait::pass(20'000, ready);
}

} // namespace

TEST(FirstWindow, OnlyTheApplicationsOwnCounts) {
    OneWindow desktop;
    ZqFirstWindow first(SxClock::get().steadyNs());
    first.follow(SxProcessGroup());
    EXPECT_EQ(desktop.nLooks, 0);
    const SxProcessGroup own = SxProcessGroup::of(::getpid());
    first.follow(own);
    ASSERT_TRUE(eventually([&] { return desktop.nLooks > 1; }));
    EXPECT_EQ(first.getMs(), -1) << "the window is another program's";
    desktop.owner = ::getpid();
    ASSERT_TRUE(eventually([&] { return first.getMs() >= 0; }));
    EXPECT_GE(first.getMs(), ZqFirstWindow::LOOK_MS);
    const int64 found = first.getMs();
    first.follow(own);
    EXPECT_EQ(first.getMs(), found);
}

TEST(FirstWindow, NeitherNoDisplayNorOneThatHangsHoldsUpARun) {
    OneWindow desktop;
    desktop.isThere = false;
    {
        ZqFirstWindow first(0);
        first.follow(SxProcessGroup::of(::getpid()));
    }
    EXPECT_EQ(desktop.nLooks, 0);
    desktop.isThere = desktop.hangs = true;
    const int64 beginMs = SxClock::get().steadyMs();
    {
        ZqFirstWindow first(0);
        first.follow(SxProcessGroup::of(::getpid()));
        ASSERT_TRUE(eventually([&] { return desktop.nLooks > 0; }));
    }
    EXPECT_LT(SxClock::get().steadyMs() - beginMs, 20'000);
    EXPECT_EQ(desktop.nAnswers, 0);
    desktop.answer.set();
    EXPECT_TRUE(eventually([&] { return desktop.nAnswers > 0; }));
}
