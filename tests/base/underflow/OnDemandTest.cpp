#include "Failure.h"
#include "UnderflowRun.h"

using Requests = std::vector<std::pair<uint64, uint64>>;

namespace {

const std::string PASS = "ZqCoreUnderflowMgr::onDemand (";

/// How often it was logged after the prefix of a pass.
int64 nPassLogged(UnderflowRun& run, const std::string& text) {
    const std::vector<std::string> log = run.log();
    return std::count_if(log.begin(), log.end(), [&](const std::string& line) {
        return line.starts_with(PASS) && line.ends_with("): " + text);
    });
}

} // namespace

TEST(OnDemand, AsksForWholeStretchesOnce) {
    constexpr uint64 LAST = 5 * PER_STRETCH;
    struct Case {
        const char* name;
        std::vector<uint64> missing;
        uint64 nDownloaded;
        Requests requests;
        bool answered = true;
        uint64 nExtra = 0; ///< bytes of a last block that isn't whole
    };
    const Case cases[] = {
        {"one block", {60}, 0, {{STRETCH, STRETCH}}},
        {"blocks of one stretch", {99, 50, 77}, 0, {{STRETCH, STRETCH}}},
        {"in the queue's order", {120, 7, 60}, 0, {{2 * STRETCH, STRETCH}, {0, STRETCH}, {STRETCH, STRETCH}}},
        {"the last is shorter", {LAST + 2}, 0, {{5 * STRETCH, 3 * BLOCK}}},
        {"the end lies in a block", {LAST + 3}, 0, {{5 * STRETCH, 3 * BLOCK + 100}}, true, 100},
        {"beyond the download", {60}, STRETCH, {{STRETCH, STRETCH}}},
        {"at the download's edge", {60}, STRETCH + 1, {}, false},
        {"at the end", {LAST + 3}, 0, {}, false},
        {"far beyond the end", {~uint64{0} - 1}, 0, {}, false},
        {"no block", {~uint64{0}}, 0, {{0, STRETCH}}, false},
    };
    for (const Case& c : cases) {
        for (const bool download : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (download ? ", downloaded" : ", by callback"));
            UnderflowRun run(UnderflowRun::SIZE + c.nExtra);
            run.make(!download);
            if (download) run.mgr->setDownloadParams("http://host/img.zqf", {});
            run.progress->setNCurrent(c.nDownloaded);
            run.driver.queue = c.missing;
            run.launch();
            EXPECT_EQ(run.await([&] { return run.isAnswered(); }, 90), c.answered);
            Requests asked;
            for (const std::string& note : run.net.notes) {
                if (!note.starts_with("range ")) continue;
                asked.emplace_back(std::stoull(note.substr(6)), std::stoull(note.substr(note.rfind(' '))));
            }
            if (download) {
                EXPECT_THAT(asked, testing::UnorderedElementsAreArray(c.requests));
            } else {
                EXPECT_EQ(run.requests, c.requests);
            }
            EXPECT_TRUE(run.isDeliveryRight());
            if (!c.answered) {
                const int64 nCalls = run.driver.nCalls;
                run.sleep(1000);
                EXPECT_LT(run.driver.nCalls - nCalls, 1000) << "it spins";
            }
            EXPECT_EQ(run.mgr->getUnderflowResumeIdx(), c.answered ? 0 : c.nDownloaded / STRETCH * STRETCH);
            const int64 stopped = run.nowMs();
            run.stop();
            EXPECT_LE(run.nowMs() - stopped, 20);
        }
    }
}

TEST(OnDemand, FetchesTheEdgeOfADownloadThatKeepsAReadWaiting) {
    constexpr uint64 BROKEN = STRETCH + 11 * BLOCK + 34; ///< the drive has the blocks below 60
    struct Case {
        const char* name;
        uint64 nDownloaded, block;
        uint64 nEach; ///< bytes that come in each tenth of a second
    };
    const Case cases[] = {
        {"it stands", STRETCH + 3 * BLOCK, 60, 0},
        {"after the last whole block", BROKEN, 61, 0},
        {"at the last whole block", BROKEN, 60, 0},
        {"bytes trickle in", STRETCH + 3 * BLOCK, 60, 200},
        {"it stands before the stretch", STRETCH, 60, 0},
        {"bytes trickle in before the stretch", STRETCH - 2 * BLOCK, 60, 200},
    };
    for (const Case& c : cases) {
        for (const bool isDownload : {true, false}) {
            const bool isInside = c.nDownloaded > STRETCH;
            if (!isDownload && !isInside) continue;
            SCOPED_TRACE(testing::Message() << c.name << (isDownload ? ", downloaded" : ", by callback"));
            UnderflowRun run;
            run.make(!isDownload);
            if (isDownload) run.mgr->setDownloadParams("http://host/img.zqf", {});
            // Who asks for what the download is about to bring waits for that.
            run.net.fetch = [&](uint64 offset, uint64 length, char* data) {
                const bool isApart = run.lastNote().starts_with("anew ");
                if (!isApart) SxWait::pass(600'000, [&] { return run.net.cancelled.load(); });
                return isApart ? run.fill(offset, length, data) : 1;
            };
            uint64 nDownloaded = c.nDownloaded;
            run.progress->setNCurrent(nDownloaded);
            run.driver.queue = {c.block};
            run.launch();
            const auto isAnswered = [&] {
                if (run.nowMs() % 100 == 0) run.progress->setNCurrent(nDownloaded += c.nEach);
                return run.isAnswered();
            };
            EXPECT_FALSE(run.await(isAnswered, 2900));
            EXPECT_TRUE(run.await(isAnswered, 250));
            EXPECT_TRUE(run.isDeliveryRight());
            run.sleep(50);
            const ZqRuntimeInfo info = run.mgr->getRuntimeInfo();
            EXPECT_EQ(info.nUnderflows, 1);
            EXPECT_NEAR(static_cast<double>(info.maxUnderflowTime), 3050, 60);
            EXPECT_FALSE(run.mgr->isUnderflow());
            EXPECT_THAT(run.desktop.notes, IsEmpty());
        }
    }
}

TEST(OnDemand, LeavesAReaderToADownloadThatGoesOn) {
    UnderflowRun run;
    run.make();
    uint64 block = PER_STRETCH;
    run.progress->setNCurrent(block * BLOCK + 1);
    run.driver.queue = {block};
    run.launch();
    for (int i = 0; i < 10; ++i) {
        run.sleep(2000);
        run.progress->setNCurrent(++block * BLOCK + 1);
        run.driver.queue = {block};
    }
    EXPECT_THAT(run.requests, IsEmpty());
    EXPECT_EQ(run.mgr->getRuntimeInfo().nUnderflows, 0);
}

TEST(OnDemand, WhatCannotBeHadHoldsUpNoOther) {
    constexpr uint64 N = 30;
    struct Case {
        const char* name;
        bool isDownload, isSilent;
        uint64 nBad; ///< stretches that can't be had
        int64 waitMs;
    };
    const Case cases[] = {
        {"refused to a callback", false, false, 1, 600},
        {"refused", true, false, 8, 600},
        {"silent", true, true, 5, 600},
        {"silent, twice as many as are worth having together", true, true, 12, 2 * 3000 + 50},
    };
    for (const Case& c : cases) {
        for (const bool hasWindow : {true, false}) {
            SCOPED_TRACE(testing::Message() << c.name << (hasWindow ? ", after the start" : ""));
            UnderflowRun run(N * STRETCH);
            run.make(!c.isDownload);
            if (c.isDownload) run.mgr->setDownloadParams("http://host/img.zqf", {});
            run.mgr->setWindowSearch(hasWindow);
            run.launch();
            if (hasWindow) run.begin();
            std::atomic<bool> isBad{true};
            run.script = run.net.fetch = [&](uint64 offset, uint64 length, char* data) {
                const bool isAffected = offset >= (N - c.nBad) * STRETCH;
                if (isAffected && c.isSilent) {
                    SxWait::pass(600'000, [&] { return !isBad || run.net.cancelled; });
                }
                return isAffected && isBad ? 1 : run.fill(offset, length, data);
            };
            for (uint64 i = N - c.nBad; i < N; ++i)
                run.readBlock(i * PER_STRETCH + i);
            // A window takes half a second to go away.
            run.sleep(c.waitMs);
            for (uint64 i = 1; i < 10; ++i) {
                run.readBlock(i * PER_STRETCH + i);
                EXPECT_TRUE(run.await([&] { return run.driver.queue.size() == c.nBad; }, 60)) << i;
            }
            isBad = false;
            EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 1100));
            EXPECT_TRUE(run.isDeliveryRight());
            const int64 t0 = run.nowMs();
            run.stop();
            EXPECT_LE(run.nowMs() - t0, 20);
        }
    }
}

TEST(OnDemand, ResolvesAnUnderflowUnnoticed) {
    UnderflowRun run;
    run.start();
    run.begin();
    const int64 nCalls = run.driver.nCalls, t0 = run.nowMs();
    bool seen = false;
    run.script = [&](uint64 offset, uint64 length, char* data) {
        run.sleep(20);
        return run.fill(offset, length, data);
    };
    run.readBlock(60);
    EXPECT_TRUE(run.await(
        [&] {
            seen = seen || run.mgr->isUnderflow();
            return run.isAnswered();
        },
        100));
    EXPECT_LE(run.nowMs() - t0, 10 + 20 + 2) << "one look of the manager, the callback, one look at that";
    EXPECT_LE(run.driver.nCalls - nCalls, 8 + 2 * 2) << "a turn with a pass, and idle ones";
    EXPECT_FALSE(seen);
    run.sleep(100);
    const ZqRuntimeInfo info = run.mgr->getRuntimeInfo();
    EXPECT_EQ(info.nUnderflows, 0);
    EXPECT_EQ(info.nOnDemandFetches, 2);
    EXPECT_EQ(info.sumOnDemandSize, static_cast<int64>(2 * STRETCH));
    EXPECT_EQ(info.avgOnDemandSize, static_cast<int64>(STRETCH));
    EXPECT_NEAR(static_cast<double>(info.maxOnDemandTime), 20, 1);
    EXPECT_EQ(info.maxOnDemandQueue, 1);
    EXPECT_THAT(run.desktop.notes, IsEmpty());
    run.stop();
    EXPECT_EQ(run.nLogged("1 range requests (N = 2 ) took on avg 1"), 1);
    EXPECT_EQ(run.nLogged("Total 2 requests."), 1);
}

TEST(OnDemand, PaysARoundTripOnceForAGroup) {
    constexpr uint64 N = 30;
    UnderflowRun run(N * STRETCH);
    run.make(false);
    run.mgr->setDownloadParams("http://host/img.zqf", {"Cookie: a", "X: b"});
    for (uint64 i = 0; i < N; ++i)
        run.readBlock(i * PER_STRETCH);
    run.driver.returnAfter = 10000;
    run.launch();
    EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 1000));
    EXPECT_LE(run.nowMs(), 10 + 5 * run.net.latencyMs);
    std::vector<std::string> wanted = {"url http://host/img.zqf", "header Cookie: a", "header X: b", "go on",
                                       "announce 6"};
    const std::vector<std::string>& notes = run.net.notes;
    ASSERT_GT(notes.size(), wanted.size());
    EXPECT_TRUE(std::equal(wanted.begin(), wanted.end(), notes.begin()));
    for (uint64 i = 0; i < N; ++i) {
        const std::string range = "range " + std::to_string(i * STRETCH) + " " + std::to_string(STRETCH);
        EXPECT_EQ(std::count(notes.begin(), notes.end(), range), 1);
    }
    EXPECT_TRUE(run.isDeliveryRight());
    run.sleep(50);
    EXPECT_EQ(run.mgr->getRuntimeInfo().nOnDemandFetches, static_cast<int64>(N));
    run.stop();
    EXPECT_GE(run.nLogged("range requests (N"), 1);
}

TEST(OnDemand, WhatTheDriveHasLetGoIsFetchedAgain) {
    UnderflowRun run;
    run.start();
    run.begin();
    for (size_t n = 1; n <= 3; ++n) {
        run.readBlock(60);
        EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 30)) << n;
        EXPECT_EQ(run.requests.size(), n);
        run.sleep(1100);
    }
    EXPECT_EQ(nPassLogged(run, "On-demand data already fetched: 50 rescheduled now"), 2);
    run.clearLog();
    run.driver.keepsQueue = true; // as if it let go of all at once
    run.readBlock(60);
    run.sleep(4500);
    EXPECT_NEAR(static_cast<double>(run.requests.size()), 3 + 4.5, 1) << "no more than one a second";
    EXPECT_TRUE(run.mgr->isRunning());
}

TEST(OnDemand, WhatFailsIsToldAndTriedAgain) {
    struct Case {
        const char* name;
        std::function<int(uint64, uint64, char*)> script;
        std::string byCallback, byDownload;
    };
    const auto flip = [](uint64 offset, uint64 length, char* data) {
        UnderflowRun::fill(offset, length, data);
        data[length - 1] ^= 1;
        return 0;
    };
    const std::string invalid = "Invalid On demand callback return value";
    const std::string corrupt = "On Demand Buffer does not pass data validation: Data corrupt";
    const Case cases[] = {
        {"1", [](uint64, uint64, char*) { return 1; }, "On demand callback failed",
         "On demand callback failed: the server is gone"},
        {"7", [](uint64, uint64, char*) { return 7; }, invalid, invalid},
        {"-1", [](uint64, uint64, char*) { return -1; }, invalid, invalid},
        {"raises", [](uint64, uint64, char*) -> int { throw std::runtime_error("no"); }, invalid, ""},
        {"wrong", flip, corrupt, corrupt},
    };
    for (const Case& c : cases) {
        for (const bool download : {false, true}) {
            const std::string& text = download ? c.byDownload : c.byCallback;
            if (text.empty()) continue;
            SCOPED_TRACE(std::string(c.name) + (download ? ", downloaded" : ", by callback"));
            UnderflowRun run;
            run.dir.write("image/imgRef.zqf", run.reference());
            run.make(!download);
            if (download) run.mgr->setDownloadParams("http://host/img.zqf", {});
            bool good = false;
            const auto script = [&](uint64 offset, uint64 length, char* data) {
                return good ? run.fill(offset, length, data) : c.script(offset, length, data);
            };
            run.script = run.net.fetch = script;
            run.readBlock(60);
            run.launch();
            run.sleep(150);
            EXPECT_GE(nPassLogged(run, text), 1);
            EXPECT_EQ(run.nLogged("Critical instant underflow. ETA : 0"), 1);
            EXPECT_EQ(run.nLogged("checkInstantUnderflow: Cannot resolve by on-demand request"), 1);
            EXPECT_EQ(run.mgr->getUnderflowResumeIdx(), STRETCH);
            EXPECT_TRUE(run.mgr->isUnderflow());
            EXPECT_THAT(run.driver.delivered, IsEmpty());
            const bool isForgotten =
                std::count(run.net.notes.begin(), run.net.notes.end(), "forget 204800") > 0;
            EXPECT_EQ(isForgotten, download && text == corrupt);
            if (text == corrupt) {
                const int64 n = nPassLogged(run, "ZqF byte index: 204800");
                EXPECT_GE(n, 1);
                EXPECT_EQ(run.nLogged("00000FF0  "), 2 * n) << "what came, and what should have come";
                EXPECT_EQ(run.nLogged("00001000  "), 0);
            }
            good = true;
            EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 1050)) << "a second is between two tries";
            EXPECT_TRUE(run.isDeliveryRight());
            run.sleep(20);
            EXPECT_EQ(run.nLogged("checkInstantUnderflow:  Underflow resolved"), 1);
            EXPECT_FALSE(run.mgr->isUnderflow());
            EXPECT_EQ(run.mgr->getRuntimeInfo().nUnderflows, 1);
            EXPECT_EQ(run.failure(), "");
        }
    }
}

TEST(OnDemand, WhatIsRefusedIsAskedForOnceASecond) {
    for (const bool isDownload : {true, false}) {
        for (const bool hasWindow : {true, false}) {
            SCOPED_TRACE(testing::Message() << isDownload << hasWindow);
            UnderflowRun run;
            run.make(!isDownload);
            if (isDownload) run.mgr->setDownloadParams("http://host/img.zqf", {});
            run.mgr->setWindowSearch(hasWindow);
            std::atomic<int64> n{0};
            run.script = run.net.fetch = [&](uint64, uint64, char*) {
                ++n;
                return 1;
            };
            run.driver.queue = {60, 61};
            run.launch();
            run.sleep(10'000);
            EXPECT_NEAR(static_cast<double>(n.load()), 10, 1);
            EXPECT_NEAR(static_cast<double>(run.nLogged("On demand callback failed")), 10, 1);
        }
    }
}

TEST(OnDemand, ACallOfTheDriverMayFailInAPass) {
    struct Case {
        const char* call;
        const char* text;
    };
    const Case cases[] = {
        {"PopUnderflowZqFBlocks", "Cannot retrieve Underflow block: TAVRIN Driver error"},
        {"ResolveUnderflow", "Cannot send data to underflow layer for image "},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.call);
        UnderflowRun run;
        run.driver.returnAfter = 0;
        run.driver.fail(c.call, 1, "why");
        run.readBlock(60);
        run.start();
        run.sleep(50);
        EXPECT_GE(run.nLogged(c.text), 1);
        EXPECT_TRUE(run.mgr->isUnderflow());
        run.driver.mend(c.call);
        EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 1050));
        EXPECT_TRUE(run.isDeliveryRight());
        EXPECT_EQ(run.failure(), "");
    }
}

TEST(OnDemand, AReferenceThatCannotBeReadChecksNothing) {
    for (const bool isThere : {true, false}) {
        UnderflowRun run;
        if (isThere) {
            run.dir.write("image/imgRef.zqf", std::string(STRETCH + 1, 'x'));
        } else {
            std::filesystem::create_directory(run.dir.path("image/imgRef.zqf"));
        }
        run.readBlock(60);
        run.start();
        EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 50));
        EXPECT_EQ(nPassLogged(run, "Cannot read validation data. Validation cancelled"), isThere ? 1 : 0);
        EXPECT_EQ(run.nLogged("ZqCoreUnderflowMgr::main: Cannot open " + run.image.str() +
                              "/imgRef.zqf. Validation cancelled"),
                  isThere ? 0 : 1);
    }
}

TEST(OnDemand, AStopDoesNotWaitForAFetch) {
    UnderflowRun run;
    bool released = false;
    run.script = [&](uint64 offset, uint64 length, char* data) {
        run.await([&] { return released; }, 60000);
        return run.fill(offset, length, data);
    };
    run.readBlock(60);
    run.start();
    run.sleep(50);
    int64 t0 = run.nowMs();
    run.mgr->restart();
    EXPECT_LE(run.nowMs() - t0, 10);
    run.sleep(50);
    EXPECT_GE(nPassLogged(run, "ERROR : Callback not released. Ondemand underflow  management not possible"),
              1);
    EXPECT_EQ(run.requests.size(), 1U) << "never two callbacks at once";
    released = true;
    EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 300));

    released = false;
    run.readBlock(130);
    run.sleep(50);
    run.stop();
    run.driver.queue.clear();
    run.clearLog();
    released = true; // it sees that while the manager is being destroyed
    run.mgr = {};
    EXPECT_EQ(run.nLogged("ERROR : Callback not released."), 1);

    UnderflowRun other;
    other.net.latencyMs = 60000;
    other.make(false);
    other.mgr->setDownloadParams("http://host/img.zqf", {});
    other.readBlock(60);
    other.launch();
    other.sleep(50);
    t0 = other.nowMs();
    other.stop();
    EXPECT_LE(other.nowMs() - t0, 20);
    EXPECT_EQ(other.nLogged("On demand callback failed"), 0) << "a stop is no failure";
    other.net.latencyMs = 0;
    other.launch();
    EXPECT_TRUE(other.await([&] { return other.isAnswered(); }, 100)) << "a start takes the stop back";
}

TEST(OnDemand, OneSourceOnly) {
    UnderflowRun run;
    run.make();
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(failureOf([&] { run.mgr->setDownloadParams("http://host/img.zqf", {}); }),
                  "Cannot set ondemand download params: Only one underflow callback method supported.");
    }
    run.readBlock(60);
    run.launch();
    EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 50));
    EXPECT_EQ(run.requests.size(), 1U);
    run.stop();

    run.make(false);
    EXPECT_EQ(failureOf([&] { run.mgr->setDownloadParams("", {}); }),
              "Cannot set ondemand download params: netio failed");
    run.readBlock(60);
    run.launch();
    run.sleep(50);
    EXPECT_EQ(nPassLogged(run, "No underflow callback configured"), 1);
    run.mgr->setDownloadParams("http://host/a", {});
    run.mgr->setDownloadParams("http://host/b", {"X: b"});
    EXPECT_TRUE(run.await([&] { return run.isAnswered(); }, 200));
    EXPECT_THAT(run.net.notes, Contains("header X: b"));
}

TEST(OnDemand, PopsAsByteIndices) {
    UnderflowRun run;
    run.make();
    EXPECT_EQ(run.mgr->popOnDemandZqFByteIdx(), 0U);
    EXPECT_EQ(run.mgr->popOnDemandZqFByteIndices(5), SxArray<uint64>());
    run.driver.queue = {3, ~uint64{0}, 1U << 30, ~uint64{0} - 1, 4};
    EXPECT_EQ(run.mgr->popOnDemandZqFByteIdx(), 3 * BLOCK);
    EXPECT_EQ(run.mgr->popOnDemandZqFByteIndices(3), (SxArray<uint64>{0, run.SIZE, run.SIZE}));
}

TEST(OnDemand, BlockPrint) {
    UnderflowRun run;
    SxArray<char> data(18);
    for (int64 i = 0; i < 18; ++i)
        data(i) = static_cast<char>(i < 8 ? 'A' + i : 16 * i);
    blockPrint(data);
    EXPECT_THAT(
        run.log(),
        ElementsAre("00000000  41 42 43 44 45 46 47 48  80 90 A0 B0 C0 D0 E0 F0   [ ABCDEFGH........ ]",
                    "00000010  00 10   [ .. ]"));
}
