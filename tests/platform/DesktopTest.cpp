#include "SxTime.h"
#include "TestDisplay.h"
#include "ZqX11Desktop.h"

#include <gmock/gmock.h>
#include <optional>
#include <unistd.h>
#include <xcb/xcb_ewmh.h>
#include <xcb/xcb_icccm.h>

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Handle = ZqDesktop::Handle;

/// An application's connection to the display. It never answers, as one that hangs.
class Application {
public:
    Application() : connection(::xcb_connect(nullptr, nullptr)) {
        ::xcb_ewmh_init_atoms_replies(&ewmh, ::xcb_ewmh_init_atoms(connection, &ewmh), nullptr);
        screen = ::xcb_setup_roots_iterator(::xcb_get_setup(connection)).data;
    }
    ~Application() {
        ::xcb_ewmh_connection_wipe(&ewmh);
        ::xcb_disconnect(connection);
    }
    Application(const Application&) = delete;
    Application& operator=(const Application&) = delete;

    struct Look {
        std::string title, className;
        uint32_t pid = 0;
        std::string machine;
        bool oldTitle = false; ///< only in ISO 8859-1
    };
    Handle show(const Look& look) {
        const xcb_window_t window = ::xcb_generate_id(connection);
        ::xcb_create_window(connection, XCB_COPY_FROM_PARENT, window, screen->root, 10, 10, 200, 100, 0,
                            XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual, 0, nullptr);
        const auto length = static_cast<uint32_t>(look.title.size());
        if (look.oldTitle) {
            ::xcb_icccm_set_wm_name(connection, window, XCB_ATOM_STRING, 8, length, look.title.data());
        } else {
            ::xcb_ewmh_set_wm_name(&ewmh, window, length, look.title.data());
        }
        const std::string both = "instance" + std::string(1, '\0') + look.className + '\0';
        ::xcb_icccm_set_wm_class(connection, window, static_cast<uint32_t>(both.size()), both.data());
        if (look.pid != 0) ::xcb_ewmh_set_wm_pid(&ewmh, window, look.pid);
        ::xcb_icccm_set_wm_client_machine(connection, window, XCB_ATOM_STRING, 8,
                                          static_cast<uint32_t>(look.machine.size()), look.machine.data());
        ::xcb_map_window(connection, window);
        ::xcb_flush(connection);
        return window;
    }
    void destroy(Handle window) {
        ::xcb_destroy_window(connection, static_cast<xcb_window_t>(window));
        ::xcb_flush(connection);
    }
    void goToDesktop(uint32_t desktop) {
        ::xcb_ewmh_request_change_current_desktop(&ewmh, 0, desktop, XCB_CURRENT_TIME);
        ::xcb_flush(connection);
    }
    uint32_t getDesktop() {
        uint32_t desktop = 0;
        ::xcb_ewmh_get_current_desktop_reply(&ewmh, ::xcb_ewmh_get_current_desktop(&ewmh, 0), &desktop,
                                             nullptr);
        return desktop;
    }

private:
    xcb_connection_t* connection;
    xcb_ewmh_connection_t ewmh = {};
    xcb_screen_t* screen = nullptr;
};

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
    Application application;
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

    EXPECT_THAT(windowsOf(desktop, 1234), ElementsAre(upper, endless, under));
    EXPECT_THAT(windowsOf(desktop, 77), ElementsAre(latin));
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
    Application application;
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

TEST_F(DesktopTest, ALostDisplayHasNoWindowsAndANewOneIsFound) {
    {
        Application application;
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
    Application application;
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
