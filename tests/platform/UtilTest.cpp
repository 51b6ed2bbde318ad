#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxProcess.h"
#include "SxTime.h"
#include "TempDir.h"
#include "ZqAvg.h"
#include "ZqLog.h"
#include "ZqRegistry.h"
#include "ZqSilentProcess.h"
#include "ZqSysEnv.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

class UtilTest : public testing::Test {
public:
    ~UtilTest() override {
        ZqLog::setSink({});
        ZqLog::setFile("");
        ZqLog::setVerbose(false);
    }

protected:
    std::vector<std::string> lines(const std::string& name) const {
        std::vector<std::string> result;
        std::ifstream in(folder / name);
        for (std::string line; std::getline(in, line);)
            result.push_back(line);
        return result;
    }

    const TempDir dir;
    const fs::path folder = dir.path();
};

} // namespace

TEST_F(UtilTest, LogLineCannotBeForged) {
    struct Case {
        std::string text, expected;
    };
    std::string seenTag, seenText;
    ZqLog::setSink([&](const SxString& tag, const SxString& text) {
        seenTag = tag.str();
        seenText = text.str();
    });
    for (const Case& c : {
             Case{"plain {} %s C:\\x äöü€😀", "plain {} %s C:\\x äöü€😀"},
             Case{"ends\n", "ends"},
             Case{"two\n\n", "two\\n"},
             Case{"a\nb\r\tc", "a\\nb\\r\\tc"},
             Case{"\x1b[31m\x7f", "\\x1b[31m\\x7f"},
             Case{std::string("nul\0x", 5), "nul\\x00x"},
             Case{"nel \xC2\x85 csi \xC2\x9B ls \xE2\x80\xA8", "nel \\u0085 csi \\u009b ls \\u2028"},
             Case{"latin1 \xE4 cut \xE2\x80", "latin1 \\xe4 cut \\xe2\\x80"},
             Case{"overlong \xC0\x8A", "overlong \\xc0\\x8a"},
             Case{"\n", ""},
         }) {
        zqLogMsg("base\n", c.text);
        EXPECT_EQ(seenText, c.expected);
        EXPECT_EQ(seenTag, "base\\n");
    }
}

TEST_F(UtilTest, LogFileHoldsOneLineForEachMessageOfAnyThread) {
    constexpr int N_MESSAGES = 200;
    const SxString file = (folder / "state/log/tavrin.log").string();
    ZqLog::setFile(file);
    EXPECT_FALSE(fs::exists(folder / "state"));
    std::vector<std::thread> threads;
    threads.reserve(3);
    for (int t = 0; t < 3; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < N_MESSAGES; ++i)
                zqLogMsg("base", "thread " + SxString(t) + " {} message " + i);
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const std::vector<std::string> written = lines("state/log/tavrin.log");
    EXPECT_EQ(written.size(), 3U * N_MESSAGES);
    const std::regex form(
        R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} \[base\] \[[^\]]+/\d+\] thread \d \{\} message \d+)");
    for (const std::string& line : written)
        ASSERT_TRUE(std::regex_match(line, form)) << line;
}

TEST_F(UtilTest, LogRotatesAndItsDefaultFollowsTheEnvironment) {
    ASSERT_EQ(setenv("XDG_STATE_HOME", folder.c_str(), 1), 0);
    EXPECT_STREQ(ZqLog::getFile().ascii(), (folder / "tavrin/log/tavrin.log").c_str());
    const SxString big = std::string(1 << 20, 'x');
    for (int i = 0; i < 25; ++i)
        zqLogMsg("base", big);
    unsetenv("XDG_STATE_HOME");
    int64 nFiles = 0;
    for (const auto& entry : fs::directory_iterator(folder / "tavrin/log")) {
        EXPECT_LT(entry.file_size(), 7U << 20) << entry.path();
        ++nFiles;
    }
    EXPECT_EQ(nFiles, 4);
}

TEST_F(UtilTest, LogWithoutAPlaceNeverFails) {
    dir.write("file", "in the way");
    ZqLog::setFile((folder / "file/log/tavrin.log").string());
    EXPECT_NO_THROW(zqLogMsg("base", "lost"));
    ZqLog::setVerbose(true);
    testing::internal::CaptureStderr();
    EXPECT_NO_THROW(zqLogMsg("base", "seen"));
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::EndsWith("seen\n"));
    ZqLog::setSink([](const SxString&, const SxString&) { throw std::runtime_error("sink"); });
    testing::internal::CaptureStderr();
    EXPECT_NO_THROW(zqLogMsg("base", "raises"));
    EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("lost: sink"));
}

TEST(Avg, WindowAndWholeRun) {
    ZqAvg all;
    ZqAvg last3(3);
    ZqAvg last1(0);
    for (const ZqAvg* avg : {&all, &last3}) {
        EXPECT_EQ(avg->getN(), 0);
        EXPECT_EQ(avg->getAverage() + avg->getMin() + avg->getMax() + avg->getSigma(), 0.0);
    }
    for (ZqAvg* avg : {&all, &last3, &last1}) {
        avg->update(-100.0);
        avg->update(NAN);
        avg->update(1.0 / 0.0);
        for (const uint64 value : {2U, 4U, 9U})
            avg->update(value);
    }
    EXPECT_EQ(all.getN(), 4);
    EXPECT_DOUBLE_EQ(all.getAverage(), -21.25);
    EXPECT_DOUBLE_EQ(all.getMin(), -100.0);
    EXPECT_DOUBLE_EQ(all.getMax(), 9.0);
    EXPECT_NEAR(all.getSigma(), 45.5377, 1e-4);
    EXPECT_EQ(last3.getN(), 3);
    EXPECT_DOUBLE_EQ(last3.getAverage(), 5.0);
    EXPECT_DOUBLE_EQ(last3.getMin(), 2.0);
    EXPECT_DOUBLE_EQ(last3.getMax(), 9.0);
    EXPECT_DOUBLE_EQ(last3.getSigma(), std::sqrt(26.0 / 3.0));
    EXPECT_DOUBLE_EQ(last1.getAverage(), 9.0);

    last3.reset();
    EXPECT_EQ(last3.getAverage(), 0.0);
    for (int i = 0; i < 5; ++i)
        last3.update(i);
    EXPECT_DOUBLE_EQ(last3.getAverage(), 3.0) << "the window is lost after reset";
    all.reset();
    for (int i = 0; i < 1000; ++i)
        all.update(1e9 + (i % 2));
    EXPECT_NEAR(all.getSigma(), 0.5, 1e-6) << "figures cancel out";
}

TEST(Registry, TypeTexts) {
    EXPECT_EQ(ZqRegistry::Item::string2Type("REG_DWORD"), 1);
    for (int type = 0; type <= ZqRegistry::RegBinary; ++type) {
        const SxString text = ZqRegistry::Item::type2String(static_cast<ZqRegistry::RegValType>(type));
        EXPECT_EQ(ZqRegistry::Item::string2Type(text), type) << text;
    }
    try {
        ZqRegistry::Item::string2Type("REG_NONSENSE");
        FAIL();
    } catch (const SxException& e) {
        EXPECT_THAT(e.what(), testing::HasSubstr("REG_NONSENSE"));
    }
}

TEST_F(UtilTest, ProcessesAreFoundByTheWholeNameOfTheirProgram) {
    const std::string longName = "a-name-longer-than-fifteen.bin";
    fs::copy_file("/bin/sleep", folder / longName);
    SxProcess native((folder / longName).string(), {"100"});
    native.start();
    // As Wine shows its programs: another program's file, a path with backslashes as first argument.
    SxProcess wine("/bin/bash", {"-c", "exec -a 'C:\\Program Files\\Game\\TheGame.EXE' sleep 100"});
    wine.start();
    struct Case {
        std::string name;
        int id;
    };
    for (const Case& c : {Case{longName, native.getId()}, Case{longName.substr(0, 15), -1},
                          Case{"A-name-longer-than-fifteen.bin", -1}, Case{"thegame.exe", wine.getId()},
                          Case{"TheGame", -1}, Case{"", -1}}) {
        EXPECT_EQ(ZqSysEnv::getProcessID(c.name, c.id < 0 ? -1 : 5000), c.id) << c.name;
        EXPECT_EQ(ZqSysEnv::isProcRunning(c.name), c.id >= 0) << c.name;
    }
    // Its file gone, it still runs under that name; ended but not collected, it doesn't.
    fs::remove(folder / longName);
    EXPECT_TRUE(ZqSysEnv::isProcRunning(longName));
    EXPECT_TRUE(ZqSysEnv::killProcess(native.getId()));
    ASSERT_TRUE(SxWait::pass(5000, [&] { return !native.isRunning(); }));
    EXPECT_FALSE(ZqSysEnv::isProcRunning(longName));
    EXPECT_EQ(native.wait(), 128 + SIGKILL);
    EXPECT_TRUE(ZqSysEnv::killProcess(native.getId()));
    wine.kill();
    wine.wait();
}

TEST_F(UtilTest, ProcessSearchWaitsAndHarmfulIdsAreRefused) {
    const std::string name = "appears-later-tool";
    fs::copy_file("/bin/sleep", folder / name);
    SxProcess late("/bin/sh", {"-c", "sleep 0.2; exec \"$0\" 100", (folder / name).string()});
    late.start();
    EXPECT_EQ(ZqSysEnv::getProcessID(name, -1), -1);
    EXPECT_EQ(ZqSysEnv::getProcessID(name, 10000), late.getId());
    late.kill();
    late.wait();

    int nRefused = 0;
    ZqLog::setSink([&](const SxString&, const SxString&) { ++nRefused; });
    for (const int id : {-1, 0, 1, static_cast<int>(getpid())})
        EXPECT_FALSE(ZqSysEnv::killProcess(id)) << id;
    EXPECT_EQ(nRefused, 4);
}

TEST_F(UtilTest, SilentProcessPrintsNothing) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    ZqSilentProcess process("/bin/sh", {"-c", "echo out; echo err >&2; exit 4"});
    EXPECT_EQ(process.run(), 4);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(UtilTest, Identifiers) {
    const std::regex guid("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    const std::string first = ZqSysEnv::getNewGUID().str();
    EXPECT_TRUE(std::regex_match(first, guid)) << first;
    EXPECT_NE(first, ZqSysEnv::getNewGUID().str());

    const std::string machine = ZqSysEnv::getMachineId().str();
    EXPECT_EQ(machine, ZqSysEnv::getMachineId().str());
    if (fs::exists("/etc/machine-id")) {
        EXPECT_TRUE(std::regex_match(machine, std::regex("[0-9a-f]{32}"))) << machine;
        EXPECT_NE(SxFileIO::readUtf8("/etc/machine-id").left("\n").str(), machine);
    }
    EXPECT_TRUE(
        std::regex_match(ZqSysEnv::getTimestamp().str(), std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d)")));
    EXPECT_STREQ(ZqSysEnv::getSysPath(static_cast<ZqSysEnv::Path>(4)).ascii(), "C:/ProgramData");
}

TEST_F(UtilTest, SystemPathsAndFiles) {
    EXPECT_TRUE(SxFSAction::test_f(ZqSysEnv::getSchemaPath() + "zqapp-schema.json"));
    ZqSysEnv::setSchemaPath("/elsewhere");
    EXPECT_STREQ(ZqSysEnv::getSchemaPath().ascii(), "/elsewhere/");
    ZqSysEnv::setSchemaPath("");

    const SxString missing = (folder / "not/made/yet").string();
    EXPECT_GT(ZqSysEnv::getFreeDiskSpace(missing), 0U);
    EXPECT_GT(ZqSysEnv::getFreeDiskSpace("relative/missing"), 0U);

    const SxString file = dir.write("file", "0123456789");
    ZqSysEnv::truncateFile(file, 4);
    EXPECT_STREQ(SxFileIO::readUtf8(file).ascii(), "0123");
    EXPECT_THROW(ZqSysEnv::truncateFile(missing, 4), SxException);
    EXPECT_STREQ(ZqSysEnv::unifySlashes("E:\\a/b\\").ascii(), "E:/a/b/");
    EXPECT_STREQ(ZqSysEnv::unifyBackslashes("E:\\a/b/").ascii(), "E:\\a\\b\\");
}

TEST_F(UtilTest, ProgressLine) {
    std::string seen;
    ZqLog::setSink([&](const SxString&, const SxString& text) { seen = text.str(); });
    const int64 t0 = ZqSysEnv::getSysTime() - 10'000;
    ZqSysEnv::logProgress(1, 4, t0, "task", "Compute_Diff");
    EXPECT_THAT(seen, testing::ContainsRegex("^task Compute_Diff: 25.0 %, 10.[0-9] s, ETA 3[0-9] s$"));
    for (const auto& [done, total, percent] :
         {std::tuple{0U, 1U, "0.0"}, {1U, 1U, "100.0"}, {0U, 0U, "0.0"}}) {
        ZqSysEnv::logProgress(done, total, t0, "task", "Compute_Diff");
        EXPECT_THAT(seen, testing::ContainsRegex(SxString(percent).str() + " %, 10.[0-9] s$"));
    }
}
