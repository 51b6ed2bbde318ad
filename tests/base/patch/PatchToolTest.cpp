#include "BaseTest.h"
#include "Builders.h"
#include "SxTime.h"
#include "ZqDiffTask.h"
#include "ZqLog.h"
#include "ZqPatch.h"
#include "ZqPatchTask.h"
#include "ZqSysEnv.h"

#include <csignal>
#include <mutex>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using Compression = ZqPatchCompression;
using Memory = ZqPatchMemory;

/// The folder "dir" with the files "old" and "new", and a folder of tools that a test makes or the real ones.
class PatchToolTest : public testing::Test {
protected:
    PatchToolTest() {
        ZqLog::setSink([this](const SxString&, const SxString& text) {
            const std::lock_guard lock(logMutex);
            log += text.str() + "\n";
        });
        dir.write("old", "old bytes");
        dir.write("new", "new bytes");
        ZqSysEnv::setRTERootDir(dir.path("tools"));
    }
    ~PatchToolTest() override {
        ZqSysEnv::setRTERootDir("");
        ZqLog::setSink({});
    }

    /// Gives whether the real tools are there.
    static bool useRealTools() {
        const char* bin = std::getenv("TAVRIN_BIN");
        if (!bin) return false;
        const fs::path folder = fs::path(bin).parent_path();
        ZqSysEnv::setRTERootDir(folder.string());
        return fs::exists(folder / "hdiffz") && fs::exists(folder / "hpatchz");
    }
    /// Puts scripts into the place of both tools.
    void makeTools(const std::string& script) const {
        for (const char* name : {"tools/hdiffz", "tools/hpatchz"})
            fs::permissions(dir.write(name, "#!/bin/sh\n" + script), fs::perms::owner_all);
    }
    ZqDiffTask diffTask(Compression::Type compression, int level, Memory::Type memory = Memory::InMemory) {
        return ZqDiffTask(file("old"), file("new"), file("patch"), memory, compression, level);
    }
    SxString file(const char* name) const { return dir.path(name); }

    const TempDir dir;
    std::mutex logMutex;
    std::string log;
};

/// The process whose id a script has written.
bool isGone(const std::string& pid) {
    std::ifstream in("/proc/" + pid + "/stat");
    std::string line;
    return !std::getline(in, line) || line[line.rfind(')') + 2] == 'Z';
}

constexpr const char* NO_TOOLS = "hdiffz and hpatchz are not there: scripts/build-patch-tools.sh says why";
/// Says which process it is, and stands still as that.
constexpr const char* STANDS_STILL = "echo $$ >started.new; mv started.new started; exec sleep 100\n";

} // namespace

TEST_F(PatchToolTest, RoundTrips) {
    if (!useRealTools()) GTEST_SKIP() << NO_TOOLS;
    TestRandom random;
    TRACE_SEED(random);
    const std::string oldBytes = random.bytes(200'000);
    std::string newBytes = oldBytes.substr(50'000) + std::string(30'000, 'x') + random.bytes(1000);
    newBytes[7000] ^= 1;
    const struct {
        Compression::Type compression;
        int level;
        Memory::Type memory;
        std::string oldBytes, newBytes, streamStart;
    } cases[] = {
        {Compression::LZMA, 0, Memory::InMemory, oldBytes, newBytes, "HDIFF13&lzma2"},
        {Compression::LZMA, 9, Memory::Streaming, oldBytes, newBytes, "HDIFF13&lzma2"},
        {Compression::ZLIB, 1, Memory::InMemory, oldBytes, newBytes, "HDIFF13&zlib"},
        {Compression::BZIP2, 9, Memory::InMemory, oldBytes, newBytes, "HDIFF13&bz2"},
        {Compression::LZ4HC, 12, Memory::InMemory, oldBytes, newBytes, "HDIFF13&lz4"},
        {Compression::ZSTD, 17, Memory::InMemory, oldBytes, newBytes, "HDIFF13&zstd"},
        {Compression::ZSTD, 0, Memory::Streaming, oldBytes, newBytes, "HDIFF13&zstd"},
        {Compression::RAW, 99, Memory::InMemory, oldBytes, newBytes, "HDIFF13"},
        {Compression::REPLACE, -1, Memory::Streaming, oldBytes, newBytes, newBytes},
        {Compression::ZSTD, 3, Memory::InMemory, "", newBytes, "HDIFF13&zstd"},
        {Compression::ZSTD, 3, Memory::InMemory, oldBytes, "", "HDIFF13"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.compression) + " of level " + std::to_string(c.level) + ", from " +
                     std::to_string(c.oldBytes.size()) + " to " + std::to_string(c.newBytes.size()));
        dir.write("old", c.oldBytes);
        dir.write("new", c.newBytes);
        dir.write("patch", "left by another run");
        dir.write("made", "left by another run");
        ZqPatch::createPatch(file("old"), file("new"), file("patch"), c.memory, c.compression, c.level);
        EXPECT_THAT(dir.read("patch"), StartsWith(c.streamStart));
        const bool replaces = c.compression == Compression::REPLACE;
        EXPECT_EQ(dir.exists("new"), !replaces);
        if (!replaces && !c.oldBytes.empty()) {
            EXPECT_LT(fs::file_size(dir.path("patch")), 40'000U) << "the old file isn't made use of";
        }

        ZqPatch::applyPatch(file("old"), file("made"), file("patch"), c.compression);
        EXPECT_EQ(dir.read("made"), c.newBytes);
        EXPECT_EQ(dir.read("old"), c.oldBytes);
        EXPECT_EQ(dir.exists("patch"), !replaces);
    }
    EXPECT_THAT(log, HasSubstr("task Compute_Diff: 100.0 %"));
}

TEST_F(PatchToolTest, ADamagedStreamFails) {
    if (!useRealTools()) GTEST_SKIP() << NO_TOOLS;
    ZqPatch::createPatch(file("old"), file("new"), file("patch"), Memory::InMemory, Compression::ZSTD, 3);
    const std::string stream = dir.read("patch");
    for (const std::string& damaged :
         {stream.substr(0, stream.size() - 1), std::string("HDIFF13&zs"), std::string()}) {
        dir.write("patch", damaged);
        EXPECT_THAT(
            failureOf(
                [&] { ZqPatch::applyPatch(file("old"), file("made"), file("patch"), Compression::ZSTD); }),
            StartsWith("Could not apply patch.: Patch task failed: Could not execute patch process "));
    }
    EXPECT_THAT(log, HasSubstr("hpatchz' says: "));
}

TEST_F(PatchToolTest, OptionsAndLevels) {
    makeTools("echo no room >&2; exit 28\n");
    const std::string nThreads = std::to_string(std::max<int64>(4, SxSystemThread::getNCores())),
                      files = " " + dir.path("old") + " " + dir.path("new") + " " + dir.path("patch");
    const struct {
        Compression::Type compression;
        std::string option, name;
        int minLevel, maxLevel;
    } methods[] = {{Compression::LZMA, "lzma2", "lzma", 0, 9},
                   {Compression::ZLIB, "zlib", "zlib", 1, 9},
                   {Compression::BZIP2, "bzip2", "bzip2", 1, 9},
                   {Compression::LZ4HC, "lz4hc", "lz4hc", 3, 12},
                   {Compression::ZSTD, "zstd", "zstd", 0, 22}};
    const auto ran = [&](const std::string& options) {
        return "Failed to compute patch: Could not execute diff process " + dir.path("tools/hdiffz") +
               " with args :  " + options + " -p-" + nThreads + files + " Exit code : 28";
    };
    for (const auto& m : methods) {
        for (const int level : {m.minLevel, m.maxLevel}) {
            ZqDiffTask task = diffTask(m.compression, level, Memory::InMemory);
            EXPECT_EQ(failureOf(task), ran("-m-6 -c-" + m.option + "-" + std::to_string(level)));
        }
        for (const int level : {m.minLevel - 1, m.maxLevel + 1}) {
            ZqDiffTask task = diffTask(m.compression, level);
            EXPECT_EQ(failureOf(task), "Failed to compute patch: Invalid compression level " +
                                           std::to_string(level) + " for " + m.name);
        }
    }
    ZqDiffTask raw = diffTask(Compression::RAW, -7, Memory::Streaming);
    EXPECT_EQ(failureOf(raw), ran("-s-64"));
    EXPECT_FALSE(raw.getException().hasTag(SxException::STOPPED));
    EXPECT_THAT(log, HasSubstr("ZqDiffTask::main : '" + dir.path("tools/hdiffz") + "' says: no room"));

    dir.write("patch", "");
    EXPECT_EQ(
        failureOf([&] { ZqPatch::applyPatch(file("old"), file("new"), file("patch"), Compression::RAW); }),
        "Could not apply patch.: Patch task failed: Could not execute patch process " +
            dir.path("tools/hpatchz") + " with args :  " + dir.path("old") + " " + dir.path("patch") + " " +
            dir.path("new") + " Exit code : 28");
}

TEST_F(PatchToolTest, WhatIsMissingIsNamedInOrder) {
    const auto diff = [&](Compression::Type compression) {
        ZqDiffTask task = diffTask(compression, 3);
        return failureOf(task);
    };
    const auto patch = [&] {
        ZqPatchTask task(file("old"), file("made"), file("patch"), Compression::REPLACE);
        return failureOf(task);
    };
    const auto missing = [&](const char* name) { return "File " + dir.path(name) + " not found"; };
    const auto noTool = [&](const std::string& does, const char* name) {
        return "Patch " + does + " tool not found in '" + dir.path(name) +
               "'. Please reinstall the software.";
    };

    // Also REPLACE, which runs no tool, isn't done without it.
    dir.write("patch", "former");
    EXPECT_EQ(diff(Compression::REPLACE), noTool("creation", "tools/hdiffz"));
    EXPECT_FALSE(dir.exists("patch"));
    dir.write("patch", "former");
    dir.write("made", "former");
    EXPECT_EQ(patch(), noTool("applying", "tools/hpatchz"));
    EXPECT_FALSE(dir.exists("made"));

    fs::remove(dir.path("new"));
    EXPECT_EQ(diff(Compression::ZSTD), missing("new"));
    EXPECT_TRUE(dir.exists("patch")) << "removed before the inputs were there";
    EXPECT_EQ(failureOf([&] {
                  ZqPatch::createPatch(file("old"), file("new"), file("patch"), Memory::InMemory,
                                       Compression::ZSTD, 3);
              }),
              "Failed to create diff.: " + missing("new"));
    fs::remove(dir.path("patch"));
    dir.write("made", "former");
    EXPECT_EQ(patch(), missing("patch"));
    EXPECT_FALSE(dir.exists("made"));
    fs::remove(dir.path("old"));
    EXPECT_EQ(diff(Compression::ZSTD), missing("old"));
    EXPECT_EQ(patch(), missing("old"));

    dir.write("old", "");
    dir.write("new", "");
    dir.write("tools/hdiffz", "no program");
    EXPECT_THAT(
        failureOf([&] {
            ZqPatch::createPatch(file("old"), file("new"), file("patch"), Memory::InMemory, Compression::ZSTD,
                                 3);
        }),
        AllOf(StartsWith("Failed to create diff.: Could not compute diff.: Failed to compute patch: "),
              HasSubstr("Permission denied")));
}

TEST_F(PatchToolTest, AStopKillsTheToolOrKeepsItFromStarting) {
    makeTools("cd '" + dir.path() + "'\n" + STANDS_STILL);
    dir.write("patch", "");
    for (const bool early : {true, false}) {
        ZqDiffTask diff = diffTask(Compression::ZSTD, 3);
        ZqPatchTask patch(file("old"), file("made"), file("new"), Compression::ZSTD);
        const auto run = [&](SxSystemThread* task, const std::function<void()>& stop) {
            fs::remove(dir.path("started"));
            if (early) stop();
            task->start(6);
            if (!early) {
                ASSERT_TRUE(SxWait::pass(30'000, [&] { return dir.exists("started"); }));
                stop();
            }
            task->wait();
            EXPECT_NE(dir.exists("started"), early);
            ASSERT_TRUE(task->hasException());
            EXPECT_THAT(task->getException().what(), testing::EndsWith(" Exit code : 137"));
            EXPECT_TRUE(task->getException().hasTag(SxException::STOPPED));
        };
        run(&diff, [&] { diff.stop(); });
        run(&patch, [&] { patch.stop(); });
    }
}

TEST_F(PatchToolTest, TheToolDiesWithItsKilledClient) {
    makeTools("cd '" + dir.path() + "'\n" + STANDS_STILL);
    dir.write("patch", "");
    const pid_t client = ::fork();
    if (client == 0) {
        ZqPatchTask task(file("old"), file("made"), file("patch"), Compression::ZSTD);
        task.start(6);
        task.wait();
        ::_exit(0);
    }
    const bool started = SxWait::pass(30'000, [&] { return dir.exists("started"); });
    ::kill(client, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(client, &status, 0), client);
    ASSERT_TRUE(started);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the client didn't wait for its tool";
    const std::string tool = dir.read("started").substr(0, dir.read("started").find('\n'));
    EXPECT_TRUE(SxWait::pass(30'000, [&] { return isGone(tool); })) << tool;
}
