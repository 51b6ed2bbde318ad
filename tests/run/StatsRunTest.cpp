#include "NetLab.h"
#include "SmallDisk.h"
#include "StatsHome.h"
#include "StreamRun.h"
#include "SxJSONParser.h"
#include "SxTime.h"

#include <gmock/gmock.h>
#include <optional>
#include <regex>

namespace {

using SxParserKit::SxSymbol;
using testing::HasSubstr;
using testing::IsEmpty;

SxSymbol parsed(const string& text) {
    SxJSONParser parser;
    parser.readString(SxString(text), "test", 1);
    return parser.getRootSymbol();
}

string answer(const string& status, const string& body) {
    return "HTTP/1.1 " + status + "\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

string accept(const string&) {
    return answer("200 OK", R"({"clientToken": "T 1"})");
}

/// First line of a request.
string lineOf(const string& request) {
    return request.substr(0, request.find(" HTTP"));
}

SxSymbol bodyOf(const string& request) {
    return parsed(request.substr(request.find("\r\n\r\n") + 4));
}

class StatsRun : public StreamRun {
protected:
    void SetUp() override {
        StreamRun::SetUp();
        home.emplace();
    }
    void TearDown() override {
        home.reset();
        StreamRun::TearDown();
    }
    /// The records of the image's runs, in their order.
    std::set<fs::path> records() const {
        std::set<fs::path> found;
        if (!fs::exists(got + "/runs")) return found;
        for (const auto& entry : fs::directory_iterator(got + "/runs")) {
            if (entry.path().extension() == ".json") found.insert(entry.path());
        }
        return found;
    }
    SxSymbol lastRecord() const { return parsed(TempDir::readFile(*records().rbegin())); }
    int64 number(const SxSymbol& root, const char* key) const { return root.getElem(key).toInt(); }

    std::optional<StatsHome> home;
};

} // namespace

TEST_F(StatsRun, AServiceIsToldOfEachRunAfterAYesAndOfNoneAfterANo) {
    const ScriptedServer service(accept);
    const string url = service.url("runs/{{TOKEN}}?id={{ID}}");
    ASSERT_EQ(start({"--now"})->end(), 0);
    EXPECT_THAT(service.requests(), IsEmpty()) << "nobody has said yes";

    // Times of a run are told in seconds.
    fs::remove(played + ".started");
    hold();
    const auto first = start({"--now", "--stats-url", url, "--stats-header", "X-Run: {{ID}}"});
    ASSERT_TRUE(SxWait::pass(20'000, [&] { return hasStarted(); })) << first->says();
    SxTime::msleep(1'200);
    release();
    ASSERT_EQ(first->end(), 0) << first->says();
    const std::vector<string> told = service.requests();
    ASSERT_EQ(told.size(), 2U);
    const SxSymbol record = lastRecord();
    const string id = record.getElem("id").toString().str();
    EXPECT_EQ(lineOf(told[0]), "POST /runs/?id=" + id);
    EXPECT_EQ(lineOf(told[1]), "PATCH /runs/T%201?id=" + id);
    EXPECT_THAT(told[1], HasSubstr("X-Run: " + id + "\r\n"));
    EXPECT_EQ(record.getElem("clientToken").toString(), "T 1");
    const SxSymbol post = bodyOf(told[0]), patch = bodyOf(told[1]);
    EXPECT_EQ(post.getElem("id").toString().str(), id);
    EXPECT_EQ(post.getElem("zqddVer").toString(), "3.4.10");
    EXPECT_FALSE(post.hasElem("env") || post.hasElem("apps") || post.hasElem("host"));
    EXPECT_EQ(number(patch.getElem("rt"), "exit"), 7);
    EXPECT_EQ(patch.getElem("trc").getElem("cov").toDouble(), record.getElem("coverage").toDouble());

    // Later runs need no option, and tell of what was done to the image between them.
    done({"image", "optimize", got, "--traces"});
    ASSERT_EQ(start({"--now"})->end(), 0);
    ASSERT_EQ(service.requests().size(), 4U);
    EXPECT_TRUE(lastRecord().hasElem("defragStats"));
    EXPECT_THAT(run({"stats", "show", got}).out, HasSubstr("--no-stats` ends that"));
    const auto refused = start({"--now", "--no-stats"});
    ASSERT_EQ(refused->end(), 0) << refused->says();
    ASSERT_EQ(start({"--now"})->end(), 0);
    EXPECT_EQ(service.requests().size(), 4U);
    EXPECT_FALSE(lastRecord().hasElem("defragStats"));
    EXPECT_THAT(run({"stats", "show", got}).out, HasSubstr("leaves this machine"));
}

TEST_F(StatsRun, AServiceThatSaysNothingHoldsUpNeitherPlayNorAStop) {
    const ScriptedServer silent([](const string&) { return string(ScriptedServer::SILENCE); });
    hold();
    const auto player = start({"--now", "--stats-url", silent.url()});
    ASSERT_TRUE(SxWait::pass(20'000, [&] { return hasPlayed(); })) << player->says();
    expectPlayed();
    ASSERT_TRUE(SxWait::pass(5'000, [&] { return !silent.requests().empty(); }));
    player->signal(SIGINT);
    EXPECT_EQ(player->end(3'000), 0) << player->says();
    release();
    // At the end of a run it is waited for, but not for long, and a stop ends that, too.
    const auto second = start({"--now"});
    ASSERT_TRUE(SxWait::pass(20'000, [&] { return hasPlayed(); })) << second->says();
    ASSERT_TRUE(SxWait::pass(5'000, [&] { return fs::exists(got + "/runtime.json") && !isMounted(); }));
    second->signal(SIGINT);
    EXPECT_NE(second->end(2'000), -1) << second->says();
    EXPECT_THAT(home->waiting(), HasSubstr("\"patch\"")) << "both wait for the next run";
}

TEST_F(StatsRun, ARunThatFailsBeforeItsApplicationIsToldAsOne) {
    const ScriptedServer service(accept);
    string app = dir.read("served/app.json");
    const size_t at = app.find("\"cmd\": \"") + 8;
    dir.write("served/app.json", app.insert(at, "no-such-"));
    const auto player = start({"--now", "--stats-url", service.url()});
    EXPECT_EQ(player->end(), 1) << player->says();
    const std::vector<string> told = service.requests();
    ASSERT_FALSE(told.empty());
    EXPECT_TRUE(bodyOf(told[0]).getElem("startErr").toBool());
    const SxSymbol record = lastRecord();
    EXPECT_TRUE(record.getElem("startErr").toBool());
    EXPECT_EQ(number(record, "startMs"), -1);
    EXPECT_FALSE(fs::exists(got + "/runtime.json"));
}

TEST_F(StatsRun, ARunWhoseDriveGoesLeavesARecordThatCanBeRead) {
    const ScriptedServer service(accept);
    hold();
    const auto player = start({"--now", "--stats-url", service.url()});
    ASSERT_TRUE(SxWait::pass(20'000, [&] { return hasPlayed(); })) << player->says();
    const SxSymbol status = parsed(done({"status", got, "--json"}));
    EXPECT_GT(number(status, "bytesFromFile") + number(status, "bytesDelivered"), 7'000'000);
    EXPECT_GE(number(status, "waits"), number(status, "held"));
    done({"umount", got, "--force"});
    EXPECT_EQ(player->end(), 1) << player->says();
    release();
    EXPECT_GT(number(lastRecord().getElem("accuracy"), "judgedMs"), 0);
    EXPECT_TRUE(lastRecord().getElem("endErr").toBool());
    EXPECT_THAT(done({"stats", "show", got}), HasSubstr("the run failed"));
    EXPECT_TRUE(bodyOf(service.requests().back()).getElem("endErr").toBool());
    // Before the drive is there, too.
    server->stop();
    dir.write("got/img.idx", "");
    EXPECT_EQ(start({"--now"})->end(), 1);
    EXPECT_TRUE(lastRecord().getElem("startErr").toBool());
}

TEST_F(StatsRun, TheRunThatGoesOnWithAnApplicationGoesOnWithItsRecord) {
    const SmallDisk disk(got, "128m");
    hold();
    auto player = start({"--now", "--rate", "100000"});
    ASSERT_TRUE(SxWait::pass(20'000, [&] { return hasPlayed(); })) << player->says();
    ASSERT_TRUE(SxWait::pass(5'000, [&] { return !records().empty(); }));
    const SxSymbol begun = lastRecord();
    EXPECT_GT(number(begun, "asOf"), 0);
    EXPECT_THAT(done({"stats", "show", got}), HasSubstr("the run goes on, or was killed"));
    player->signal(SIGKILL);
    player->end();
    // A run that came to no start has left a record since.
    const string later = "got/runs/2099-01-01T00-00-00Z-12345678.json";
    dir.write(later, std::regex_replace(dir.read("got" + records().begin()->string().substr(got.size())),
                                        std::regex("\"asOf\": \\d+"), "\"asOf\": 0"));
    // What a start would need on the disk is no matter to an application that runs.
    disk.fill();
    player = start();
    const auto says = [&](const char* word) { return player->says().find(word) != string::npos; };
    EXPECT_TRUE(SxWait::pass(20'000, [&] { return says("waiting for room"); })) << player->says();
    disk.free();
    EXPECT_TRUE(SxWait::pass(20'000, [&] { return says("running"); })) << player->says();
    fs::remove(dir.path(later));
    release();
    EXPECT_EQ(player->end(), 0) << player->says();
    const SxSymbol record = lastRecord();
    EXPECT_TRUE(record.getElem("started").toBool());
    EXPECT_EQ(records().size(), 1U) << "both are one run";
    EXPECT_FALSE(record.hasElem("asOf"));
    EXPECT_EQ(record.getElem("exitCode").getType(), SxParserAst::Null);
    for (const char* key : {"time0", "startMs", "mountMs", "preloadSize", "dataAtStart"})
        EXPECT_EQ(number(record, key), number(begun, key)) << key;
    EXPECT_EQ(record.getElem("id").toString(), begun.getElem("id").toString());
    EXPECT_GT(number(record, "lengthMs"), number(begun, "lengthMs"));
    EXPECT_GE(number(record, "bytesReceived"), number(begun, "bytesReceived"));
    EXPECT_TRUE(record.getElem("accuracy").hasElem("waits"));
    EXPECT_FALSE(record.getElem("accuracy").hasElem("judgedMs"));
    EXPECT_THAT(done({"stats", "show", got}), HasSubstr("reads that waited"));
}

TEST_F(StatsRun, NothingIsWrittenThroughALinkInThePlaceOfTheRecords) {
    ASSERT_EQ(start({"--now"})->end(), 0);
    fs::remove_all(got + "/runs");
    fs::create_directory(dir.path("elsewhere"));
    fs::create_directory_symlink(dir.path("elsewhere"), got + "/runs");
    const auto player = start({"--now"});
    EXPECT_EQ(player->end(), 1);
    EXPECT_THAT(player->says(), HasSubstr("/got/runs' is a link"));
    done({"image", "optimize", got, "--traces"});
    EXPECT_TRUE(fs::is_empty(dir.path("elsewhere")));
}

TEST_F(StatsRun, ReadsThatWaitedAndWereInTimeAreCounted) {
    server->setRate(3'000'000);
    const auto player = start({"--now"});
    ASSERT_EQ(player->end(60'000), 0) << player->says();
    const SxSymbol found = lastRecord().getElem("accuracy");
    EXPECT_GT(number(found, "waits"), 0);
    EXPECT_GT(number(found, "waitedMs"), 0);
    EXPECT_GT(number(found, "late"), 0);
    EXPECT_EQ(number(found, "read"),
              number(found, "late") + number(found, "earlyUsed") + number(found, "thereBefore"));
    ASSERT_EQ(start({"--now"})->end(), 0);
    const SxSymbol again = lastRecord().getElem("accuracy");
    EXPECT_EQ(number(again, "read"), number(again, "thereBefore")) << "all was there";
    EXPECT_EQ(number(again, "brought"), 0);
}
