#include "DriveRun.h"

#include <csignal>
#include <fstream>

using testing::EndsWith;
using testing::IsEmpty;
using testing::Not;

namespace {

/// An image whose application does what a file says that each test writes.
class OutputRun : public DriveRun {
protected:
    void SetUp() override {
        DriveRun::SetUp();
        if (IsSkipped()) return;
        ::setenv("PLAY_SCRIPT", dir.path("script").c_str(), 1);
        dir.write("game/play.sh", "#!/bin/sh\n. \"$PLAY_SCRIPT\"\n");
        fs::permissions(dir.path("game/play.sh"), fs::perms(0755));
        image = build("image", "erofs", {"--cmd", "{{ZQDRIVE}}/TAVRIN-protected/app/play.sh"});
    }
    Outcome play(const string& script, const std::vector<string>& more = {}) {
        dir.write("script", script);
        std::vector<string> words = {"run", image, "--no-trace"};
        words.insert(words.end(), more.begin(), more.end());
        return run(words);
    }
    /// The logs, oldest first.
    std::vector<string> logs() const {
        std::set<string> paths;
        for (const auto& entry : fs::directory_iterator(image + "/runs")) {
            if (entry.path().extension() == ".log") paths.insert(entry.path());
        }
        return {paths.begin(), paths.end()};
    }
    static string read(const string& file) {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), {}};
    }

    string image;
};

} // namespace

TEST_F(OutputRun, OneThatFailsAtOnceTellsWhy) {
    const string script = "echo out; printf '\\033[31mred\\0end\\n' >&2; exit 3\n";
    const Outcome failed = play(script);
    EXPECT_EQ(failed.code, 0) << failed.err;
    EXPECT_THAT(failed.err, HasSubstr("code 3"));
    EXPECT_THAT(failed.err, HasSubstr("\n  out\n  \\x1b[31mred\\x00end\n"));
    EXPECT_THAT(failed.out, Not(HasSubstr("red")));
    ASSERT_EQ(logs().size(), 1u);
    EXPECT_THAT(failed.err, HasSubstr(logs()[0]));
    EXPECT_EQ(read(logs()[0]), string("out\n\033[31mred\0end\n", 17));
    EXPECT_EQ(play(script, {"--quiet"}).err, "");
    EXPECT_THAT(play("echo so; kill -9 $$\n").err, HasSubstr("\n  so\n"));
    const Outcome shown = play(script, {"--verbose", "--json"});
    EXPECT_THAT(shown.err, HasSubstr(string("out\n\033[31mred\0end\n", 17)));
    EXPECT_THAT(shown.err, Not(HasSubstr("The last lines")));
    EXPECT_EQ(shown.out.front(), '{');
    EXPECT_EQ(logs().size(), 3u) << "the first one goes";
    // The list of records isn't disturbed.
    EXPECT_EQ(run({"stats", "show", image}).err, "");
    for (const char* fine : {"echo well\n", "echo well; sleep 11; exit 4\n"})
        EXPECT_EQ(play(fine, {"--now"}).err.find("  well"), string::npos) << fine;
}

TEST_F(OutputRun, OneThatSaysTooMuchFillsNoDisk) {
    // 220 MB, and a last word.
    const Outcome outcome = play("yes 0123456789 | head -c 220000000; echo the end; exit 1\n");
    EXPECT_THAT(outcome.err, HasSubstr("\n  the end\n"));
    ASSERT_EQ(logs().size(), 1u);
    const string text = read(logs()[0]);
    EXPECT_LT(text.size(), 4'300'000u);
    EXPECT_THAT(text, EndsWith("\nthe end\n"));
    EXPECT_THAT(text, HasSubstr("\n[tavrin: 215805704 bytes are left out here]\n"));
    EXPECT_EQ(text.find('\0'), string::npos);
    EXPECT_EQ(play("echo again\n").code, 0);
    EXPECT_TRUE(read(logs()[0]) == text) << "the next run has changed it";
    // What runs have left there goes with the image.
    EXPECT_EQ(run({"remove", image, "--yes"}).code, 0);
    EXPECT_FALSE(fs::exists(image));
}

TEST_F(OutputRun, ItLivesOnWhereItsRunIsKilled) {
    dir.write("script",
              "touch \"$PLAY_SCRIPT.on\"; while [ -e \"$PLAY_SCRIPT.on\" ]; do echo on; sleep 0.05; done\n"
              "echo last words\n");
    const auto begin = [&] {
        auto process = std::make_unique<SxProcess>(
            SxString(client), SxList<SxString>{"run", SxString(image), "--no-trace"}, SxProcess::Silent);
        process->start();
        return process;
    };
    auto first = begin();
    const auto says = [&] { return !logs().empty() && !read(logs()[0]).empty(); };
    const auto isNoted = [&] { return read(image + "/stream.json").find("\"application\"") != string::npos; };
    ASSERT_TRUE(eventually([&] { return fs::exists(dir.path("script.on")) && says() && isNoted(); }));
    ::kill(first->getId(), SIGKILL);
    first->wait();
    auto second = begin();
    const auto isFollowed = [&] {
        const SxString open = "ls -l /proc/" + SxString(second->getId()) + "/fd | grep -q runs/.*log";
        return SxProcess("sh", {"-c", open}, SxProcess::Silent).run() == 0;
    };
    EXPECT_TRUE(eventually(isFollowed));
    const size_t nBefore = read(logs()[0]).size();
    EXPECT_TRUE(eventually([&] { return read(logs()[0]).size() > nBefore; }));
    fs::remove(dir.path("script.on"));
    EXPECT_EQ(second->wait(), 0);
    ASSERT_EQ(logs().size(), 1u);
    EXPECT_THAT(read(logs()[0]), EndsWith("last words\n"));
}
