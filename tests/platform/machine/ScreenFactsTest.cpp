#include "MachineTree.h"
#include "SxClock.h"
#include "SxTime.h"
#include "TestDisplay.h"
#include "ZqDesktop.h"
#include "ZqScreenFacts.h"

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

std::string screenOf(const MachineTree& tree) {
    return ZqScreenFacts::read(tree.root()).str();
}

/// A display that takes connections and says nothing.
class SilentDisplay {
public:
    SilentDisplay() : fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        std::filesystem::create_directories("/tmp/.X11-unix");
        const std::string number = std::to_string(20'000 + ::getpid() % 10'000);
        path = "/tmp/.X11-unix/X" + number;
        std::filesystem::remove(path);
        struct ::sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        const auto* plain = reinterpret_cast<const struct ::sockaddr*>(&address);
        if (fd < 0 || ::bind(fd, plain, sizeof address) != 0 || ::listen(fd, 5) != 0)
            throw std::runtime_error("cannot listen at " + path);
        ::setenv("DISPLAY", (":" + number).c_str(), 1);
    }
    ~SilentDisplay() {
        ::unsetenv("DISPLAY");
        ::close(fd);
        std::filesystem::remove(path);
    }
    SilentDisplay(const SilentDisplay&) = delete;
    SilentDisplay& operator=(const SilentDisplay&) = delete;

private:
    int fd;
    std::string path;
};

} // namespace

TEST(ScreenFacts, AreThoseOfTheConnectors) {
    ::unsetenv("DISPLAY");
    const MachineTree tree;
    EXPECT_EQ(screenOf(tree), "Unknown");
    const auto connector = [&](const std::string& name, const char* status, const char* enabled,
                               const char* modes) {
        const std::string folder = "sys/class/drm/" + name + "/";
        tree.write(folder + "status", status);
        tree.write(folder + "enabled", enabled);
        tree.write(folder + "modes", modes);
    };
    connector("card0-DP-1", "disconnected\n", "disabled\n", "800x600\n");
    connector("card0-DP-2", "connected\n", "enabled\n", "");
    for (const char* odd : {"x", "1920", "1920x", "x1080", "-1x5", "99999999999999999999x1"}) {
        connector("card0-DP-3", "connected\n", "enabled\n", odd);
        EXPECT_EQ(screenOf(tree), "Unknown") << odd;
    }
    connector("card0-HDMI-A-1", "connected\n", "disabled\n", "1024x768\n640x480\n");
    EXPECT_EQ(screenOf(tree), "1024 x 768");
    connector("card1-HDMI-A-1", "connected\n", "enabled\n", "3840x2160i\n1920x1080\n");
    EXPECT_EQ(screenOf(tree), "3840 x 2160");
}

TEST(ScreenFacts, AreThoseOfTheDisplay) {
    const std::string reason = TestDisplay::missing();
    if (!reason.empty()) GTEST_SKIP() << reason;
    const TestDisplay display;
    const MachineTree tree;
    tree.write("sys/class/drm/card0-DP-1/status", "connected\n");
    tree.write("sys/class/drm/card0-DP-1/modes", "800x600\n");
    EXPECT_EQ(screenOf(tree), "640 x 480");
}

TEST(ScreenFacts, DontWaitForADisplayThatHangs) {
    const MachineTree tree;
    tree.write("sys/class/drm/card0-DP-1/status", "connected\n");
    tree.write("sys/class/drm/card0-DP-1/modes", "800x600\n");
    {
        const SilentDisplay display;
        for (int i = 0; i < 2; ++i) {
            const int64 startMs = SxClock::get().steadyMs();
            EXPECT_EQ(screenOf(tree), "800 x 600");
            EXPECT_GE(SxClock::get().steadyMs() - startMs, ZqScreenFacts::LIMIT_MS - 50);
            EXPECT_LT(SxClock::get().steadyMs() - startMs, 10 * ZqScreenFacts::LIMIT_MS);
        }
        // Other questions to the desktop don't wait for that one.
        ::unsetenv("DISPLAY");
        EXPECT_EQ(ZqDesktop::machine().findByTitle("x"), 0U);
    }
    // Its end ends the question.
    EXPECT_TRUE(SxWait::pass(10'000, [&] {
        const int64 startMs = SxClock::get().steadyMs();
        screenOf(tree);
        return SxClock::get().steadyMs() - startMs < ZqScreenFacts::LIMIT_MS / 2;
    }));
}
