#include "SxException.h"
#include "SxProcess.h"
#include "SxTime.h"
#include "TempDir.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

class ProcessTest : public testing::Test {
protected:
    /// Waits until a script has written the file.
    std::string awaitFile(const std::string& name) const {
        std::string text;
        const auto written = [&] { return dir.exists(name) && !(text = dir.read(name)).empty(); };
        EXPECT_TRUE(SxWait::pass(10000, written)) << name;
        return text;
    }

    const TempDir dir;
    const std::string folder = dir.path();
};

/// The state letter of a process in the system, '-' where it is gone.
char stateOf(int pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/stat");
    std::string line;
    if (!std::getline(in, line)) return '-';
    return line[line.rfind(')') + 2];
}

bool becomes(int pid, const std::string& states) {
    return SxWait::pass(10000, [&] { return states.find(stateOf(pid)) != std::string::npos; });
}

SxList<SxString> shell(const std::string& script) {
    return {"-c", script};
}

} // namespace

TEST_F(ProcessTest, ExitCodes) {
    struct Case {
        const char* script;
        int code;
    };
    for (const Case& c : {Case{"exit 0", 0}, Case{"exit 255", 255}, Case{"kill -TERM $$", 128 + SIGTERM},
                          Case{"kill -KILL $$", 128 + SIGKILL}}) {
        SCOPED_TRACE(c.script);
        SxProcess process("/bin/sh", shell(c.script));
        EXPECT_EQ(process.exitStatus(), -1);
        EXPECT_EQ(process.run(), c.code);
        EXPECT_EQ(process.exitStatus(), c.code);
        EXPECT_EQ(process.wait(), c.code);
        EXPECT_FALSE(process.isRunning());
        EXPECT_EQ(stateOf(process.getId()), '-');
        EXPECT_THROW(process.start(), SxException);
    }
    EXPECT_THROW(SxProcess("/bin/sh").wait(), SxException);
}

TEST_F(ProcessTest, StartFailuresAreRaisedInTheParent) {
    const std::string script = dir.write("notExecutable", "#!/bin/sh\n");
    struct Case {
        std::string program, workDir, text;
    };
    for (const Case& c :
         {Case{folder + "/missing", "", "No such file"}, Case{"no-such-program-here", "", "No such file"},
          Case{script, "", "Permission denied"}, Case{"/bin/sh", folder + "/gone", "gone"}}) {
        SCOPED_TRACE(c.program + " in " + c.workDir);
        SxProcess process(c.program, shell("exit 0"));
        process.setWorkingDirectory(c.workDir);
        try {
            process.start();
            FAIL() << "started";
        } catch (const SxException& e) {
            EXPECT_NE(e.toString().find(c.text), -1) << e.toString();
            EXPECT_NE(e.toString().find(c.program), -1) << e.toString();
        }
        EXPECT_FALSE(process.isRunning());
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a zombie is left";
    }
    EXPECT_THROW(SxProcess("/bin/sh", {SxString(std::string("a\0b", 3))}).start(), SxException);
}

TEST_F(ProcessTest, ArgumentsFolderAndEmptyInput) {
    SxProcess process("sh", shell("read x; printf '%s|' \"$?\" \"$PWD\" \"$@\" > out"), SxProcess::Silent);
    process.setWorkingDirectory(folder);
    process.start({"sh", "a b", "", "$c"});
    EXPECT_EQ(process.wait(), 0);
    EXPECT_EQ(dir.read("out"), "1|" + folder + "|a b||$c|");

    // A relative program counts from our folder, not from that of the process.
    ASSERT_EQ(chmod(dir.write("tool", "#!/bin/sh\npwd > from\n").c_str(), 0755), 0);
    char ours[4096];
    ASSERT_TRUE(getcwd(ours, sizeof ours));
    ASSERT_EQ(chdir(folder.c_str()), 0);
    mkdir("sub", 0755);
    SxProcess relative("./tool");
    relative.setWorkingDirectory(folder + "/sub");
    EXPECT_EQ(relative.run(), 0);
    ASSERT_EQ(chdir(ours), 0);
    EXPECT_EQ(dir.read("sub/from"), folder + "/sub\n");
}

TEST_F(ProcessTest, ChildGetsNoStateOfOurs) {
    const int open = ::open("/dev/null", O_RDONLY);
    ASSERT_GE(open, 0);
    const auto oldHandler = std::signal(SIGPIPE, SIG_IGN);
    sigset_t blocked, oldMask;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, &oldMask);
    SxProcess process(
        "/bin/sh",
        shell("ls /proc/self/fd | wc -l > fds; grep -E 'SigBlk|SigIgn' /proc/self/status > signals;"
              "ps -o pgid= -p $$ > group; echo $$ > id"));
    process.setWorkingDirectory(folder);
    EXPECT_EQ(process.run(), 0);
    pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
    std::signal(SIGPIPE, oldHandler);
    close(open);
    // The three, and the one that ls reads the folder through.
    EXPECT_EQ(std::stoi(dir.read("fds")), 4);
    EXPECT_EQ(std::stoi(dir.read("group")), std::stoi(dir.read("id")));
    std::istringstream signals(dir.read("signals"));
    std::string label, mask;
    signals >> label >> mask;
    EXPECT_EQ(std::stoull(mask, nullptr, 16), 0U) << label;
    signals >> label >> mask;
    EXPECT_EQ(std::stoull(mask, nullptr, 16) & (1ULL << (SIGPIPE - 1)), 0U) << label;
}

TEST_F(ProcessTest, SuspendResumeAndKillReachTheGroup) {
    SxProcess process("/bin/sh", shell("sleep 100 & echo $! > child; wait"));
    process.setWorkingDirectory(folder);
    process.start();
    const int child = std::stoi(awaitFile("child"));
    process.suspend();
    EXPECT_TRUE(becomes(child, "T"));
    EXPECT_TRUE(becomes(process.getId(), "T"));
    EXPECT_TRUE(process.isRunning());
    process.resume();
    EXPECT_TRUE(becomes(child, "S"));
    process.suspend();
    process.kill();
    EXPECT_EQ(process.wait(), 128 + SIGKILL);
    EXPECT_TRUE(becomes(child, "-Z"));
    process.kill();
    process.suspend();
}

TEST_F(ProcessTest, KillReachesWhatALauncherLeftBehind) {
    SxProcess launcher("/bin/sh", shell("sleep 100 & echo $! > child"));
    launcher.setWorkingDirectory(folder);
    launcher.start();
    const int child = std::stoi(awaitFile("child"));
    ASSERT_TRUE(SxWait::pass(10000, [&] { return !launcher.isRunning(); }));
    EXPECT_EQ(launcher.exitStatus(), 0);
    EXPECT_TRUE(becomes(child, "S"));
    launcher.kill();
    EXPECT_TRUE(becomes(child, "-Z"));
    EXPECT_EQ(launcher.wait(), 0);
}

TEST_F(ProcessTest, KillAheadOfTheStartKeepsItFromRunning) {
    SxProcess process("/bin/sh", shell("echo > ran"));
    process.setWorkingDirectory(folder);
    process.kill();
    EXPECT_EQ(process.run(), 128 + SIGKILL);
    EXPECT_FALSE(dir.exists("ran"));
}

TEST_F(ProcessTest, AnotherThreadKillsAndAsksDuringAWait) {
    for (int i = 0; i < 20; ++i) {
        SxProcess process("/bin/sh", shell("sleep 100"));
        process.start();
        std::thread other([&process] {
            while (process.exitStatus() == -1)
                process.kill();
        });
        EXPECT_EQ(process.wait(), 128 + SIGKILL);
        other.join();
    }
}

TEST_F(ProcessTest, DestructorNeitherEndsNorLeavesAZombie) {
    int ended = 0, running = 0;
    {
        SxProcess first("/bin/sh", shell("exit 3"));
        first.start();
        ended = first.getId();
        ASSERT_TRUE(becomes(ended, "Z"));
        SxProcess second("/bin/sh", shell("until test -e go; do sleep 0.01; done"));
        second.setWorkingDirectory(folder);
        second.start();
        running = second.getId();
    }
    EXPECT_EQ(stateOf(ended), '-');
    EXPECT_NE(stateOf(running), '-');
    dir.write("go", "x");
    EXPECT_TRUE(becomes(running, "-"));
}
