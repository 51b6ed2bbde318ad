#include "SxTime.h"
#include "TestApplication.h"
#include "TestDisplay.h"
#include "ZqX11Desktop.h"

#include <gmock/gmock.h>
#include <optional>
#include <unistd.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Handle = ZqDesktop::Handle;

template<class Ready>
bool soon(Ready&& ready) {
    return SxWait::pass(10'000, ready);
}

std::vector<Handle> windowsOf(ZqDesktop& desktop, int pid) {
    std::vector<Handle> all;
    for (const Handle window : desktop.getWindowsOfProcess(pid))
        all.push_back(window);
    return all;
}

void expectNothing(ZqDesktop& desktop) {
    EXPECT_EQ(desktop.findByTitle("The Game"), 0U);
    EXPECT_EQ(desktop.findByClass("game"), 0U);
    EXPECT_THAT(windowsOf(desktop, 1234), IsEmpty());
    EXPECT_TRUE(desktop.getProcesses().isEmpty());
    EXPECT_EQ(desktop.getForeground(), 0U);
    for (const Handle window : {Handle{0}, Handle{0x400001}, ~Handle{0}}) {
        EXPECT_EQ(desktop.getTitle(window), "");
        EXPECT_FALSE(desktop.isIconic(window));
        desktop.forceMinimise(window);
        desktop.postMinimise(window);
        desktop.show(window);
        desktop.activate(window);
    }
}

class DesktopTest : public testing::Test {
protected:
    void SetUp() override {
        const std::string reason = TestDisplay::missing();
        if (!reason.empty()) GTEST_SKIP() << reason;
        display.emplace();
    }
    std::optional<TestDisplay> display;
    ZqX11Desktop desktop;
};

} // namespace

TEST_F(DesktopTest, WindowsAreFoundByTitleClassAndProcess) {
    TestApplication application;
    char host[256] = {};
    ::gethostname(host, sizeof host - 1);
    const std::string umlaut = "\xC3\xA4";
    std::string longTitle;
    for (int i = 0; i < 300; ++i)
        longTitle += umlaut;
    const Handle under = application.show({"The Game", "game", 1234, host});
    ASSERT_TRUE(soon([&] { return desktop.findByTitle("The Game") == under; }));
    const Handle remote = application.show({"Elsewhere", "ghost", 1234, "elsewhere"});
    ASSERT_TRUE(soon([&] { return desktop.findByTitle("Elsewhere") == remote; }));
    const Handle latin = application.show({"Gr\xFC\xDF", "Ghost", 77, "", true});
    ASSERT_TRUE(soon([&] { return desktop.findByTitle("Gr\xC3\xBC\xC3\x9F") == latin; }));
    const Handle endless = application.show({longTitle, "x", 1234, "localhost"});
    ASSERT_TRUE(soon([&] { return desktop.findByTitle(SxString(longTitle)) == endless; }));
    const Handle upper = application.show({"The Game", "game", 1234, host});
    ASSERT_TRUE(soon([&] { return desktop.findByTitle("The Game") == upper; }));

    // A window manager may show a window before it has put it above the others.
    const std::vector<Handle> fromTheTop = {upper, endless, under};
    EXPECT_TRUE(soon([&] { return windowsOf(desktop, 1234) == fromTheTop; }))
        << testing::PrintToString(windowsOf(desktop, 1234));
    EXPECT_THAT(windowsOf(desktop, 77), ElementsAre(latin));
    EXPECT_TRUE(desktop.getProcesses().contains(1234) && desktop.getProcesses().contains(77));
    EXPECT_FALSE(desktop.getProcesses().contains(78));
    EXPECT_THAT(windowsOf(desktop, 78), IsEmpty());
    EXPECT_THAT(windowsOf(desktop, 0), IsEmpty());
    EXPECT_EQ(desktop.findByClass("game"), upper);
    EXPECT_EQ(desktop.findByClass(ZqDesktop::GHOST), latin);
    EXPECT_EQ(desktop.findByClass("instance"), 0U);
    EXPECT_EQ(desktop.getTitle(latin), "Gr\xC3\xBC\xC3\x9F");
    EXPECT_EQ(desktop.getTitle(endless), SxString(longTitle.substr(0, 512)));
    const Handle untitled = application.show({"", "none", 5, ""});
    ASSERT_TRUE(soon([&] { return desktop.findByClass("none") == untitled; }));
    for (const char* other : {"The", "the game", "The Game ", ""})
        EXPECT_EQ(desktop.findByTitle(other), 0U) << other;

    application.destroy(upper);
    ASSERT_TRUE(soon([&] { return desktop.findByTitle("The Game") == under; }));
    EXPECT_EQ(desktop.getTitle(upper), "");
    EXPECT_FALSE(desktop.isIconic(upper));
    desktop.forceMinimise(upper);
    desktop.show(upper);
    desktop.activate(upper);
    EXPECT_EQ(desktop.getTitle(under), "The Game");
}

TEST_F(DesktopTest, WindowsAreMinimisedAndRestored) {
    TestApplication application;
    const Handle game = application.show({"The Game", "game", 1234, ""});
    const Handle other = application.show({"Other", "other", 1, ""});
    ASSERT_TRUE(soon(
        [&] { return desktop.findByTitle("The Game") == game && desktop.findByTitle("Other") == other; }));
    desktop.activate(game);
    ASSERT_TRUE(soon([&] { return desktop.getForeground() == game; }));
    desktop.activate(other);
    ASSERT_TRUE(soon([&] { return desktop.getForeground() == other; }));
    desktop.activate(game);
    ASSERT_TRUE(soon([&] { return desktop.getForeground() == game; }));
    EXPECT_FALSE(desktop.isIconic(game));

    for (const bool force : {true, false}) {
        if (force) {
            desktop.forceMinimise(game);
        } else {
            desktop.postMinimise(game);
        }
        ASSERT_TRUE(soon([&] { return desktop.isIconic(game); }));
        EXPECT_TRUE(soon([&] { return desktop.getForeground() != game; }));
        EXPECT_FALSE(desktop.isIconic(other));
        EXPECT_EQ(desktop.findByTitle("The Game"), game);
        EXPECT_THAT(windowsOf(desktop, 1234), ElementsAre(game));
        desktop.show(game);
        desktop.activate(game);
        ASSERT_TRUE(soon([&] { return !desktop.isIconic(game) && desktop.getForeground() == game; }));
    }

    // A window on another desktop isn't minimised.
    application.goToDesktop(1);
    ASSERT_TRUE(soon([&] { return application.getDesktop() == 1 && desktop.getForeground() != game; }));
    EXPECT_FALSE(desktop.isIconic(game));
}

TEST_F(DesktopTest, WindowsAreClosed) {
    TestApplication application, stays;
    const Handle launcher = application.show({"The Launcher", "launcher", 1234, ""});
    const Handle other = stays.show({"Other", "other", 1, ""});
    ASSERT_TRUE(soon([&] {
        return desktop.findByTitle("The Launcher") == launcher && desktop.findByTitle("Other") == other;
    }));
    desktop.close(launcher);
    EXPECT_TRUE(soon([&] { return desktop.findByTitle("The Launcher") == 0; }));
    EXPECT_EQ(desktop.findByTitle("Other"), other);
    desktop.close(launcher); // one that is gone
    desktop.close(0);
}

TEST_F(DesktopTest, ALostDisplayHasNoWindowsAndANewOneIsFound) {
    {
        TestApplication application;
        const Handle game = application.show({"The Game", "game", 1234, ""});
        ASSERT_TRUE(soon([&] { return desktop.findByTitle("The Game") == game; }));
        display.reset();
        ::setenv("DISPLAY", ":63999", 1);
        EXPECT_EQ(desktop.findByTitle("The Game"), 0U);
        EXPECT_FALSE(desktop.isIconic(game));
        EXPECT_EQ(desktop.getTitle(game), "");
        expectNothing(desktop);
    }
    display.emplace();
    TestApplication application;
    const Handle game = application.show({"The Game", "game", 1234, ""});
    EXPECT_TRUE(soon([&] { return desktop.findByTitle("The Game") == game; }));
}

TEST(NoDesktopTest, WithoutADisplayEverySearchFindsNothing) {
    for (const char* name : {"", ":63999", "nonsense"}) {
        SCOPED_TRACE(name);
        ::setenv("DISPLAY", name, 1);
        ZqX11Desktop desktop;
        expectNothing(desktop);
    }
    ::unsetenv("DISPLAY");
    expectNothing(ZqDesktop::get());
}
