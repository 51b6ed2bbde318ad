#include "FaultOs.h"
#include "SxProcess.h"
#include "TempDir.h"
#include "ZqGameOutput.h"
#include "ZqLog.h"

#include <atomic>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;
namespace fs = std::filesystem;

namespace {

constexpr size_t PART = ZqGameOutput::PART;
/// The start of the first run, 2026-11-27T12:35:01Z, and the names of its log and later ones.
constexpr int64 TIME = 1'795'782'901'000;
constexpr const char* LOG = "image/runs/2026-11-27T12-35-01Z.log";

class GameOutput : public testing::Test {
protected:
    void SetUp() override {
        fs::create_directories(image);
        ZqLog::setSink([this](const SxString&, const SxString& text) { logged += text.str() + "\n"; });
    }
    void TearDown() override { ZqLog::setSink({}); }

    /// The application says so much more, in numbered lines.
    void say(const ZqGameOutput& output, size_t n) {
        std::string text;
        while (text.size() < n)
            text += "line " + std::to_string(++nLines) + "\n";
        say(output, text);
    }
    void say(const ZqGameOutput& output, const std::string& text) {
        ASSERT_EQ(::write(output.getFd(), text.data(), text.size()), static_cast<ssize_t>(text.size()));
        said += text;
    }
    /// What is to be left of what was said.
    std::string shortened() const {
        std::string first = said.substr(0, PART);
        if (first.back() != '\n') first += '\n';
        return first + "[tavrin: " + std::to_string(said.size() - 2 * PART) + " bytes are left out here]\n" +
               said.substr(said.size() - PART);
    }
    int64 roomOf(const char* file) const {
        struct stat info {};
        ::stat(dir.path(file).c_str(), &info);
        return info.st_blocks * 512;
    }

    TempDir dir{TempDir::inMemory()};
    const std::string image = dir.path("image");
    std::string said, logged;
    int nLines = 0;
};

} // namespace

TEST_F(GameOutput, OfALongOutputTheBeginAndTheEndStay) {
    for (const bool hasHoles : {true, false}) {
        FaultOs os(dir.path());
        fs::remove_all(image + "/runs");
        said.clear();
        ZqGameOutput output{SxString(image), false};
        output.begin(TIME);
        if (!hasHoles) os.failNth(FaultOs::Op::Write, 1, EOPNOTSUPP, ".log");
        for (int i = 0; i < 25; ++i) {
            say(output, 1'000'000);
            output.trim();
            // Two parts, and a little that isn't worth the while.
            EXPECT_LT(roomOf(LOG), 6 << 20) << hasHoles << " " << i;
        }
        EXPECT_EQ(output.getLastLines().last(), SxString("line " + std::to_string(nLines)));
        output.end();
        EXPECT_TRUE(dir.read(LOG) == shortened()) << hasHoles;
        ZqGameOutput{SxString(image), false}.tidy();
        EXPECT_TRUE(dir.read(LOG) == shortened()) << hasHoles << ": the next run has changed it";
        EXPECT_EQ(fs::status(dir.path(LOG)).permissions(), fs::perms(0600));
        EXPECT_EQ(logged.find("can't be given back") != std::string::npos, !hasHoles) << logged;
    }
}

TEST_F(GameOutput, OneOfTwoPartsStaysAsItIs) {
    for (const size_t more : {size_t{0}, size_t{1}}) {
        fs::remove_all(image + "/runs");
        said.clear();
        ZqGameOutput output{SxString(image), false};
        output.begin(TIME);
        say(output, std::string(2 * PART + more, 'x'));
        output.trim();
        output.end();
        EXPECT_TRUE(dir.read(LOG) == (more == 0 ? said : shortened())) << more;
    }
}

TEST_F(GameOutput, AReaderGetsAllOfItOrIsToldWhatIsMissing) {
    for (const bool isSlow : {false, true}) {
        fs::remove_all(image + "/runs");
        said.clear();
        ZqGameOutput output{SxString(image), true};
        output.begin(TIME);
        std::atomic<bool> isOver{false};
        std::string got;
        std::thread reader([&] {
            while (isSlow && !isOver)
                std::this_thread::yield();
            for (bool wasOver = false;;) {
                const std::string bytes = output.readNext();
                if (bytes.empty() && wasOver) break;
                if (bytes.empty()) wasOver = isOver;
                got += bytes;
            }
        });
        const size_t nMost = ZqGameOutput::MOST_UNREAD;
        while (said.size() < (isSlow ? 2 * nMost : nMost / 2)) {
            say(output, 500'000);
            output.trim();
        }
        output.end();
        isOver = true;
        reader.join();
        if (!isSlow) {
            EXPECT_TRUE(got == said) << got.size() << " of " << said.size();
            continue;
        }
        EXPECT_TRUE(got.starts_with(said.substr(0, PART) + "\n[tavrin: "));
        const std::string rest = got.substr(got.find("here]\n") + 6);
        EXPECT_GE(rest.size(), nMost);
        EXPECT_TRUE(said.ends_with(rest));
    }
}

TEST_F(GameOutput, OneWhoseRunWasKilledGoesOn) {
    auto killed = std::make_unique<ZqGameOutput>(SxString(image), false);
    killed->begin(TIME);
    const int application = ::dup(killed->getFd());
    say(*killed, 9 * PART / 2);
    killed->trim();
    killed.reset();
    const auto sayMore = [&](const std::string& text) {
        ASSERT_EQ(::write(application, text.data(), text.size()), static_cast<ssize_t>(text.size()));
        said += text;
    };
    {
        ZqGameOutput next{SxString(image), false};
        next.adopt();
        EXPECT_EQ(next.getFile(), SxString(dir.path(LOG)));
        sayMore(std::string(2 * PART, 'x') + "\n");
        next.trim();
        EXPECT_LT(roomOf(LOG), 6 << 20);
    }
    // Killed, too; and what nobody went on with is put in order by the next run.
    sayMore("the end\n");
    ::close(application);
    {
        ZqGameOutput none{SxString(image), false};
        none.adopt();
        EXPECT_EQ(none.getFile(), "") << "a log that nobody writes is no living application's";
    }
    ZqGameOutput later{SxString(image), false};
    later.begin(TIME + 60'000);
    later.tidy();
    EXPECT_TRUE(dir.read(LOG) == shortened());
}

TEST_F(GameOutput, TheNewestThreeStayAndNothingElseIsTouched) {
    dir.write("image/runs/2020-01-01T00-00-00Z-0123abcd.json", "{}");
    dir.write("image/runs/my.log", "mine");
    dir.write("other", "mine");
    fs::create_symlink(dir.path("other"), image + "/runs/2020-01-01T00-00-00Z.log");
    // The third one's clock was set back.
    for (const int64 time : {TIME, TIME + 1000, TIME - 500'000, TIME + 9000}) {
        ZqGameOutput output{SxString(image), false};
        output.begin(time);
        output.tidy();
        say(output, "x");
        output.end();
    }
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(image + "/runs"))
        names.push_back(entry.path().filename());
    EXPECT_THAT(names, testing::UnorderedElementsAre("2020-01-01T00-00-00Z-0123abcd.json", "my.log",
                                                     "2020-01-01T00-00-00Z.log", "2026-11-27T12-35-02Z.log",
                                                     "2026-11-27T12-35-03Z.log", "2026-11-27T12-35-10Z.log"));
    EXPECT_EQ(dir.read("other"), "mine");
}

TEST_F(GameOutput, WithoutAFileItGoesNowhere) {
    const auto expectNone = [&](const char* why) {
        ZqGameOutput output{SxString(image), true};
        output.begin(TIME);
        EXPECT_EQ(output.getFile(), "") << why;
        SxProcess process("sh", {"-c", "echo said; echo so >&2"});
        process.setOutput(output.getFd());
        EXPECT_EQ(process.run(), 0) << why;
        output.trim();
        EXPECT_EQ(output.readNext(), "") << why;
        EXPECT_TRUE(output.getLastLines().isEmpty()) << why;
        output.end();
        EXPECT_THAT(logged, HasSubstr(why));
        logged.clear();
    };
    FaultOs os(dir.path());
    os.setFreeSpaceAnswer(3 << 20);
    expectNone("bytes free");
    os.setFreeSpaceAnswer(1 << 30);
    os.failNth(FaultOs::Op::Open, 1, EROFS, ".log", true);
    expectNone("Read-only file system");
    fs::remove_all(image + "/runs");
    os.failNth(FaultOs::Op::MakeDir, 1, EACCES, "runs");
    expectNone("Permission denied");
}

TEST_F(GameOutput, TheLastLinesAreTheLastTen) {
    const std::string ten = "2\n3\n4\n5\n6\n7\n8\n9\n10\n";
    const struct {
        const char* what;
        std::string text;
        std::vector<SxString> lines;
    } cases[] = {
        {"nothing", "", {}},
        {"empty lines at the end", "a\n\nb\r\n\n\n", {"a", "", "b"}},
        {"no line feed at the end", "a\nb", {"a", "b"}},
        {"more than ten", "0\n1\n" + ten + "11\n", {"2", "3", "4", "5", "6", "7", "8", "9", "10", "11"}},
        {"a long line", "a\n" + std::string(501, 'x'), {"a", SxString(std::string(500, 'x') + " ...")}},
        {"a line without an end", std::string(3 * PART, 'x'), {SxString(std::string(500, 'x') + " ...")}},
        {"a cut character", std::string(499, 'x') + "\u00e4", {SxString(std::string(499, 'x') + " ...")}},
        {"zeros", std::string("a\0b\n", 4), {SxString(std::string("a\0b", 3))}},
    };
    for (const auto& [what, text, lines] : cases) {
        ZqGameOutput output{SxString(image), false};
        output.begin(TIME);
        say(output, text);
        output.trim();
        const SxList<SxString> last = output.getLastLines();
        EXPECT_EQ(std::vector<SxString>(last.begin(), last.end()), lines) << what;
    }
}

TEST_F(GameOutput, WhatTheApplicationEmptiesBeginsAnew) {
    ZqGameOutput output{SxString(image), true};
    output.begin(TIME);
    say(output, 8 * PART);
    output.trim();
    while (!output.readNext().empty())
        continue;
    output.trim();
    // As a script does that writes to /dev/stderr by its name.
    ASSERT_EQ(::ftruncate(output.getFd(), 0), 0);
    said.clear();
    say(output, "anew\n");
    output.trim();
    EXPECT_EQ(output.readNext(), "anew\n");
    say(output, 8 * PART);
    output.trim();
    output.end();
    EXPECT_TRUE(dir.read(LOG) == shortened());
}
