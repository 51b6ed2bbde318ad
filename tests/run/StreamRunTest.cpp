#include "StreamRun.h"
#include "SxFileIO.h"
#include "SxJSONParser.h"
#include "SxMd5.h"
#include "SxProcessGroup.h"
#include "Xml.h"
#include "ZqReadable.h"
#include "ZqStreamRecord.h"

#include <pthread.h>

namespace {

/// The machine's clock, on which the keeper of a feed looks after it without a pause.
class RestlessKeeper : public SxClock {
public:
    RestlessKeeper() : machine(&SxClock::get()) { SxClock::set(this); }
    ~RestlessKeeper() override { SxClock::set(nullptr); }
    int64 systemMs() override { return machine->systemMs(); }
    int64 steadyNs() override { return machine->steadyNs(); }
    void sleepNs(int64 ns) override {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof(name));
        machine->sleepNs(string(name) == "feed" ? 0 : ns);
    }

private:
    SxClock* const machine;
};

/// How often the threads of a process have gone to sleep by themselves.
uint64 nSleeps(int64 pid) {
    uint64 n = 0;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::ifstream status(task.path() / "status");
        string key;
        for (uint64 value = 0; status >> key; status.ignore(4096, '\n')) {
            if (key == "voluntary_ctxt_switches:" && status >> value) n += value;
        }
    }
    return n;
}

/// A page tells of a run what its report does, and shows the whole of it.
void expectPageOf(const string& page, const string& report) {
    SxJSONParser json;
    json.readString(SxString(report), "report", 1);
    const auto figure = [&](const char* key) { return json.getRootSymbol().getElem(key, true).toInt(); };
    const auto bytes = [&](const char* key) {
        return ZqReadable::bytes(static_cast<double>(figure(key))).str();
    };
    EXPECT_EQ(XmlCheck::faultOf(page), "");
    EXPECT_THAT(page,
                testing::AllOf(HasSubstr("the application ended with code 7"),
                               HasSubstr("Start, " + ZqReadable::seconds(figure("startMs")).str() + "<"),
                               HasSubstr("<dd>" + bytes("bytesReceived") + "<"),
                               HasSubstr("<dd>" + bytes("bytesOnDemand") + "<"),
                               HasSubstr("<dd>" + bytes("preloadSize") + "<"),
                               HasSubstr("<td>" + bytes("dataAtEnd") + " of ")));
    EXPECT_THAT(page, testing::AllOf(HasSubstr("class=\"line there\""), HasSubstr(" reads\" transform"),
                                     HasSubstr("Place in img.zqf, MiB"), HasSubstr("class=\"line needed\""),
                                     Not(HasSubstr("http://127"))));
}

} // namespace

TEST_F(StreamRun, AnApplicationPlaysWhileItsImageArrives) {
    for (const bool packed : {false, true}) {
        SCOPED_TRACE(packed ? "packed" : "plain");
        fs::remove_all(got);
        if (packed) done({"image", "pack", served, "--level", "3"});
        const uint64 nPlain = server->getNBytes("img.zqf");
        server->setRate(12'000'000);
        hold();
        const auto player =
            start({"--now", "--report", dir.path("report.json"), "--page", dir.path("page.html")});
        ASSERT_TRUE(SxWait::pass(20'000, [&] { return hasPlayed(); })) << player->says();
        expectPlayed();
        ASSERT_TRUE(SxWait::pass(
            20'000, [&] { return fs::file_size(got + "/img.zqf") == fs::file_size(served + "/img.zqf"); }));
        release();
        EXPECT_EQ(player->end(), 0) << player->says();
        EXPECT_FALSE(isMounted());
        expectComplete();
        const string report = dir.read("report.json");
        EXPECT_THAT(report, HasSubstr("\"exitCode\": 7"));
        if (!packed) {
            EXPECT_THAT(player->says(), HasSubstr(" Mbit/s: safe to start in "));
        }
        EXPECT_THAT(report, HasSubstr(packed ? "\"packed\": true" : "\"packed\": false"));
        expectPageOf(dir.read("page.html"), report);
        EXPECT_GT(fs::file_size(fs::directory_iterator(got + "/traces")->path() / "img.trc"), 0u);
        EXPECT_TRUE(fs::exists(got + "/runtime.json"));
        // Each byte passes the wire about once.
        const uint64 nWire = server->getNBytes("img.zqf") - nPlain;
        EXPECT_LT(nWire, packed ? 1'000'000 : fs::file_size(served + "/img.zqf") * 11 / 10);
    }
    server->stop();
    EXPECT_EQ(run({"run", got}).code, 0) << "complete, it needs no server";
    expectPlayed();
}

TEST_F(StreamRun, TheApplicationsStartAndTheKeeperDontMeet) {
    server->stop();
    const RestlessKeeper clock;
    server->start();
    server->setRate(500'000);
    ZqImageFeed feed(feedSettings());
    feed.open(nullptr);
    feed.start();
    feed.fetchRecords(nullptr);
    for (int i = 0; i < 100; ++i) {
        ASSERT_NO_THROW(feed.applicationStarts(feed.getApp()));
        ASSERT_NO_THROW(feed.requireAlive());
    }
    feed.stop();
    server->stop();
}

TEST_F(StreamRun, ACompleteImageIsHardlyLookedAt) {
    // Once when it has arrived in this run, and once when it was there.
    for (const bool wasThere : {false, true}) {
        SCOPED_TRACE(wasThere);
        hold();
        const auto player = start();
        ASSERT_TRUE(SxWait::pass(20'000, [&] { return hasPlayed(); })) << player->says();
        ASSERT_TRUE(SxWait::pass(
            20'000, [&] { return dir.read("got/stream.json").find("\"verified\"") != string::npos; }));
        SxTime::msleep(500);
        const int64 service = statusOf(got).servicePid;
        const uint64 before = nSleeps(player->getId()) + nSleeps(service);
        SxTime::msleep(2000);
        EXPECT_LT(nSleeps(player->getId()) + nSleeps(service) - before, 2 * 200u);
        // And yet its end is seen soon, be it the application's or the drive's.
        if (wasThere) {
            done({"umount", got, "--force"});
        } else {
            release();
        }
        EXPECT_EQ(player->end(wasThere ? 1500 : 3000), wasThere ? 1 : 0) << player->says();
        release();
        fs::remove(played);
        fs::remove(played + ".started");
    }
}

TEST_F(StreamRun, ASignalEndsItAtOnceAtEachStage) {
    struct Stage {
        const char* name;
        std::function<bool()> isReached;
    };
    const Stage stages[] = {
        {"opening", [&] { return server->getNRequests() > 0; }},
        {"loading", [&] { return fs::exists(got + "/img.zqf"); }},
        {"the mount waits for its first file", [&] { return !statusOf(got).image.isEmpty(); }},
        {"running", [&] { return hasStarted(); }},
    };
    for (const Stage& stage : stages) {
        SCOPED_TRACE(stage.name);
        fs::remove_all(got);
        fs::remove(played + ".started");
        server->setRate(500'000);
        const auto player = start();
        ASSERT_TRUE(SxWait::pass(20'000, stage.isReached, 1)) << player->says();
        // From here on nothing comes.
        server->setRate(1);
        SxTime::msleep(700);
        for (int i = 0; i < 5; ++i) {
            player->signal(i % 2 == 0 ? SIGINT : SIGTERM);
            SxTime::msleep(20);
        }
        const int code = player->end();
        // With an application it is a good end; one can be there before the last stage, and wait for its
        // script.
        EXPECT_THAT(player->says(), HasSubstr(code == 0 ? "ended by you" : "stopped"));
        if (!fs::exists(got + "/runs")) {
            EXPECT_EQ(code, 1) << player->says();
        }
        if (hasStarted()) {
            EXPECT_EQ(code, 0) << player->says();
        }
        EXPECT_FALSE(isMounted());
    }
    server->setRate(0);
    EXPECT_EQ(start()->end(), 0) << "goes on where it was";
    expectPlayed();
}

TEST_F(StreamRun, AMountThatWaitsForItsFirstFileEndsWithItsRun) {
    // One block is enough for the file system, and its folders come after that.
    string app = dir.read("served/app.json");
    const size_t at = app.find("\"sizeMnt\": ") + 11;
    app.replace(at, app.find_first_of(",\n", at) - at, "4096");
    dir.write("served/app.json", app);
    for (const bool bySignal : {true, false}) {
        fs::remove_all(got);
        fs::copy(served, got);
        fs::resize_file(got + "/img.zqf", 4096);
        server->setLatency(600);
        const uint64 before = server->getNBytes("app.json");
        const auto player = start();
        ASSERT_TRUE(eventually([&] { return server->getNBytes("app.json") > before; })) << player->says();
        server->setLatency(3'600'000);
        ASSERT_TRUE(eventually([&] {
            const ZqDiskStatus status = statusOf(got);
            return !status.mountPath.isEmpty() && !status.ready && status.nHeld > 0;
        })) << player->says();
        if (bySignal) {
            player->signal(SIGINT);
        } else {
            server->stop();
            server->setLatency(0);
            offerOtherVersion();
            server->start();
        }
        EXPECT_EQ(player->end(), 1) << player->says();
        EXPECT_THAT(player->says(), HasSubstr(bySignal ? "stopped" : "has another version"));
        EXPECT_FALSE(isMounted());
    }
}

TEST_F(StreamRun, AKilledRunLeavesItsApplicationToTheNext) {
    server->setRate(6'000'000);
    hold();
    const auto first = start();
    const auto isNoted = [&] {
        return hasStarted() && dir.read("got/stream.json").find("application") != string::npos;
    };
    ASSERT_TRUE(eventually(isNoted)) << first->says();
    const auto other = start();
    EXPECT_EQ(other->end(), 1);
    EXPECT_THAT(other->says(), HasSubstr("is in use by process"));
    first->signal(SIGKILL);
    first->end();
    ZqMountMgr().suspend(SxString(got));
    const auto next = start({"--trace-seconds", "1"});
    ASSERT_TRUE(SxWait::pass(20'000, [&] { return hasPlayed(); })) << next->says();
    EXPECT_TRUE(eventually([&] { return !ZqMountMgr().isMonitored(SxString(got)); }));
    release();
    EXPECT_EQ(next->end(), 0) << next->says();
    EXPECT_THAT(next->says(), HasSubstr("its exit code is unknown"));
    expectPlayed();
    EXPECT_FALSE(isMounted());
}

TEST_F(StreamRun, NoSecondApplicationIsStartedBesideOneWhoseDriveHasGone) {
    hold();
    const auto first = start();
    const auto noted = [&] {
        ZqStreamRecord record;
        record.read(SxString(got));
        return SxProcessGroup::fromText(record.application);
    };
    ASSERT_TRUE(eventually([&] { return hasStarted() && noted().isAlive(); })) << first->says();
    const SxProcessGroup application = noted();
    const int64 service = statusOf(got).servicePid;
    first->signal(SIGKILL);
    first->end();
    ::kill(static_cast<pid_t>(service), SIGKILL);
    ASSERT_TRUE(eventually([&] { return !isRunning(service); }));
    for (int i = 0; i < 2; ++i) {
        const auto second = start();
        EXPECT_EQ(second->end(), 1);
        EXPECT_THAT(second->says(), HasSubstr("still runs (process " + std::to_string(application.getId()) +
                                              "), and its drive has gone"));
        EXPECT_TRUE(application.isAlive());
        EXPECT_FALSE(isMounted());
    }
    application.kill();
    ASSERT_TRUE(eventually([&] { return !application.isAlive(); }));
    release();
    fs::remove(played + ".started");
    const auto last = start();
    EXPECT_EQ(last->end(), 0) << last->says();
    expectPlayed();
    EXPECT_FALSE(noted().isValid()) << "what it leaves would keep the next from starting";
}

TEST_F(StreamRun, WhatIsStillOpenAtItsEndIsTold) {
    for (const auto mode : {ZqMountMgr::ReadTWLayer, ZqMountMgr::ReadOnly}) {
        SCOPED_TRACE(mode);
        ZqAppParams app(SxString(served + "/"));
        app.mountMode = mode;
        app.write();
        fs::remove_all(got);
        hold();
        const auto player = start();
        ASSERT_TRUE(SxWait::pass(20'000, [&] { return hasStarted(); })) << player->says();
        const std::ifstream file(statusOf(got).mountPath.str() + "/TAVRIN-protected/app/big.pak");
        ASSERT_TRUE(file.is_open());
        release();
        EXPECT_EQ(player->end(), 0) << player->says();
        const auto told = HasSubstr("what it wrote after that is lost");
        EXPECT_EQ(testing::Matches(told)(player->says()), mode != ZqMountMgr::ReadOnly) << player->says();
        expectPlayed();
    }
}

TEST_F(StreamRun, RecordsNoLongerAndKeepsNoMoreThanItIsTold) {
    const auto traces = [&] {
        std::set<string> names;
        if (!fs::exists(got + "/traces")) return names;
        for (const auto& entry : fs::directory_iterator(got + "/traces"))
            names.insert(entry.path().filename().string());
        return names;
    };
    {
        const auto player = start({"--now", "--no-trace"});
        EXPECT_EQ(player->end(), 0) << player->says();
        expectPlayed();
        EXPECT_THAT(traces(), testing::IsEmpty());
    }
    dir.write("got/traces/brought/img.trc", "");
    std::set<string> former;
    for (int i = 0; i < 2; ++i) {
        hold();
        fs::remove(played + ".started");
        const auto player = start({"--now", "--trace-seconds", "1", "--keep-traces", "1"});
        ASSERT_TRUE(SxWait::pass(20'000, [&] { return hasStarted(); })) << player->says();
        EXPECT_TRUE(eventually([&] {
            return run({"status", got, "--json"}).out.find("\"monitored\": false") != string::npos;
        }));
        release();
        EXPECT_EQ(player->end(), 0) << player->says();
        EXPECT_EQ(traces().size(), 2U);
        EXPECT_TRUE(traces().count("brought"));
        EXPECT_NE(traces(), former) << "the newest one isn't that which stays";
        former = traces();
    }
    // A mount that fails has made its folder by then.
    dir.write("got/img.idx.md5", "wrong");
    EXPECT_THAT(run({"run", got}).err, HasSubstr("Corrupt mapping information"));
    EXPECT_EQ(traces(), former);
    fs::remove(got + "/img.idx.md5");
    // Whoever reads the drive later isn't the application that the trace is of.
    done({"run", got, "--keep-mounted"});
    EXPECT_TRUE(isMounted());
    EXPECT_THAT(run({"status", got, "--json"}).out, HasSubstr("\"monitored\": false"));
    done({"umount", got});
}

TEST_F(StreamRun, RecordsThatAKilledRunDidntGetAreFetched) {
    const uint64 nTotal = fs::file_size(served + "/img.zqf");
    for (const uint64 nThere : {uint64{100'000}, nTotal}) {
        SCOPED_TRACE(nThere);
        fs::remove_all(got);
        fs::create_directories(got);
        for (const char* name : {"/app.json", "/img.zqf"})
            fs::copy_file(served + name, got + name);
        fs::resize_file(got + "/img.zqf", nThere);
        dir.write("got/img.idx.tmp", "cut off");
        const auto player = start({"--now", "--report", dir.path("report.json")});
        EXPECT_EQ(player->end(), 0) << player->says();
        expectPlayed();
        const string report = dir.read("report.json");
        EXPECT_THAT(report, HasSubstr("\"dataAtStart\": " + std::to_string(nThere)));
        EXPECT_THAT(report, HasSubstr("\"downloadFromZero\": false"));
        fs::remove(got + "/app.json");
        const auto refused = start();
        EXPECT_EQ(refused->end(), 1);
        EXPECT_THAT(refused->says(), HasSubstr("without its app.json"));
    }
}

TEST_F(StreamRun, AnApplicationThatCannotBeStartedIsAFailure) {
    ZqAppParams app(SxString(served + "/"));
    app.cmd = "{{ZQDRIVE}}/TAVRIN-protected/app/start.cfg";
    app.write();
    const auto player = start();
    EXPECT_EQ(player->end(), 1);
    EXPECT_THAT(player->says(), testing::AllOf(HasSubstr("start.cfg"), HasSubstr("ermission denied"),
                                               Not(HasSubstr("has ended"))));
    EXPECT_FALSE(isMounted());
    // Nor does a launcher's process that never comes leave the player without a word.
    fs::remove_all(got);
    app.cmd = "/bin/true";
    app.name = "a-game-that-never-comes";
    app.write();
    const auto launcher = start();
    const string waits = "waiting for the process 'a-game-that-never-comes'";
    EXPECT_TRUE(SxWait::pass(20'000, [&] { return launcher->says().find(waits) != string::npos; }))
        << launcher->says();
    launcher->signal(SIGINT);
    EXPECT_EQ(launcher->end(), 1);
}

TEST_F(StreamRun, ADriveThatGoesUnderItsApplicationIsAFailure) {
    for (const bool isUnmounted : {false, true}) {
        SCOPED_TRACE(isUnmounted ? "unmounted" : "killed");
        server->setRate(500'000);
        // It wouldn't end by itself.
        hold();
        const auto player = start({"--now", "--page", dir.path("page.html")});
        ASSERT_TRUE(eventually([&] { return hasStarted(); })) << player->says();
        if (isUnmounted) {
            done({"umount", got, "--force"});
        } else {
            ::kill(static_cast<pid_t>(statusOf(got).servicePid), SIGKILL);
        }
        EXPECT_EQ(player->end(), 1) << player->says();
        const string page = dir.read("page.html");
        EXPECT_EQ(XmlCheck::faultOf(page), "");
        EXPECT_THAT(page,
                    testing::AllOf(HasSubstr("class=\"failure\">The drive of "), HasSubstr(">Start, ")));
        EXPECT_THAT(player->says(), HasSubstr("The drive of '" + got + "' has gone"));
        EXPECT_THAT(leftovers(), testing::IsEmpty());
        release();
        fs::remove(played);
        fs::remove(played + ".started");
    }
    server->setRate(0);
    EXPECT_EQ(start()->end(), 0);
    expectPlayed();
}

TEST_F(StreamRun, ARecordThatDoesntFitIsTakenFromTheMendedServer) {
    const string right = dir.read("served/img.json"), app = dir.read("served/app.json");
    string other = right;
    other.insert(other.find("\"sizeRaw\": ") + 11, "1");
    for (const string& wrong : {string("{"), other}) {
        fs::remove_all(got);
        fs::create_directories(got);
        for (const char* name : {"/app.json", "/img.zqf"})
            fs::copy_file(served + name, got + name);
        fs::resize_file(got + "/img.zqf", 100'000);
        dir.write("served/img.json", wrong);
        const auto refused = start();
        EXPECT_EQ(refused->end(), 1);
        EXPECT_THAT(refused->says(), HasSubstr("Cannot use '" + server->getUrl().str() + "img.json'"));
        dir.write("served/img.json", right);
        const auto player = start();
        EXPECT_EQ(player->end(), 0) << player->says();
        expectPlayed();
    }
    dir.write("served/img.json", right + string(SxFileIO::MAX_TEXT, ' '));
    fs::remove_all(got);
    const auto tooLarge = start();
    EXPECT_EQ(tooLarge->end(), 1);
    EXPECT_THAT(tooLarge->says(), HasSubstr("no more than 16777216 were expected"));
    dir.write("served/img.json", right);
    fs::remove_all(got);
    string newer = app;
    newer.replace(newer.find("\"zqfVersion\": 1"), 15, "\"zqfVersion\": 2");
    dir.write("served/app.json", newer);
    const auto tooNew = start();
    EXPECT_EQ(tooNew->end(), 1);
    EXPECT_THAT(tooNew->says(), testing::AllOf(HasSubstr(server->getUrl().str() + "app.json'"),
                                               HasSubstr("this program knows formats up to 1")));
    dir.write("served/app.json", app);
    // A mount that needs more than there is says so in the end, and isn't waited for.
    fs::remove_all(got);
    string beyond = app;
    beyond.insert(beyond.find("\"sizeMnt\": ") + 11, "999999999");
    dir.write("served/app.json", beyond);
    const auto player = start();
    EXPECT_EQ(player->end(), 1) << player->says();
    EXPECT_THAT(player->says(), HasSubstr("Insufficient data"));
}

TEST_F(StreamRun, ABadServerCostsTimeAndNoByte) {
    server->setRate(10'000'000);
    server->setFault(ZqFileServer::Drop10);
    server->setFault(ZqFileServer::Close);
    const auto player = start();
    ASSERT_TRUE(eventually([&] { return server->getNBytes("img.zqf") > 1'000'000; })) << player->says();
    server->setFault(ZqFileServer::Error500);
    SxTime::msleep(700);
    server->setFault(ZqFileServer::Error500, false);
    server->stop();
    SxTime::msleep(700);
    server->start();
    EXPECT_EQ(player->end(), 0) << player->says();
    expectPlayed();
}

TEST_F(StreamRun, AStallIsToldAndGoesOn) {
    server->setRate(2'000'000);
    const auto player = start();
    ASSERT_TRUE(SxWait::pass(20'000, [&] { return hasStarted(); })) << player->says();
    // Half of a body each time would be something still.
    server->setRate(1);
    ASSERT_TRUE(SxWait::pass(40'000, [&] { return player->says().find(" s, asked ") != string::npos; }))
        << player->says();
    const string said = player->says(), silent = "waiting for the server: no data for ",
                 away = "offline for ";
    const size_t awayAt = said.find(away), silentAt = said.rfind(silent, awayAt);
    ASSERT_NE(silentAt, string::npos) << said;
    EXPECT_GE(std::stoi(said.substr(awayAt + away.size())), std::stoi(said.substr(silentAt + silent.size())))
        << "the time of one silence begins anew: " << said;
    EXPECT_FALSE(hasPlayed());
    server->stop();
    server->setRate(0);
    // For a while it answers 404.
    fs::rename(served + "/img.zqf", served + "/away");
    server->start();
    EXPECT_TRUE(SxWait::pass(20'000, [&] {
        return player->says().find("waiting for the server: the server answers 404") != string::npos;
    })) << player->says();
    fs::rename(served + "/away", served + "/img.zqf");
    EXPECT_EQ(player->end(), 0) << player->says();
    expectPlayed();
}

TEST_F(StreamRun, TheDownloadMayEndAtAnyMomentOfBothMounts) {
    bool wasUp = false, wasGone = false;
    const auto look = [&](int moment) {
        const ZqDiskStatus status = statusOf(got);
        const bool isUp = !status.image.isEmpty();
        wasGone = wasGone || (wasUp && !isUp);
        wasUp = wasUp || isUp;
        const bool isReached[] = {isUp, wasGone, wasGone && isUp, status.ready};
        // A moment may be too short to be seen; then the next will do.
        return std::any_of(isReached + moment, std::end(isReached), [](bool is) { return is; });
    };
    for (int moment = 0; moment < 4; ++moment) {
        SCOPED_TRACE(moment);
        wasUp = wasGone = false;
        fs::remove_all(got);
        fs::copy(served, got);
        fs::resize_file(got + "/img.zqf", fs::file_size(got + "/img.zqf") - 600'000);
        const uint64 before = server->getNBytes("app.json");
        server->setLatency(600);
        const auto player = start();
        ASSERT_TRUE(eventually([&] { return server->getNBytes("app.json") > before; })) << player->says();
        server->setLatency(3'600'000);
        ASSERT_TRUE(SxWait::pass(
            20'000, [&] { return look(moment); }, 1))
            << player->says();
        EXPECT_LT(fs::file_size(got + "/img.zqf"), fs::file_size(served + "/img.zqf"));
        server->setLatency(0);
        EXPECT_EQ(player->end(), 0) << player->says();
        expectPlayed();
    }
}

TEST_F(StreamRun, NothingIsWrittenBeyondALink) {
    fs::create_directories(got);
    for (const char* name : {"/app.json", "/img.json"})
        fs::copy_file(served + name, got + name);
    const string elsewhere = dir.path("elsewhere");
    fs::create_directory(elsewhere);
    for (const char* name : {"img.zqf", "traces"}) {
        fs::create_symlink(elsewhere + (string(name) == "traces" ? "" : "/x"), got + "/" + name);
        const auto refused = start();
        EXPECT_EQ(refused->end(), 1);
        EXPECT_THAT(refused->says(), HasSubstr("' is a link, and "));
        fs::remove(got + "/" + name);
    }
    for (const char* name : {"write.log", "test.dat", "onDemand.dat"})
        fs::create_symlink(elsewhere + "/x", got + "/" + name);
    const auto player = start();
    EXPECT_EQ(player->end(), 0) << player->says();
    EXPECT_TRUE(fs::is_empty(elsewhere));
}

TEST_F(StreamRun, AnImageThatIsRemovedIsToldInASentence) {
    server->setRate(500'000);
    const auto player = start();
    const auto isNoted = [&] {
        return hasStarted() && dir.read("got/stream.json").find("application") != string::npos;
    };
    ASSERT_TRUE(eventually(isNoted)) << player->says();
    // What the run makes at the same moment may be in the way of the folder.
    ASSERT_TRUE(eventually([&] {
        std::error_code error;
        fs::remove_all(got, error);
        return !fs::exists(got);
    }));
    server->setRate(0);
    EXPECT_EQ(player->end(), 1);
    EXPECT_THAT(player->says(), testing::AllOf(HasSubstr("was removed"), Not(HasSubstr("src/"))));
    EXPECT_FALSE(fs::exists(got));
    EXPECT_FALSE(isMounted());
}

TEST_F(StreamRun, AMountIsFedUntilItIsTakenAway) {
    server->setRate(10'000'000);
    for (const bool bySignal : {false, true}) {
        const string url = server->getUrl().str() + (bySignal ? "?token=a/b" : "");
        Client feeder(client, {"mount", got, "--url", url}, dir.path("fed"));
        ASSERT_TRUE(eventually([&] { return statusOf(got).ready; })) << feeder.says();
        const string app = statusOf(got).mountPath.str() + "/TAVRIN-protected/app/";
        EXPECT_TRUE(eventually([&] { return feeder.says().find("Mounted as") != string::npos; }));
        EXPECT_TRUE(SxMd5::file(SxString(app + "big.pak")) == SxMd5::file(SxString(source + "/big.pak")));
        if (bySignal) {
            feeder.signal(SIGTERM);
        } else {
            done({"umount", got});
        }
        EXPECT_EQ(feeder.end(5000), 0) << feeder.says();
        EXPECT_FALSE(isMounted());
    }
}
