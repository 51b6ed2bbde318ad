#include "UnderflowRun.h"

#include "SxProcess.h"

namespace {

const std::string MAIN = "ZqCoreUnderflowMgr::main: ";

/// Adds to a run whose callback fails until it is told otherwise.
class HardRun : public UnderflowRun {
public:
    explicit HardRun(bool suspendDrive = true) {
        app.suspendDrive = suspendDrive;
        script = [this](uint64 offset, uint64 length, char* data) {
            return fails ? 1 : fill(offset, length, data);
        };
        start();
        begin();
        fails = true;
        readBlock(170);
    }
    bool fails = false;
};

} // namespace

TEST(Underflow, NoneAtAll) {
    UnderflowRun run;
    run.driver.mounted = false;
    run.start();
    run.sleep(30000);
    run.driver.mounted = true;
    const int64 nCalls = run.driver.nCalls;
    run.sleep(30000);
    EXPECT_TRUE(run.mgr->isRunning());
    EXPECT_LE(run.driver.nCalls - nCalls, 3000 + 2) << "one call for each look";
    EXPECT_EQ(run.desktop.nSearches, 0);
    const int64 t0 = run.nowMs();
    run.stop();
    EXPECT_LE(run.nowMs() - t0, 10);
    EXPECT_EQ(
        run.dir.read("image/onDemand.dat"),
        "#   minutes     nOnDemandFetches       nOnDemandBytes        nOnDemandRate       nOnDemandQueue\n");
    EXPECT_THAT(run.log(), ElementsAre("Total 0 requests.", "Avg request index: 0", "Min request index: 0",
                                       "Max request index: 0"));
    EXPECT_EQ(run.failure(), "");
}

TEST(Underflow, MinimisesUntilItIsResolved) {
    enum Way { Fetched, Downloaded, Gone, Restored, Stopped, Unmounted };
    for (const Way way : {Fetched, Downloaded, Gone, Restored, Stopped, Unmounted}) {
        for (const bool suspendDrive : {true, false}) {
            SCOPED_TRACE("way " + std::to_string(way) + (suspendDrive ? ", suspended" : ""));
            HardRun run(suspendDrive);
            run.sleep(50);
            EXPECT_TRUE(run.mgr->isMinimized() && run.mgr->isUnderflow());
            EXPECT_THAT(run.desktop.notes, ElementsAre("minimise 77"));
            EXPECT_EQ(run.driver.suspended, suspendDrive);
            EXPECT_EQ(run.nLogged(MAIN + "Underflow for block 150 detected. ETA : 614"), 1);
            EXPECT_EQ(run.nLogged("ZqCoreUnderflowMgr::minimizeApp: Minimizing [The Game] [77]"), 1);
            EXPECT_EQ(run.nLogged(MAIN + "Minimized"), 1);
            EXPECT_EQ(run.mgr->getUnderflowETA(), 614U) << "at 1000 bytes a second, the least that counts";
            EXPECT_EQ(run.requests.size(), 1U) << "the next try is a second away";
            run.sleep(2500);
            EXPECT_EQ(run.driver.notes.size(), suspendDrive ? 1U : 0U);

            const int64 t0 = run.nowMs();
            switch (way) {
            case Fetched:
                run.fails = false;
                break;
            case Downloaded:
                run.progress->setNCurrent(3 * STRETCH + 1);
                break;
            case Gone:
                run.driver.queue.clear();
                break;
            case Restored:
                run.desktop.windows[run.GAME].iconic = false;
                run.mgr->maximizeApp();
                EXPECT_FALSE(run.mgr->isMinimized());
                run.driver.queue.clear();
                break;
            case Stopped:
                run.mgr->stop();
                break;
            case Unmounted:
                run.driver.mounted = false;
                break;
            }
            if (way == Downloaded && !suspendDrive) {
                run.sleep(3000);
                EXPECT_TRUE(run.mgr->isUnderflow()) << "the driver alone tells";
                continue;
            }
            const bool ends = way == Stopped || way == Unmounted;
            EXPECT_TRUE(
                run.await([&] { return ends ? !run.mgr->isRunning() : !run.mgr->isUnderflow(); }, 1200));
            EXPECT_LE(run.nowMs() - t0, way == Fetched ? 1010 : 20);
            EXPECT_EQ(run.driver.suspended, suspendDrive && way == Unmounted);
            if (ends) continue;

            EXPECT_EQ(run.nLogged(MAIN + "Underflow resolved."), 1);
            const ZqRuntimeInfo info = run.mgr->getRuntimeInfo();
            EXPECT_EQ(info.nUnderflows, 1);
            EXPECT_EQ(info.maxUnderflowSize, static_cast<int64>(3 * STRETCH));
            EXPECT_NEAR(static_cast<double>(info.avgUnderflowTime), static_cast<double>(run.nowMs()), 120);
            if (way == Restored) continue;
            run.driver.queue.clear();
            run.sleep(2000);
            EXPECT_TRUE(run.mgr->isMinimized()) << "the player alone brings it back";
            run.desktop.windows[run.GAME].iconic = false;
            run.sleep(20);
            EXPECT_FALSE(run.mgr->isMinimized());
        }
    }
}

TEST(Underflow, ThePlayerMinimises) {
    UnderflowRun run;
    run.start();
    run.begin();
    run.desktop.windows[run.GAME].iconic = true;
    run.sleep(20);
    EXPECT_TRUE(run.mgr->isMinimized());
    run.readBlock(60);
    run.sleep(30);
    EXPECT_TRUE(run.isAnswered());
    run.desktop.windows[run.GAME].iconic = false;
    run.sleep(20);
    EXPECT_FALSE(run.mgr->isMinimized());
    EXPECT_EQ(run.mgr->getRuntimeInfo().nUnderflows, 0);
    EXPECT_EQ(run.mgr->getNTakenAway(), 0);
    EXPECT_EQ(run.nLogged("ZqCoreUnderflowMgr::"), 0);
}

TEST(Underflow, OneThatGoesByItselfIsNotCounted) {
    UnderflowRun run;
    run.app.suspendDrive = true;
    run.script = [&](uint64 offset, uint64 length, char* data) {
        return offset == 0 ? run.fill(offset, length, data) : 1;
    };
    run.start();
    run.begin();
    run.driver.onCall = [&](const std::string& name) {
        if (name == "Suspend") run.driver.queue.clear();
    };
    run.readBlock(60);
    run.sleep(30);
    EXPECT_THAT(run.driver.notes, ElementsAre("Suspend", "Resume"));
    EXPECT_EQ(run.mgr->getRuntimeInfo().nUnderflows, 0);
    EXPECT_FALSE(run.mgr->isMinimized() || run.mgr->isUnderflow());
    EXPECT_THAT(run.desktop.notes, IsEmpty());
}

TEST(Underflow, AFailureEndsTheRunWithAReport) {
    struct Case {
        const char* call;
        int nth;
        const char* text;
    };
    const Case cases[] = {
        {"FindDisk", 1, "Cannot query mount state for image "},
        {"FindDisk", 300, "Cannot query mount state for image "},
        {"Suspend", 1, "Cannot suspend disk for image "},
        {"Resume", 1, "Cannot resume disk for image "},
        {"getTitle", 1, "App minimization failed"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.call) + " " + std::to_string(c.nth));
        HardRun run;
        run.driver.fail(c.call, c.nth, "why");
        run.desktop.fails = c.call == std::string("getTitle");
        run.progress->setNCurrent(1);
        run.sleep(1500);
        run.progress->setNCurrent(run.SIZE);
        EXPECT_TRUE(run.await([&] { return !run.mgr->isRunning(); }, 1500));
        EXPECT_THAT(run.failure(), StartsWith(c.text));
        EXPECT_EQ(run.failure(), "") << "it is told once";
        EXPECT_FALSE(run.mgr->hasException());
        EXPECT_GE(run.nLogged(MAIN + c.text), 1);
        EXPECT_EQ(run.nLogged("Total 1 requests."), 1);
        const bool canResume = c.call != std::string("FindDisk") && c.call != std::string("Resume");
        EXPECT_FALSE(canResume && run.driver.suspended);
    }
}

TEST(Underflow, ASilentServiceChangesNothing) {
    struct Case {
        const char* call;
        int nth;
        bool isDownloaded; ///< by the ordered download, in the end
    };
    const Case cases[] = {
        {"FindDisk", 1, false},
        {"FindDisk", 2, true},
        {"FindDisk", 4, false},
        {"FindDisk", 300, true},
        {"FindDisk", 301, false},
        {"Suspend", 1, false},
        {"Resume", 1, true},
        {"PopUnderflowZqFBlocks", 2, false},
        {"ResolveUnderflow", 1, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.call << " " << c.nth);
        HardRun run;
        int nCalls = 0;
        run.driver.onCall = [&](const std::string& name) {
            if (name == c.call && ++nCalls == c.nth) run.driver.silence(50'000);
        };
        run.sleep(55'000);
        EXPECT_TRUE(run.mgr->isRunning() && run.mgr->isUnderflow() && run.mgr->isMinimized());
        run.fails = c.isDownloaded;
        if (c.isDownloaded) run.progress->setNCurrent(3 * STRETCH + 1);
        EXPECT_TRUE(run.await([&] { return !run.mgr->isUnderflow(); }, 55'000));
        EXPECT_GE(nCalls, c.nth);
        EXPECT_THAT(run.desktop.notes, ElementsAre("minimise 77"));
        EXPECT_TRUE(run.mgr->isMinimized()) << "else nobody knows that it is to be brought back";
        EXPECT_FALSE(run.driver.suspended);
        EXPECT_TRUE(run.isDeliveryRight());
        EXPECT_EQ(run.isAnswered(), !c.isDownloaded);
        EXPECT_EQ(run.mgr->getNTakenAway(), 1);
        EXPECT_EQ(run.mgr->getRuntimeInfo().nUnderflows, 1);
        EXPECT_EQ(run.nLogged("The drive service doesn't answer"), 1) << "once for each silence";
        EXPECT_EQ(run.failure(), "");
    }
}

TEST(Underflow, AStopEndsTheWaitForASilentService) {
    HardRun run;
    run.sleep(2500);
    run.driver.silence(10'000'000);
    run.sleep(100'000);
    const int64 t0 = run.nowMs();
    run.stop();
    EXPECT_LE(run.nowMs() - t0, 2 * 20'000 + 100)
        << "the answer that it waits for, and that to its last call";
    EXPECT_EQ(run.failure(), "");
}

TEST(Underflow, WhatAFailureLeavesOpenIsGoneOnWith) {
    for (const bool isOver : {false, true}) {
        SCOPED_TRACE(isOver ? "over meanwhile" : "still there");
        HardRun run(false);
        run.sleep(2500);
        run.driver.fail("FindDisk", 1, "why");
        EXPECT_TRUE(run.await([&] { return !run.mgr->isRunning(); }, 1500));
        run.driver.mend("FindDisk");
        EXPECT_TRUE(run.mgr->isUnderflow() && run.mgr->isMinimized());
        if (isOver) run.driver.queue.clear();
        run.mgr->wait();
        run.launch();
        if (!isOver) {
            run.sleep(3000);
            EXPECT_TRUE(run.mgr->isUnderflow() && run.mgr->isMinimized());
            run.fails = false;
        }
        EXPECT_TRUE(run.await([&] { return !run.mgr->isUnderflow(); }, 1200));
        EXPECT_TRUE(run.mgr->isMinimized());
        run.mgr->maximizeApp();
        EXPECT_THAT(run.desktop.notes, ElementsAre("minimise 77", "show 77", "activate 77"));
        const ZqRuntimeInfo info = run.mgr->getRuntimeInfo();
        EXPECT_EQ(info.nUnderflows, 1);
        EXPECT_NEAR(static_cast<double>(info.maxUnderflowTime), static_cast<double>(run.nowMs()), 150);
        run.sleep(2000);
        EXPECT_EQ(run.mgr->getRuntimeInfo().maxUnderflowTime, info.maxUnderflowTime);
    }
}

TEST(Underflow, OneCountsOnceHoweverOftenItIsMet) {
    HardRun run;
    run.sleep(2500);
    // The player brings the window back before its time.
    run.desktop.windows[run.GAME].iconic = false;
    run.mgr->maximizeApp();
    run.sleep(2500);
    EXPECT_THAT(run.desktop.notes, testing::Contains("minimise 77").Times(2));
    run.mgr->restart();
    run.sleep(2500);
    EXPECT_EQ(run.mgr->getRuntimeInfo().nUnderflows, 1);
    run.fails = false;
    EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 1200));
    run.sleep(20);
    const ZqRuntimeInfo info = run.mgr->getRuntimeInfo();
    EXPECT_NEAR(static_cast<double>(info.maxUnderflowTime), static_cast<double>(run.nowMs()), 150);
    EXPECT_EQ(info.avgUnderflowTime, info.maxUnderflowTime);
}

TEST(Underflow, WithoutASourceItIsMinimisedAlone) {
    UnderflowRun run;
    run.app.suspendDrive = true;
    run.readBlock(60);
    run.start(false);
    run.sleep(2050);
    EXPECT_EQ(run.nLogged("No underflow callback configured"), 1);
    EXPECT_EQ(run.nLogged("Cannot resolve by on-demand request"), 3) << "a line a second";
    run.driver.clock().adjustSystem(-3'600'000);
    run.driver.queue.clear();
    run.sleep(30);
    run.readBlock(60);
    run.sleep(30);
    EXPECT_TRUE(run.mgr->isMinimized());
    EXPECT_EQ(run.mgr->getRuntimeInfo().nUnderflows, 2);
    EXPECT_NEAR(static_cast<double>(run.mgr->getRuntimeInfo().maxUnderflowTime), 2050, 20);
    run.driver.queue.clear();
    run.sleep(30);
    EXPECT_FALSE(run.driver.suspended || run.mgr->isUnderflow());
}

TEST(Underflow, OneThatIsOpenHasItsDurationInTheFigures) {
    for (const bool hasWindowSearch : {true, false}) {
        for (const bool isStopped : {true, false}) {
            SCOPED_TRACE(testing::Message() << hasWindowSearch << isStopped);
            UnderflowRun run;
            run.make(false);
            run.mgr->setWindowSearch(hasWindowSearch);
            run.launch();
            run.readBlock(60);
            // With windows it goes over from the search for them to the turns.
            run.sleep(20'000);
            const auto longest = [&] {
                return static_cast<double>(run.mgr->getRuntimeInfo().maxUnderflowTime);
            };
            EXPECT_EQ(run.mgr->getRuntimeInfo().nUnderflows, 1);
            EXPECT_NEAR(longest(), 20'000, 20);
            run.sleep(1'000);
            EXPECT_NEAR(longest(), 21'000, 20);
            if (isStopped) {
                run.stop();
            } else {
                run.driver.mounted = false;
                run.driver.queue.clear();
                EXPECT_TRUE(run.await([&] { return !run.mgr->isRunning(); }, 1500) || !hasWindowSearch);
                run.stop();
            }
            const double atEnd = longest();
            EXPECT_NEAR(atEnd, 21'000, 20 + 1500 * !isStopped);
            run.sleep(5'000);
            EXPECT_EQ(longest(), atEnd);
            EXPECT_EQ(static_cast<double>(run.mgr->getRuntimeInfo().avgUnderflowTime), atEnd);
        }
    }
}

TEST(Underflow, TheWindowIsSearched) {
    const TempDir programs;
    const std::string name = "underflow-test-game";
    std::filesystem::copy("/bin/sleep", programs.path(name));
    SxProcess process(SxString(programs.path(name)), {"600"}, SxProcess::Silent);
    process.start();
    struct Case {
        const char* name;
        std::function<void(UnderflowRun& run)> arrange;
        ZqDesktop::Handle found;
        bool isWanted = true;
    };
    const auto setPid = [&](UnderflowRun& run) {
        run.desktop.windows[run.GAME].pid = static_cast<int>(process.getId());
    };
    const Case cases[] = {
        {"by title", [](UnderflowRun& run) { run.app.window = "The Game"; }, UnderflowRun::GAME},
        {"by name",
         [&](UnderflowRun& run) {
             setPid(run);
             run.app.name = SxString(name);
         },
         UnderflowRun::GAME},
        {"by command",
         [&](UnderflowRun& run) {
             setPid(run);
             run.app.cmd = SxString("{{ZQDRIVE}}\\bin/" + name);
         },
         UnderflowRun::GAME},
        {"what has the foreground wins",
         [](UnderflowRun& run) {
             run.app.window = "The Game";
             run.desktop.windows[5].title = "Another";
             run.desktop.foreground = 5;
         },
         5},
        {"nothing there", [](UnderflowRun& run) { run.app.window = "Game"; }, 0},
        {"not wanted", [](UnderflowRun& run) { run.desktop.foreground = run.GAME; }, 0, false},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        UnderflowRun run;
        run.desktop.foreground = 0;
        c.arrange(run);
        run.make();
        run.mgr->setWindowSearch(c.isWanted);
        run.mgr->findAppWindow(0);
        EXPECT_EQ(run.desktop.nSearches > 0, c.isWanted);
        run.mgr->minimizeApp();
        run.mgr->maximizeApp();
        const std::string handle = std::to_string(c.found);
        if (c.found == 0) {
            EXPECT_THAT(run.desktop.notes, IsEmpty());
        } else {
            EXPECT_THAT(run.desktop.notes,
                        ElementsAre("minimise " + handle, "show " + handle, "activate " + handle));
        }
        EXPECT_EQ(run.nLogged("ZqCoreUnderflowMgr::maximizeApp: Restore ["), 1);
        EXPECT_LE(run.nowMs(), 100 + 10);
    }
    process.kill();
    process.wait();
}

TEST(Underflow, TheDelayBeforeTheSearchResolvesAtOnce) {
    UnderflowRun run;
    run.app.underflowDelay = 5;
    run.app.suspendDrive = true;
    run.desktop.windows[9] = {"The Game (not responding)", "Ghost", 0, false};
    run.start();
    run.readBlock(0);
    run.sleep(1000);
    EXPECT_EQ(run.desktop.nSearches, 0) << "an underflow that is fetched shows no ghost";
    for (uint64 zqfIdx = 50; zqfIdx < 250; zqfIdx += 50) {
        run.readBlock(zqfIdx);
        EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 15)) << "a look is 10 ms away";
        run.sleep(7);
    }
    run.script = [](uint64, uint64, char*) { return 1; };
    run.mgr->setWindowSearch(false);
    run.readBlock(250);
    run.sleep(300);
    EXPECT_EQ(run.desktop.nSearches, 0) << "no window is the application's yet";
    run.mgr->setWindowSearch(true);
    run.sleep(200);
    EXPECT_EQ(
        run.nLogged("checkInstantUnderflow: Minimizing Ghost Window [9] named [The Game (not responding)]"),
        1);
    EXPECT_THAT(run.desktop.notes, ElementsAre("post minimise 9"));
    EXPECT_EQ(run.driver.suspended, false);
    run.script = nullptr;
    EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 1100));
    const int64 nSearches = run.desktop.nSearches;
    EXPECT_FALSE(run.await([&] { return run.desktop.nSearches > nSearches; }, 3000));
    EXPECT_TRUE(run.await([&] { return run.desktop.nSearches > nSearches; }, 1500));
}

TEST(Underflow, TheDelayEndsWithAnUnderflowThatLastsAndWithTheDrive) {
    for (const bool unmounts : {false, true}) {
        UnderflowRun run;
        run.app.underflowDelay = 20;
        run.make();
        run.sleep(10);
        run.readBlock(0);
        bool fails = !unmounts;
        run.script = [&](uint64 offset, uint64 length, char* data) {
            return fails ? 1 : run.fill(offset, length, data);
        };
        run.launch();
        run.sleep(unmounts ? 5000 : 20'500);
        if (unmounts) {
            run.driver.mounted = false;
            EXPECT_TRUE(run.await([&] { return !run.mgr->isRunning(); }, 30));
            continue;
        }
        EXPECT_THAT(run.desktop.notes, ElementsAre("minimise 77"));
        EXPECT_EQ(run.mgr->getNTakenAway(), 1);
        fails = false;
        EXPECT_TRUE(run.await([&] { return run.isAnswered() && !run.mgr->isUnderflow(); }, 1100));
        EXPECT_EQ(run.mgr->getRuntimeInfo().nUnderflows, 1);
    }
}

TEST(Underflow, RestartBeginsAnew) {
    UnderflowRun run;
    run.app.underflowDelay = 2;
    run.make();
    run.mgr->setWindowSearch(false);
    run.launch();
    run.readBlock(0);
    run.sleep(100000);
    run.driver.clock().adjustSystem(-3'600'000);
    run.sleep(100000);
    run.readBlock(60);
    run.sleep(20);
    EXPECT_TRUE(run.isAnswered());
    EXPECT_EQ(run.desktop.nSearches, 0);
    run.mgr->setWindowSearch(true);
    run.mgr->restart();
    run.mgr->restart();
    run.sleep(5000);
    EXPECT_EQ(run.desktop.nSearches, 0) << "the delay counts from the next underflow";
    run.readBlock(110);
    run.sleep(2100);
    EXPECT_GT(run.desktop.nSearches, 0);
    run.stop();
    run.driver.mounted = false;
    run.mgr->start();
    run.mgr->stop();
    run.mgr->wait();
    EXPECT_EQ(run.mgr->getRuntimeInfo().nOnDemandFetches, 3);
    const std::string rows = run.dir.read("image/onDemand.dat");
    const std::string head = rows.substr(0, rows.find('\n') + 1);
    EXPECT_EQ(rows, head + "          0                    1               204800                    1       "
                           "             1\n"
                           "          1                    1               204800                    0       "
                           "             1\n"
                           "          2                    1               204800                    0       "
                           "             1\n"
                           "          3                    1               204800                    0       "
                           "             1\n");
}

TEST(Underflow, StatisticsThatCannotBeWrittenDoNotMatter) {
    UnderflowRun run;
    std::filesystem::create_directory(run.dir.path("image/onDemand.dat"));
    run.start();
    run.begin();
    run.readBlock(60);
    run.sleep(70000);
    EXPECT_TRUE(run.isAnswered() && run.mgr->isRunning());
    run.stop();
    EXPECT_EQ(run.failure(), "");
}
