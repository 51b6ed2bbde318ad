#include "BaseTest.h"
#include "SxEventBus.h"
#include "SxTime.h"
#include "VirtualClock.h"
#include "ZqCoreAppGuard.h"
#include "ZqLog.h"
#include "ZqMachineRoot.h"
#include "ZqSysEnv.h"

#include <csignal>
#include <fstream>
#include <mutex>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// Longer than the system's short name of a process, and of this process alone, since others may run the same
/// test.
const std::string GAME = "the-real-game-of-the-player-" + std::to_string(::getpid());

/// A drive E: with a shell under the game's name, and a launcher to be written.
class AppGuardTest : public testing::Test {
protected:
    AppGuardTest() {
        for (const char* folder : {"root/dosdevices", "volume/app"})
            fs::create_directories(dir.path(folder));
        fs::create_directory_symlink(dir.path("volume"), dir.path("root/dosdevices/e:"));
        ZqMachineRoot::set(dir.path("root"));
        fs::copy_file(fs::canonical("/bin/sh"), dir.path("volume/app/" + GAME));
        ZqLog::setSink([this](const SxString&, const SxString& text) {
            const std::lock_guard lock(mutex);
            log.push_back(text.str());
        });
        SxEventBus::getGlobalObj().subscribe(SX_APP_ERROR, &errors);
        app.cmd = "{{ZQDRIVE}}/app/launcher";
        app.delay = 0;
    }
    ~AppGuardTest() override {
        ZqLog::setSink({});
        ZqMachineRoot::set("");
    }

    /// A guard of a launcher with that script, in which $GAME is a shell under the game's name.
    SxPtr<ZqCoreAppGuard> guard(const std::string& script) {
        const std::string file =
            dir.write("volume/app/launcher",
                      "#!/bin/sh\nGAME=" + dir.path("volume/app/") + GAME + "\n" + script + "\n");
        fs::permissions(file, fs::perms::owner_all);
        SxWinProcParams params;
        params.path = app.cmd;
        params.args = SxString::join(app.args, " ");
        return SxPtr<ZqCoreAppGuard>::create(dir.path("image"), app, "E:", params);
    }
    bool logged(const std::string& part) {
        const std::lock_guard lock(mutex);
        return std::any_of(log.begin(), log.end(),
                           [&](const std::string& line) { return line.find(part) != std::string::npos; });
    }
    /// The ids of the game's processes.
    static std::vector<int> games() {
        const SxList<int> ids = ZqSysEnv::getProcessIDs(GAME);
        return {ids.begin(), ids.end()};
    }
    static int awaitGame() {
        SxWait::pass(10000, [] { return !games().empty(); });
        const std::vector<int> ids = games();
        return ids.empty() ? -1 : ids.front();
    }
    /// Suspended, or in the middle of starting one that is.
    static bool isSuspended(int64 id) {
        SxProcessInfo info;
        return SxProcessInfo::get(id, &info) && (info.state == 'T' || info.state == 'D');
    }
    static bool eventually(const std::function<bool()>& state) { return SxWait::pass(10000, state); }

    const TempDir dir;
    ZqAppParams app;
    SxEventListener errors;
    std::mutex mutex;
    std::vector<std::string> log;
};

} // namespace

TEST_F(AppGuardTest, ExitCodes) {
    struct Case {
        const char *what, *name, *script;
        int code;
    };
    const Case cases[] = {
        {"ends at once", "", "exit 0", 0},
        {"ends at once", "", "exit 255", 255},
        {"ends by a signal", "", "kill -SEGV $$", 128 + SIGSEGV},
        {"forks away", "", "(sleep 0.3; exit 5) & (sleep 0.6; exit 9) & exit 0", 5},
        {"ends badly and leaves others", "", "sleep 0.3 & exit 3", 3},
        {"becomes the game", GAME.c_str(), "exec $GAME -c 'sleep 0.3; exit 4'", 4},
        {"hands over and ends", GAME.c_str(), "$GAME -c 'sleep 0.3; exit 6' & exit 1", 6},
        {"hands over to another session", GAME.c_str(), "setsid $GAME -c 'sleep 0.3; exit 7' & exit 1", 7},
        {"waits for the game", GAME.c_str(), "$GAME -c 'sleep 0.3; exit 8'; exit 1", 8},
        {"leaves a zombie", GAME.c_str(), "$GAME -c 'sleep 0.2; kill -KILL $$' & exec sleep 0.8",
         128 + SIGKILL},
        {"starts itself anew", GAME.c_str(),
         "$GAME -c 'sleep 0.3; ('$GAME' -c \"sleep 0.5; exit 1\") & exit 2'", 2},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        app.name = c.name;
        log.clear();
        const auto guard = this->guard(c.script);
        EXPECT_EQ(guard->getExitCode(), -1);
        guard->start();
        guard->wait();
        if (c.code == 8 && logged("Failed to query process exit code : ")) {
            // The launcher has taken it in; such a system doesn't tell.
            EXPECT_EQ(guard->getExitCode(), 1);
            continue;
        }
        EXPECT_EQ(guard->getExitCode(), c.code);
        const SxString line = c.code == 0
                                  ? SxString(" closed normally.")
                                  : SxString::sprintf(" exit code: 0x%08x", static_cast<unsigned>(c.code));
        EXPECT_TRUE(logged("main: Process " + (*c.name ? GAME : "launcher") + line.str()));
        EXPECT_TRUE(logged("ZqCoreAppGuard::main: END") && !guard->isRunning());
        EXPECT_THAT(games(), IsEmpty());
        // What was left is a child of ours now.
        while (c.code == 3 && waitpid(-1, nullptr, 0) > 0)
            continue;
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a zombie is left";
    }
    EXPECT_EQ(errors.getWaitSize(), 0);
}

TEST_F(AppGuardTest, ProgramArgumentsAndFolder) {
    // Blanks inside an argument survive, and the drive has its path in the system.
    app.args = {"a b", "{{ZQDRIVE}}/x"};
    auto guard = this->guard("printf '%s|' \"$(pwd -P)\" \"$@\" > $0.out");
    guard->start();
    guard->wait();
    EXPECT_EQ(guard->getExitCode(), 0);
    EXPECT_EQ(dir.read("volume/app/launcher.out"),
              dir.path("volume/app") + "|a b|" + dir.path("root") + "/dosdevices/e:/x|");
    SxWinProcParams params;
    params.path = dir.path("volume/app/launcher");
    params.args = "1  2";
    params.workDir = "{{ZQDRIVE}}/";
    guard = SxPtr<ZqCoreAppGuard>::create(dir.path(), app, "E:", params);
    guard->start();
    guard->wait();
    EXPECT_EQ(dir.read("volume/app/launcher.out"), dir.path("volume") + "|1|2|");

    params.path = "{{ZQDRIVE}}/none";
    guard = SxPtr<ZqCoreAppGuard>::create(dir.path(), app, "E:", params);
    guard->start();
    guard->wait();
    EXPECT_EQ(guard->getExitCode(), -1);
    SxEvent event;
    ASSERT_TRUE(errors.tryPop(&event));
    EXPECT_THAT(event.getData().getText(1).str(), AllOf(HasSubstr("Internal error in wait for process"),
                                                        HasSubstr("E:\\none"), HasSubstr("No such file")));
    // The player's own words begin with the command.
    EXPECT_THAT(failureOf([&] { guard->requireSuccess(); }),
                StartsWith("The application can't be started by"));
}

TEST_F(AppGuardTest, AGameThatNeverComes) {
    app.name = GAME;
    app.delay = 5;
    for (const bool stopped : {false, true}) {
        VirtualClock clock;
        log.clear();
        const auto guard = this->guard("exit 0");
        guard->start();
        if (stopped) {
            SxTime::msleep(2500);
            EXPECT_TRUE(guard->isSearching());
            guard->stop();
        }
        guard->wait();
        EXPECT_EQ(guard->getExitCode(), stopped ? ZqCoreAppGuard::STOPPED_CODE : 0);
        EXPECT_EQ(guard->isMissed(), !stopped);
        EXPECT_FALSE(guard->isSearching());
        const int64 elapsed = clock.elapsedMs();
        EXPECT_GE(elapsed, stopped ? 2500 : 65'000);
        EXPECT_LE(elapsed, stopped ? 2510 : 65'010);
        EXPECT_TRUE(logged(stopped ? "was terminated by stop request." : "exit code: 0xffffffff"));
        EXPECT_EQ(logged("Failed to open handle to " + GAME + " process."), !stopped);
    }
}

TEST_F(AppGuardTest, ALauncherThatTakesLongerThanTheSearch) {
    app.name = GAME;
    const VirtualClock clock;
    const auto guard = this->guard("while [ ! -e $0.go ]; do sleep 0.05; done\n"
                                   "$GAME -c 'sleep 0.7; exit 6' & sleep 0.3; exit 1");
    guard->start();
    ASSERT_TRUE(SxWait::pass(70'000, [this] { return logged("identified as PID -1"); }));
    EXPECT_FALSE(guard->hasApplication());
    dir.write("volume/app/launcher.go", "");
    guard->wait();
    EXPECT_EQ(guard->getExitCode(), 6);
    EXPECT_FALSE(guard->hasApplication());
    EXPECT_FALSE(guard->isMissed());
}

TEST_F(AppGuardTest, SuspendResumeAndStop) {
    for (const char* script : {"exec sleep 100", "sleep 100 & wait", "$GAME -c 'sleep 100; exit' & exit 0",
                               "setsid $GAME -c 'sleep 100; exit' & wait"}) {
        SCOPED_TRACE(script);
        const bool named = std::string_view(script).find("GAME") != std::string_view::npos;
        app.name = named ? GAME : "";
        // One of the user's own, from before.
        SxProcess other(dir.path("volume/app/") + GAME, {"-c", "sleep 100; exit"});
        other.start();
        SxTime::msleep(20);
        log.clear();
        const auto guard = this->guard(script);
        guard->resume();
        EXPECT_TRUE(logged("ZqCoreAppGuard::resume: ERROR. Process not suspended"));
        guard->start();
        ASSERT_TRUE(
            eventually([&] { return logged("identified") || (!named && guard->getGroup().isAlive()); }));
        ASSERT_TRUE(eventually([&] { return guard->hasApplication(); }));
        SxTime::msleep(50);
        guard->suspend();
        EXPECT_TRUE(guard->isSuspended());
        for (const SxProcessInfo& info : guard->getGroup().getRunning())
            EXPECT_TRUE(eventually([&] { return isSuspended(info.id); }));
        guard->suspend();
        EXPECT_TRUE(logged("ZqCoreAppGuard::suspend: ERROR. Process already suspended"));
        guard->resume();
        EXPECT_FALSE(guard->isSuspended());
        EXPECT_TRUE(eventually([&] { return !guard->getGroup().isSuspended(); }));
        guard->suspend();
        guard->stop();
        guard->wait();
        EXPECT_EQ(guard->getExitCode(), ZqCoreAppGuard::STOPPED_CODE);
        EXPECT_TRUE(logged("ZqCoreAppGuard::stop: Process killed."));
        EXPECT_FALSE(guard->getGroup().isAlive());
        EXPECT_THAT(games(), ElementsAre(other.getId())) << "what ran before isn't the application's";
        EXPECT_FALSE(isSuspended(other.getId()));
        other.kill();
        other.wait();
    }
}

TEST_F(AppGuardTest, AnApplicationOutlivesItsClient) {
    for (const bool stopped : {false, true}) {
        int words[2];
        ASSERT_EQ(::pipe(words), 0);
        const pid_t client = ::fork();
        if (client == 0) {
            SxProcess process("sh", {"-c", "sleep 0.5; exit 3"});
            process.start();
            process.suspend();
            eventually([&] { return process.getGroup().isSuspended(); });
            const SxString text = process.getGroup().toText();
            const bool written = ::write(words[1], text.ascii(), text.str().size()) > 0;
            ::_exit(written ? 0 : 1);
        }
        ::close(words[1]);
        std::string text(200, '\0');
        text.resize(static_cast<size_t>(::read(words[0], text.data(), text.size())));
        ::close(words[0]);
        ASSERT_EQ(::waitpid(client, nullptr, 0), client);

        const SxProcessGroup group = SxProcessGroup::fromText(text);
        ASSERT_TRUE(group.isAlive()) << text;
        EXPECT_TRUE(group.isSuspended()) << "the client's end neither resumes nor ends it";
        EXPECT_FALSE(SxProcessGroup(group.getId(), group.getStartTime() - 1).isAlive());
        EXPECT_FALSE(SxProcessGroup::fromText(text.substr(0, text.size() - 1)).isAlive()) << "another boot";

        log.clear();
        ZqCoreAppGuard guard(dir.path("image"), app, group);
        EXPECT_TRUE(guard.isSuspended() && guard.isAdopted());
        guard.start();
        EXPECT_TRUE(guard.isRunning());
        if (stopped) guard.stop();
        guard.resume();
        guard.wait();
        EXPECT_FALSE(group.isAlive());
        EXPECT_EQ(guard.getExitCode(), stopped ? ZqCoreAppGuard::STOPPED_CODE : -1);
        EXPECT_TRUE(logged(stopped ? "was terminated by stop request."
                                   : "the exit code of an adopted application is unknown"));
    }
    for (const char* text : {"", "x", "1 5 -", "0 0 -", "-1 3 -", "99999999 4"})
        EXPECT_FALSE(SxProcessGroup::fromText(text).isAlive()) << text;
}
