#include "StreamRun.h"
#include "SxJSONParser.h"
#include "ZqStreamRecord.h"

namespace {

using SxParserKit::SxSymbol;
using testing::AllOf;
using testing::Not;

constexpr const char* SAYS_ENOUGH =
    "Records no trace: five traces of this build are there. Every tenth run records.\n";
constexpr const char* SAYS_TURN =
    "Records which blocks are read: five traces of this build are there, and every tenth run records.\n";

/// Runs of an image that is there as a whole.
class TracedRun : public StreamRun {
protected:
    void SetUp() override {
        StreamRun::SetUp();
        if (!IsSkipped()) done({"fetch", got, "--url", server->getUrl().str()});
    }
    std::set<string> traces() const {
        std::set<string> names;
        for (const auto& entry : fs::directory_iterator(got + "/traces"))
            names.insert(entry.path().filename().string());
        return names;
    }
    /// Plays, and gives what the client has said and written.
    string play(const std::vector<string>& more = {}) {
        std::vector<string> words = {
            "run", got, "--page", dir.path("page.html"), "--report", dir.path("report.json")};
        words.insert(words.end(), more.begin(), more.end());
        string said = done(words);
        expectPlayed();
        SxJSONParser parser;
        parser.readFile(dir.path("report.json"));
        report = parser.getRootSymbol();
        return said;
    }
    bool wasTraced() const { return !report.getElem("traceFolder").toString().isEmpty(); }
    /// Whether the figures of a trace are there; all are, or none.
    bool hasFigures() const {
        const SxSymbol accuracy = report.getElem("accuracy");
        const bool isJudged = accuracy.hasElem("judgedMs");
        for (const char* key : {"brought", "earlyUsed", "earlyUnused", "read", "late", "thereBefore"})
            EXPECT_EQ(accuracy.hasElem(key), isJudged) << key;
        EXPECT_TRUE(accuracy.hasElem("waits")) << "the drive counts them without a trace, too";
        EXPECT_EQ(report.hasElem("coverage"), isJudged);
        EXPECT_EQ(run({"stats", "show", got}).out.find("named by the trace") != string::npos, isJudged);
        EXPECT_EQ(done({"stats", "upload", got, "--url", "http://127.0.0.1:9/", "--update", "--dry-run"})
                          .find("\"trc\"") != string::npos,
                  isJudged);
        EXPECT_EQ(dir.read("page.html").find("Blocks over time") != string::npos, isJudged);
        return isJudged;
    }
    int64 countUntraced() const {
        ZqStreamRecord record;
        record.read(SxString(got));
        return record.nUntraced;
    }
    void setUntraced(int64 n) const {
        ZqStreamRecord::update(SxString(got), [&](ZqStreamRecord* record) { record->nUntraced = n; });
    }
    /// Further runs, made of the first one.
    void recordSeveral(int n) {
        for (int i = 0; i < n; ++i) {
            const string copy = got + "/traces/copy" + std::to_string(i);
            fs::copy(got + "/traces/" + *traces().begin(), copy);
            done({"trace", "shift", copy, std::to_string(i + 1)});
        }
    }

    SxSymbol report;
};

} // namespace

TEST_F(TracedRun, ACompleteImageIsTracedFiveTimesAndThenEachTenthTime) {
    EXPECT_THAT(play(), HasSubstr("Records which blocks are read: 0 of 5 traces of this build are there.\n"));
    EXPECT_TRUE(wasTraced() && hasFigures());
    EXPECT_EQ(countUntraced(), 0);
    recordSeveral(3);
    EXPECT_THAT(play(), HasSubstr("Records which blocks are read: 4 of 5 traces of this build are there.\n"));
    EXPECT_TRUE(wasTraced());

    const std::set<string> five = traces();
    ASSERT_EQ(five.size(), 5U);
    EXPECT_THAT(play(), HasSubstr(SAYS_ENOUGH));
    EXPECT_FALSE(wasTraced() || hasFigures());
    EXPECT_EQ(countUntraced(), 1);
    setUntraced(8);
    EXPECT_THAT(play({"--quiet"}), "");
    EXPECT_FALSE(wasTraced());
    EXPECT_EQ(traces(), five);
    EXPECT_THAT(play(), HasSubstr(SAYS_TURN));
    EXPECT_TRUE(wasTraced() && hasFigures());
    EXPECT_EQ(traces().size(), 6U);
    EXPECT_EQ(countUntraced(), 0);
    const string json = play({"--json"});
    EXPECT_FALSE(wasTraced());
    EXPECT_THAT(json, AllOf(testing::StartsWith("{"), Not(HasSubstr("Records"))));
}

TEST_F(TracedRun, AWishDecidesForOneRun) {
    EXPECT_THAT(play({"--no-trace"}), HasSubstr("Records no trace, as --no-trace says.\n"));
    EXPECT_FALSE(wasTraced() || hasFigures());
    EXPECT_FALSE(fs::exists(got + "/traces"));
    play();
    recordSeveral(4);
    setUntraced(9);
    play({"--no-trace"});
    EXPECT_FALSE(wasTraced());
    EXPECT_EQ(countUntraced(), 10);
    EXPECT_THAT(play(), HasSubstr(SAYS_TURN)) << "the turn that was let go by is the next run's";
    EXPECT_THAT(play({"--trace"}), HasSubstr("Records which blocks are read, as --trace says.\n"));
    EXPECT_TRUE(wasTraced() && hasFigures());
    EXPECT_EQ(countUntraced(), 0);
}

TEST_F(TracedRun, ARunThatIsKilledCountsAndOneThatIsRefusedDoesnt) {
    play();
    recordSeveral(4);
    setUntraced(8);
    hold();
    auto player = start({});
    ASSERT_TRUE(SxWait::pass(20'000, [&] { return hasPlayed(); })) << player->says();
    ASSERT_TRUE(eventually([&] { return countUntraced() == 9; }));
    EXPECT_EQ(run({"run", got}).code, 1) << "it is played";
    EXPECT_EQ(countUntraced(), 9);
    player->signal(SIGKILL);
    player->end();
    // The run that goes on with its application starts none, and has no trace to decide about.
    player = start({});
    ASSERT_TRUE(SxWait::pass(20'000, [&] { return player->says().find("running") != string::npos; }));
    release();
    EXPECT_EQ(player->end(), 0) << player->says();
    EXPECT_THAT(player->says(), Not(HasSubstr("Records ")));
    EXPECT_EQ(countUntraced(), 9);
    expectPlayed();
    EXPECT_THAT(play(), HasSubstr(SAYS_TURN));
}

TEST_F(TracedRun, AnImageThatArrivesIsTracedHoweverManyTracesThereAre) {
    play();
    recordSeveral(4);
    fs::resize_file(got + "/img.zqf", fs::file_size(got + "/img.zqf") - 4096);
    EXPECT_THAT(play({"--now"}), Not(HasSubstr("Records ")));
    EXPECT_TRUE(wasTraced() && hasFigures());
    EXPECT_THAT(play(), HasSubstr(SAYS_ENOUGH));
}
