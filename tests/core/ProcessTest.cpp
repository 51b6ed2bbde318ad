#include "SxException.h"
#include "SxProcess.h"
#include "SxTime.h"
#include "TempDir.h"

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gmock/gmock.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using testing::ThrowsMessage;

namespace {

class ProcessTest : public testing::Test {
protected:
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

/// A shell that runs a script in a folder.
class Shell : public SxProcess {
public:
    explicit Shell(const std::string& script, const std::string& folder = "")
        : SxProcess("sh", {"-c", script}) {
        setWorkingDirectory(folder);
    }
};

} // namespace

TEST_F(ProcessTest, StartFailuresAreRaisedInTheParent) {
    const std::string script = dir.write("notExecutable", "#!/bin/sh\n");
    const struct {
        std::string program, workDir, text;
    } cases[] = {{folder + "/missing", "", "No such file"},
                 {"no-such-program-here", "", "No such file"},
                 {script, "", "Permission denied"},
                 {"/bin/sh", folder + "/gone", "gone"}};
    for (const auto& c : cases) {
        SxProcess process(c.program, {"-c", "exit 0"});
        process.setWorkingDirectory(c.workDir);
        EXPECT_THAT([&] { process.start(); },
                    ThrowsMessage<SxException>(AllOf(HasSubstr(c.program), HasSubstr(c.text))));
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a zombie is left";
    }
}

TEST_F(ProcessTest, ArgumentsFolderAndEmptyInput) {
    Shell process("read x; printf '%s|' \"$?\" \"$PWD\" \"$@\" > out", folder);
    process.start({"sh", "a b", "", "$c"});
    EXPECT_EQ(process.wait(), 0);
    EXPECT_EQ(dir.read("out"), "1|" + folder + "|a b||$c|");

    // A relative program counts from our folder, not from that of the process.
    const fs::path ours = fs::current_path();
    fs::permissions(dir.write("tool", "#!/bin/sh\npwd > from\n"), fs::perms::owner_all);
    fs::create_directory(dir.path("sub"));
    fs::current_path(folder);
    SxProcess relative("./tool");
    relative.setWorkingDirectory(folder + "/sub");
    EXPECT_EQ(relative.run(), 0);
    fs::current_path(ours);
    EXPECT_EQ(dir.read("sub/from"), folder + "/sub\n");
}

TEST_F(ProcessTest, ChildGetsNoStateOfOurs) {
    const int open = ::open("/dev/null", O_RDONLY);
    std::signal(SIGPIPE, SIG_IGN);
    sigset_t blocked, oldMask;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &blocked, &oldMask);
    SxProcess process("sleep", {"100"}); // not a shell, which would clear the mask itself
    process.start();
    pthread_sigmask(SIG_SETMASK, &oldMask, nullptr);
    std::signal(SIGPIPE, SIG_DFL);
    close(open);
    const fs::path state = "/proc/" + std::to_string(process.getId());
    // The loader has files open for a moment.
    EXPECT_TRUE(SxWait::pass(10000, [&] {
        return std::distance(fs::directory_iterator(state / "fd"), fs::directory_iterator()) == 3;
    }));
    std::ifstream status(state / "status");
    std::string label;
    uint64 mask = 1;
    while (status >> label && label != "SigBlk:")
        continue;
    EXPECT_TRUE(status >> std::hex >> mask && mask == 0) << label << mask;
    EXPECT_TRUE(status >> label >> mask && (mask & (1ULL << (SIGPIPE - 1))) == 0) << label << mask;
    process.kill();
}

TEST_F(ProcessTest, AnotherThreadKillsAndAsksDuringAWait) {
    for (int i = 0; i < 20; ++i) {
        Shell process("sleep 100");
        process.start();
        std::thread other([&process] {
            while (process.exitStatus() == -1)
                process.kill();
        });
        EXPECT_EQ(process.wait(), 128 + SIGKILL);
        other.join();
    }
    Shell killedBefore("exit 0");
    killedBefore.kill();
    EXPECT_EQ(killedBefore.run(), 128 + SIGKILL);
}

TEST_F(ProcessTest, DestructorNeitherEndsNorLeavesAZombie) {
    int ended = 0, running = 0;
    {
        Shell first("exit 3");
        first.start();
        ended = first.getId();
        ASSERT_TRUE(becomes(ended, "Z"));
        Shell second("until test -e go; do sleep 0.01; done", folder);
        second.start();
        running = second.getId();
    }
    EXPECT_EQ(stateOf(ended), '-');
    EXPECT_NE(stateOf(running), '-');
    dir.write("go", "x");
    EXPECT_TRUE(becomes(running, "-"));
}

TEST_F(ProcessTest, ErrorsAreKeptUpToALimit) {
    SxProcess process("sh", {"-c", "echo out; echo bad >&2; exit 2"}, SxProcess::KeepError);
    EXPECT_EQ(process.getErrorText(), "");
    EXPECT_EQ(process.run(), 2);
    EXPECT_EQ(process.getErrorText(), "bad\n");
    EXPECT_EQ(process.getErrorText(), "bad\n");

    // Nobody reads while it runs, and it ends all the same.
    SxProcess chatty("sh", {"-c", "head -c 1000000 /dev/zero >&2; exit 3"}, SxProcess::KeepError);
    EXPECT_EQ(chatty.run(), 3);
    const size_t n = chatty.getErrorText().str().size();
    EXPECT_TRUE(n >= 4096 && n <= 65536) << n;
}

TEST_F(ProcessTest, EndsWithTheThreadThatStartedItWhereThatIsSet) {
    for (const bool ends : {true, false}) {
        SxProcess process("sleep", {"100"});
        process.setEndsWithStarter(ends);
        std::thread([&process] { process.start(); }).join();
        if (!ends) {
            EXPECT_TRUE(process.isRunning());
            process.kill();
        }
        EXPECT_EQ(process.wait(), 128 + SIGKILL);
    }
}
