#include "StreamRun.h"
#include "TestApplication.h"
#include "TestDisplay.h"
#include "ZqX11Desktop.h"

#include <unistd.h>

namespace {

constexpr uint64 BLOCK = 4096;
constexpr int N_READERS = 20;
/// Several times what an answer may take.
constexpr int64 SILENCE_MS = 3500;

/// Reads random blocks of `file` until all have had their time, and counts those that aren't as in `right`.
class Reader {
public:
    Reader(const string& file, const string& right_, unsigned seed, int64 ms)
        : right(right_),
          fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC)),
          thread([this, seed, ms] { read(seed, ms); }) {}
    ~Reader() {
        thread.join();
        ::close(fd);
    }

    std::atomic<int> nRead{0}, nWrong{0};
    std::atomic<bool> ended{false};

private:
    void read(unsigned seed, int64 ms) {
        TestRandom random(seed);
        const int64 endNs = SxClock::get().steadyNs() + ms * 1'000'000;
        string block(BLOCK, '\0');
        while (SxClock::get().steadyNs() < endNs) {
            const uint64 at = random.between(0, right.size() / BLOCK - 1) * BLOCK;
            const bool isRight =
                ::pread(fd, block.data(), BLOCK, static_cast<off_t>(at)) == static_cast<ssize_t>(BLOCK) &&
                right.compare(at, BLOCK, block) == 0;
            ++nRead;
            if (!isRight) ++nWrong;
        }
        ended = true;
    }

    const string& right;
    const int fd;
    std::thread thread;
};

} // namespace

TEST_F(StreamRun, NoUnderflowOfManyReadersIsLost) {
    server->setRate(2'000'000);
    server->setLatency(5);
    Client feeder(client, {"mount", got, "--url", server->getUrl().str()}, dir.path("fed"));
    ASSERT_TRUE(SxWait::pass(20'000, [&] { return statusOf(got).ready; })) << feeder.says();
    const string file = statusOf(got).mountPath.str() + "/TAVRIN-protected/app/big.pak";
    const string right = dir.read("game/big.pak");
    std::vector<std::unique_ptr<Reader>> readers;
    for (unsigned i = 0; i < N_READERS; ++i)
        readers.push_back(std::make_unique<Reader>(file, right, i, 6000));
    for (const auto& reader : readers)
        EXPECT_TRUE(SxWait::pass(30'000, [&] { return reader->ended.load(); })) << feeder.says();
    EXPECT_GT(server->getNBytes("img.zqf"), 10 * 204'800u)
        << "nothing was read before the download came to it";
    done({"umount", got}); // which would also end a read that was lost
    EXPECT_EQ(feeder.end(), 0) << feeder.says();
    for (const auto& reader : readers)
        EXPECT_EQ(reader->nWrong, 0) << "of " << reader->nRead;
}

namespace {

/// A desktop on which the window of the streamed application stands, which is minimised for underflows.
class WindowRun : public StreamRun {
protected:
    void SetUp() override {
        StreamRun::SetUp();
        if (IsSkipped()) return;
        const string reason = TestDisplay::missing();
        if (!reason.empty()) GTEST_SKIP() << reason;
        display = std::make_unique<TestDisplay>();
        desktop = std::make_unique<ZqX11Desktop>();
        application = std::make_unique<TestApplication>();
        TestApplication::Look look;
        look.title = "Adventure";
        window = application->show(look);
        ASSERT_TRUE(eventually([this] { return desktop->findByTitle("Adventure") == window; }));
        ZqAppParams app(SxString(served + "/"));
        app.window = "Adventure";
        app.underflowDelay = 0;
        app.suspendDrive = true;
        app.write();
        server->setRate(1'000'000);
        hold();
        pause();
    }
    bool isIconic() { return desktop->isIconic(window); }
    /// Waits for the application to have read what it does before its pause.
    bool hasReadSome() {
        const auto has = [this] {
            return fs::exists(played + ".half") && fs::file_size(played + ".half") > 1'000'000;
        };
        return SxWait::pass(30'000, has);
    }
    void cutOff() {
        server->stop();
        resume();
    }
    void comeBack() {
        server->setRate(0);
        server->start();
    }

    std::unique_ptr<TestDisplay> display;
    std::unique_ptr<ZqX11Desktop> desktop;
    std::unique_ptr<TestApplication> application;
    ZqDesktop::Handle window = 0;
};

} // namespace

TEST_F(StreamRun, ALauncherThatReadsForItsGameGoesOn) {
    const string game = "adventure-" + std::to_string(::getpid());
    fs::copy_file(fs::canonical("/bin/sh"), dir.path(game));
    fs::permissions(dir.write("launcher",
                              "#!/bin/sh\n"
                              "cd \"$1\"; cat textures/deep/* >/dev/null; touch $PLAY_OUT.paused\n"
                              "while [ -e $PLAY_OUT.pause ]; do sleep 0.05; done\n"
                              "cat big.pak >/dev/null; \"$2\" -c 'sleep 0.3; exit 7'\n"),
                    fs::perms(0755));
    ZqAppParams app(SxString(served + "/"));
    app.cmd = dir.path("launcher");
    app.args = {"{{ZQDRIVE}}/TAVRIN-protected/app", SxString(dir.path(game))};
    app.name = SxString(game);
    app.delay = 0;
    app.suspendProc = true;
    app.write();
    server->setRate(1'000'000);
    pause();
    const auto player = start();
    ASSERT_TRUE(SxWait::pass(30'000, [&] { return hasPaused(); })) << player->says();
    server->stop();
    resume();
    const auto logOf = [this] { return dir.read("state/tavrin/log/tavrin.log"); };
    ASSERT_TRUE(
        SxWait::pass(30'000, [&] { return logOf().find("Critical instant underflow") != string::npos; }));
    // There is no game yet that could be suspended, and each look for one would hold up the run.
    EXPECT_FALSE(
        SxWait::pass(3'000, [&] { return logOf().find("ZqCoreAppGuard::suspend: ") != string::npos; }));
    server->setRate(0);
    server->start();
    EXPECT_EQ(player->end(), 0) << player->says();
    EXPECT_THAT(player->says(), HasSubstr("The application has ended with code 7"));
}

TEST_F(WindowRun, ItIsOutOfTheWayForALongUnderflowOnly) {
    const auto player = start();
    // As long as the download goes on, it stays.
    ASSERT_TRUE(hasReadSome()) << player->says();
    EXPECT_FALSE(isIconic());
    cutOff();
    EXPECT_TRUE(SxWait::pass(60'000, [&] { return isIconic(); })) << player->says();
    EXPECT_FALSE(hasPlayed());
    comeBack();
    EXPECT_TRUE(SxWait::pass(30'000, [&] { return !isIconic(); })) << player->says();
    EXPECT_TRUE(SxWait::pass(30'000, [&] { return hasPlayed(); })) << player->says();
    release();
    EXPECT_EQ(player->end(), 0) << player->says();
    EXPECT_THAT(player->says(), Not(HasSubstr("underflows                0,")));
    expectPlayed();
}

TEST_F(WindowRun, ItComesBackAfterASilentService) {
    ::setenv("TAVRIN_ANSWER_S", "1", 1);
    const auto player = start();
    ::unsetenv("TAVRIN_ANSWER_S");
    ASSERT_TRUE(hasReadSome()) << player->says();
    cutOff();
    ASSERT_TRUE(SxWait::pass(60'000, [&] { return isIconic(); })) << player->says();
    const auto service = static_cast<pid_t>(statusOf(got).servicePid);
    ASSERT_GT(service, 0);
    ::kill(service, SIGSTOP);
    EXPECT_FALSE(SxWait::pass(SILENCE_MS, [&] { return !isIconic(); })) << player->says();
    ::kill(service, SIGCONT);
    comeBack();
    EXPECT_TRUE(SxWait::pass(30'000, [&] { return !isIconic(); })) << player->says();
    EXPECT_TRUE(SxWait::pass(30'000, [&] { return hasPlayed(); })) << player->says();
    release();
    EXPECT_EQ(player->end(), 0) << player->says();
    EXPECT_THAT(player->says(), HasSubstr("underflows                1,"));
    expectPlayed();
}
