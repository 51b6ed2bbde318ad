#include "ReorderedImage.h"
#include "SxMd5.h"
#include "ZqBlocks.h"
#include "ZqImageLock.h"
#include "ZqImageParams.h"
#include "ZqStretchStore.h"

#include <cstring>

namespace {

constexpr uint32 N = 90;

/// Fails unless the image is in one of its orders, as a whole, wherever nothing says that it is on its way.
void expectWholeOrTold(const TempDir& dir, const TreeSnapshot& before, const TreeSnapshot& after) {
    if (fs::exists(dir.path("watched/image/optimize.lock"))) {
        EXPECT_THAT(failureOf([&] {
                        ZqImageLock::take(dir.path("watched/image"), ZqImageLock::Shape, ZqImageLock::Shared,
                                          "m");
                    }),
                    HasSubstr("tavrin image optimize IMAGE --resume"));
        return;
    }
    TreeSnapshot now = contentOf(dir, "watched/image");
    std::erase_if(now, [](const auto& entry) { return entry.first.starts_with("optimize.work"); });
    EXPECT_TRUE(now == before || now == after) << testing::PrintToString(now);
}

/// Cuts the power before each durable step, and again in what goes on after that.
void cutEverywhere(const ReorderedImage& image, uint64 nOld, uint64 nNew, TestRandom& random) {
    const TreeSnapshot after = image.expected(nNew);
    bool cut = true;
    for (int64 step = 1; cut && !testing::Test::HasFailure(); ++step) {
        ASSERT_LT(step, 500) << "the job doesn't get through";
        // All that isn't synced is lost, or some of it.
        for (const uint64 seed : {uint64{0}, static_cast<uint64>(step), static_cast<uint64>(step) + 1000}) {
            SCOPED_TRACE("cut at step " + std::to_string(step) + ", seed " + std::to_string(seed));
            const TempDir dir;
            image.write(dir, nOld);
            const TreeSnapshot before = contentOf(dir, "watched/image");
            cut = false;
            for (const int64 at : {step, int64{1} + static_cast<int64>(random.below(12))}) {
                FaultOs os(dir.path("watched"));
                os.cutPowerAt(at);
                optimizeOrGoOn(dir);
                cut = cut || os.isCut();
                std::mt19937_64 chance(seed);
                os.crash(seed ? &chance : nullptr);
                expectWholeOrTold(dir, before, after);
            }
            const std::string failure = contentOf(dir, "watched/image") == after ? "" : optimizeOrGoOn(dir);
            ASSERT_EQ(contentOf(dir, "watched/image"), after) << failure;
        }
    }
}

/// Kills the job before each durable step, with what it hasn't synced still in memory, and cuts the power in
/// what goes on after that.
void killAndCutEverywhere(const ReorderedImage& image, uint64 nOld, uint64 nNew) {
    const TreeSnapshot after = image.expected(nNew);
    bool killed = true;
    for (int64 step = 1; killed && !testing::Test::HasFailure(); ++step) {
        ASSERT_LT(step, 500) << "the job doesn't get through";
        for (int64 more = 1; more <= 6; ++more) {
            SCOPED_TRACE("killed at step " + std::to_string(step) + ", cut " + std::to_string(more) +
                         " after");
            const TempDir dir;
            image.write(dir, nOld);
            {
                FaultOs os(dir.path("watched"));
                os.cutPowerAt(step);
                optimizeOrGoOn(dir);
                killed = os.isCut();
                os.revive();
                os.cutPowerAt(os.getNSteps() + more);
                optimizeOrGoOn(dir);
                os.crash(nullptr);
            }
            const std::string failure = contentOf(dir, "watched/image") == after ? "" : optimizeOrGoOn(dir);
            ASSERT_EQ(contentOf(dir, "watched/image"), after) << failure;
        }
    }
}

/// Fails each sync, goes on, and cuts the power once all is done.
void failSyncsEverywhere(const ReorderedImage& image, uint64 nOld, uint64 nNew) {
    const TreeSnapshot after = image.expected(nNew);
    bool failed = true;
    for (int64 nth = 1; failed && !testing::Test::HasFailure(); ++nth) {
        SCOPED_TRACE("sync " + std::to_string(nth));
        const TempDir dir;
        image.write(dir, nOld);
        {
            FaultOs os(dir.path("watched"));
            os.failNth(Op::Sync, nth, EIO);
            const std::string failure = optimizeOrGoOn(dir);
            failed = os.getNFailed() > 0;
            if (!failure.empty()) {
                EXPECT_EQ(optimizeOrGoOn(dir), "") << "after " << failure;
            }
            os.crash(nullptr);
        }
        ASSERT_EQ(contentOf(dir, "watched/image"), after);
    }
}

/// Fails each kind of operation, one after the other, and lets the job go on after that.
void disturbEverywhere(const ReorderedImage& image, uint64 nOld, uint64 nNew) {
    const TreeSnapshot after = image.expected(nNew);
    TreeSnapshot before;
    disturb(
        [&](const TempDir& dir) {
            image.write(dir, nOld);
            before = contentOf(dir, "watched/image");
        },
        optimizeOrGoOn,
        [&](const TempDir& dir, const std::string& failure) {
            expectWholeOrTold(dir, before, after);
            if (contentOf(dir, "watched/image") != after) {
                EXPECT_EQ(optimizeOrGoOn(dir), "") << "after " << failure;
            }
            EXPECT_EQ(contentOf(dir, "watched/image"), after) << failure;
        },
        40'000, 4096);
}

} // namespace

TEST(Optimize, ACompleteImageComesToItsNewOrder) {
    TestRandom random(8);
    TRACE_SEED(random);
    for (const MoveOrder& order : allMoveOrders(random, N)) {
        SCOPED_TRACE(order.name);
        const ReorderedImage image(random, order);
        const TempDir dir;
        image.write(dir);
        ZqImageOptimize job(dir.path("watched/image"), dir.path("watched/index"));
        EXPECT_EQ(optimize(job), "");
        EXPECT_TRUE(job.isComplete());
        EXPECT_EQ(contentOf(dir, "watched/image"), image.expected());
        EXPECT_FALSE(dir.exists("watched/index"));
        const ZqImageOptimize::Result& result = job.getResult();
        EXPECT_EQ(result.mode, order.name == "identity" ? ZqImageOptimize::None : ZqImageOptimize::InPlace);
        const auto nIncluded = static_cast<uint64>(std::count_if(
            order.source.begin(), order.source.end(), [](auto p) { return p != ZqMovePlan::NONE; }));
        EXPECT_EQ(result.nMoved + result.nKept, nIncluded);
        EXPECT_GE(result.bytes, result.nMoved * TestImage::BLOCK);
        EXPECT_EQ(job.getNCurrent(), job.getNTotal());
        EXPECT_EQ(job.getNTotal(), image.from.zqf.size());
        EXPECT_TRUE(job.runtimeInfo->defragStats.started);
    }
}

TEST(Optimize, APowerCutAtAnyStepInPlace) {
    TestRandom random(9);
    TRACE_SEED(random);
    for (const MoveOrder& order : allMoveOrders(random, 40)) {
        // The others differ in their plans alone, which have a test of their own.
        if (order.name == "reversal" || order.name == "rotation" || order.name == "runs") continue;
        SCOPED_TRACE(order.name);
        cutEverywhere(ReorderedImage(random, order), ~uint64{0}, ~uint64{0}, random);
    }
}

TEST(Optimize, AKillAndThenAPowerCut) {
    TestRandom random(20);
    TRACE_SEED(random);
    killAndCutEverywhere(ReorderedImage(random, allMoveOrders(random, 40)[5]), ~uint64{0}, ~uint64{0});
    killAndCutEverywhere(ReorderedImage(random, reversalOfTheFront(24, 10)), 20, 19);
}

TEST(Optimize, WhatAFailedSyncHasLeftIsWrittenAgain) {
    TestRandom random(28);
    TRACE_SEED(random);
    failSyncsEverywhere(ReorderedImage(random, allMoveOrders(random, 40)[5]), ~uint64{0}, ~uint64{0});
    failSyncsEverywhere(ReorderedImage(random, reversalOfTheFront(24, 10)), 20, 19);
}

TEST(Optimize, WhateverFailsInPlaceIsGoneOnWith) {
    TestRandom random(10);
    TRACE_SEED(random);
    const ReorderedImage image(random, allMoveOrders(random, 24)[7]);
    disturbEverywhere(image, ~uint64{0}, ~uint64{0});
}

TEST(Optimize, APartialImageIsCopiedAsFarAsItGoes) {
    TestRandom random(11);
    TRACE_SEED(random);
    for (const MoveOrder& order : allMoveOrders(random, N)) {
        if (order.source[0] == ZqMovePlan::NONE || order.name == "a third empty") continue; // has gaps
        for (const uint64 nOld : {uint64{1}, uint64{37}, uint64{N - 1}}) {
            SCOPED_TRACE(order.name + ", blocks " + std::to_string(nOld));
            const ReorderedImage image(random, order);
            const TempDir dir;
            image.write(dir, nOld);
            uint64 nNew = 0;
            while (order.source[nNew] + 1 < nOld)
                ++nNew;
            ZqImageOptimize job(dir.path("watched/image"), dir.path("watched/index"));
            EXPECT_EQ(optimize(job), "");
            TreeSnapshot now = contentOf(dir, "watched/image");
            std::erase_if(now, [](const auto& entry) { return entry.first.starts_with("img.ahead"); });
            EXPECT_EQ(now, image.expected(nNew));
            EXPECT_FALSE(dir.exists("watched/index"));
            EXPECT_EQ(job.getResult().mode, ZqImageOptimize::Copy);
            EXPECT_EQ(job.getResult().nMoved + job.getResult().nKept, nNew);
            EXPECT_LE(job.getResult().nLost, nOld - nNew);
        }
    }
}

TEST(Optimize, APowerCutAtAnyStepOfACopy) {
    TestRandom random(12);
    TRACE_SEED(random);
    const MoveOrder order = orderOfRuns(random, N, 20);
    uint64 nNew = 0;
    while (order.source[nNew] + 1 < 80)
        ++nNew;
    cutEverywhere(ReorderedImage(random, order), 80, nNew, random);
}

TEST(Optimize, WhateverFailsInACopyIsGoneOnWith) {
    TestRandom random(13);
    TRACE_SEED(random);
    const ReorderedImage image(random, reversalOfTheFront(24, 10));
    disturbEverywhere(image, 20, 19);
}

TEST(Optimize, WhatIsKeptBeyondTheEndIsCarriedOver) {
    constexpr uint64 STRETCHES = 4, BYTES = ZqBlocks::STRETCH;
    TestRandom random(14);
    TRACE_SEED(random);
    MoveOrder order{"reversal", std::vector<ZqMovePlan::Position>(STRETCHES * 50)};
    std::iota(order.source.rbegin(), order.source.rend(), 0);
    const ReorderedImage image(random, order);
    const TempDir dir;
    // The first three stretches of the old order are the last three of the new one, and the other way round.
    image.write(dir, 150);
    const SxString folder = dir.path("watched/image/");
    const std::string oldApp = dir.read("watched/image/app.json"), oldMap = dir.read("watched/image/img.idx");
    const auto expectKept = [&](const TestImage& in, const std::vector<uint64>& stretches) {
        const ZqAppParams app(folder);
        ZqStretchStore store(folder, ZqStretchStore::keyOf(app.checksumZqf, app.checksumIdx, app.checksumMnt),
                             app.sizeZqf, BYTES, 0, ZqDiskReserve());
        EXPECT_EQ(store.list(), stretches);
        for (const uint64 stretch : stretches) {
            const SxPtr<SxArray<char>> bytes = store.read(stretch);
            ASSERT_TRUE(bytes);
            EXPECT_EQ(std::string_view(bytes->data(), BYTES),
                      std::string_view(in.zqf).substr(stretch * BYTES, BYTES));
        }
    };
    ZqImageOptimize there(folder, dir.path("watched/index"));
    EXPECT_EQ(optimize(there), "");
    EXPECT_EQ(there.getResult().nLost, 0U);
    expectKept(image.to, {1, 2, 3});

    dir.write("watched/index/app.json", oldApp);
    dir.write("watched/index/img.idx", oldMap);
    fs::copy_file(dir.path("watched/image/img.json"), dir.path("watched/index/img.json"));
    ZqImageOptimize back(folder, dir.path("watched/index"));
    EXPECT_EQ(optimize(back), "");
    EXPECT_EQ(back.getResult().nLost, 0U);
    expectKept(image.from, {0, 1, 2});
}

TEST(Optimize, WhatDoesNotFitIsRefusedBeforeAnythingChanges) {
    TestRandom random(15);
    TRACE_SEED(random);
    const ReorderedImage image(random, orderOfRuns(random, N, 20));
    const auto setEntry = [](const TempDir& dir, uint64 rawIdx, uint64 zqfIdx) {
        std::string map = dir.read("watched/index/img.idx");
        std::memcpy(map.data() + rawIdx * sizeof zqfIdx, &zqfIdx, sizeof zqfIdx);
        dir.write("watched/index/img.idx", map);
        ZqAppParams app(SxString(dir.path("watched/index/")));
        app.checksumIdx = SxMd5::file(SxString(dir.path("watched/index/img.idx")));
        app.write();
    };
    const auto changeApp = [](const TempDir& dir, const std::function<void(ZqAppParams*)>& change) {
        ZqAppParams app(SxString(dir.path("watched/index/")));
        change(&app);
        app.write();
    };
    using Change = std::function<void(const TempDir&)>;
    const std::vector<std::pair<Change, std::string>> cases = {
        {[&](const TempDir& dir) { setEntry(dir, 5, N); }, "names ZqF block 90 for RAW block 5"},
        {[&](const TempDir& dir) { setEntry(dir, 5, image.to.map(4)); }, "twice"},
        {[&](const TempDir& dir) { setEntry(dir, 5, ~uint64{0}); }, "leaves out RAW block 5"},
        {[&](const TempDir& dir) {
             std::string map = dir.read("watched/index/img.idx");
             map[0] = static_cast<char>(map[0] ^ 1);
             dir.write("watched/index/img.idx", map);
         },
         "has the digest"},
        {[](const TempDir& dir) { dir.write("watched/index/img.idx", "12345678"); },
         "incompatible idx files"},
        {[](const TempDir& dir) { fs::remove(dir.path("watched/index/img.idx")); }, "img.idx not found"},
        {[](const TempDir& dir) { fs::remove(dir.path("watched/index/app.json")); }, "app.json not found"},
        {[&](const TempDir& dir) { changeApp(dir, [](ZqAppParams* app) { app->checksumIdx = ""; }); },
         "states no digest of the map"},
        {[&](const TempDir& dir) { changeApp(dir, [](ZqAppParams* app) { app->zqfVersion += 1; }); },
         "The image has the format"},
        {[](const TempDir& dir) {
             ZqImageParams params(SxString(dir.path("watched/index/")));
             params.sizeRaw += TestImage::BLOCK;
             params.write();
         },
         "states another size, sector size or file system"},
        {[&](const TempDir& dir) { changeApp(dir, [](ZqAppParams* app) { app->checksumMnt = "other"; }); },
         "app.json files do not belong to same RAW image"},
        {[&](const TempDir& dir) { changeApp(dir, [](ZqAppParams* app) { app->sizeZqf += 4096; }); },
         "isn't a file of whole blocks of an image of 90 blocks"},
        {[&](const TempDir& dir) { changeApp(dir, [](ZqAppParams* app) { app->sizeMnt += 1; }); },
         "more bytes for a mount"},
        {[&](const TempDir& dir) { changeApp(dir, [](ZqAppParams* app) { app->sizeIdx += 8; }); },
         "states a map of 728 bytes"},
        {[&](const TempDir& dir) {
             changeApp(dir, [](ZqAppParams* app) { app->sizeZqf = app->sizeMnt = app->sizeMnt - 4096; });
         },
         "beyond the"},
        {[](const TempDir& dir) {
             fs::create_hard_link(dir.path("watched/image/img.zqf"), dir.path("watched/other"));
         },
         "second name"},
        {[](const TempDir& dir) {
             fs::rename(dir.path("watched/image/img.zqf"), dir.path("watched/other"));
             fs::create_symlink(dir.path("watched/other"), dir.path("watched/image/img.zqf"));
         },
         "is a link"},
        {[](const TempDir& dir) {
             dir.write("watched/image/img.zqf.info", "368640\n4096");
             fs::remove(dir.path("watched/image/img.zqf"));
         },
         "tavrin image join"},
        {[](const TempDir& dir) { dir.write("watched/image/patch.progress", ""); },
         "in the middle of a patch"},
        {[](const TempDir& dir) { dir.write("watched/image/optimize.lock", ""); },
         "optimize.lock available. Unfinished optimization detected"}};
    for (const auto& [change, text] : cases) {
        for (const bool isKept : {false, true}) {
            SCOPED_TRACE(text + (isKept ? ", kept" : ""));
            const TempDir dir;
            image.write(dir);
            change(dir);
            const TreeSnapshot before = contentOf(dir);
            ZqImageOptimize job(dir.path("watched/image"), dir.path("watched/index"));
            if (isKept) job.keepIndex();
            EXPECT_THAT(optimize(job), HasSubstr(text));
            EXPECT_FALSE(job.isComplete());
            EXPECT_EQ(contentOf(dir), before);
        }
    }
}

TEST(Optimize, AWorkFolderThatDoesNotFitIsRefused) {
    TestRandom random(16);
    TRACE_SEED(random);
    const ReorderedImage image(random, allMoveOrders(random, N)[4]);
    const auto flip = [](const TempDir& dir, const std::string& name, size_t at) {
        std::string bytes = dir.read(name);
        bytes[at] = static_cast<char>(bytes[at] ^ 1);
        dir.write(name, bytes);
    };
    using Change = std::function<void(const TempDir&)>;
    const std::string work = "watched/image/optimize.work/";
    const std::vector<std::pair<Change, std::string>> cases = {
        {[&](const TempDir& dir) { flip(dir, work + "heads", 5); }, "isn't what was set aside"},
        {[&](const TempDir& dir) { fs::resize_file(dir.path(work + "heads"), 100); }, "heads"},
        {[&](const TempDir& dir) { fs::remove(dir.path(work + "heads")); }, "heads"},
        {[&](const TempDir& dir) { flip(dir, work + "img.idx", 5); }, "isn't the map"},
        {[&](const TempDir& dir) { flip(dir, "watched/image/img.idx", 5); }, "isn't the map"},
        {[&](const TempDir& dir) {
             std::string note = dir.read(work + "move.json");
             note.replace(note.find("\"steps\": 4"), 10, "\"steps\": 5");
             dir.write(work + "move.json", note);
         },
         "belongs to another optimisation"},
        {[&](const TempDir& dir) { fs::remove(dir.path(work + "move.json")); }, "move.json"},
        {[&](const TempDir& dir) { fs::resize_file(dir.path(work + "progress"), 20); }, "damaged"},
        {[&](const TempDir& dir) { fs::remove(dir.path(work + "progress")); }, "progress"},
        {[&](const TempDir& dir) { fs::resize_file(dir.path("watched/image/img.zqf"), 4096); }, "4096 bytes"},
        {[&](const TempDir& dir) { fs::remove_all(dir.path(work)); }, "stands there without the folder"}};
    for (const auto& [change, text] : cases) {
        SCOPED_TRACE(text);
        const TempDir dir;
        image.write(dir);
        {
            FaultOs os(dir.path("watched"));
            os.failNth(Op::Write, 12, EIO, "img.zqf");
            EXPECT_NE(optimizeOrGoOn(dir), "");
        }
        change(dir);
        // The state is written once more before it is relied on; it stays the same.
        const auto contentButProgress = [&] {
            TreeSnapshot tree = contentOf(dir);
            tree.erase("image/optimize.work/progress");
            return tree;
        };
        const TreeSnapshot before = contentButProgress();
        ZqImageOptimize job(dir.path("watched/image"));
        EXPECT_THAT(optimize(job), HasSubstr(text));
        EXPECT_EQ(contentButProgress(), before);
    }
}

TEST(Optimize, AnIndexFolderThatIsKeptStaysAsItIs) {
    TestRandom random(17);
    TRACE_SEED(random);
    const ReorderedImage image(random, orderOfRuns(random, N, 20));
    for (const bool isForecast : {true, false}) {
        const TempDir dir;
        image.write(dir);
        const TreeSnapshot before = contentOf(dir), index = contentOf(dir, "watched/index");
        ZqImageOptimize job(dir.path("watched/image"), dir.path("watched/index"));
        job.keepIndex();
        if (isForecast) job.setForecastOnly();
        EXPECT_EQ(optimize(job), "");
        EXPECT_EQ(contentOf(dir, "watched/index"), index);
        EXPECT_GT(job.getResult().nMoved, 0U);
        EXPECT_EQ(job.getResult().nMoved + job.getResult().nKept, uint64{N});
        if (isForecast) {
            EXPECT_EQ(contentOf(dir), before);
            EXPECT_EQ(job.getResult().bytes, job.getResult().nMoved * TestImage::BLOCK);
        } else {
            EXPECT_EQ(contentOf(dir, "watched/image"), image.expected());
        }
    }
}

TEST(Optimize, HintsAreThoseOfTheNewOrderOrNone) {
    TestRandom random(18);
    TRACE_SEED(random);
    const ReorderedImage image(random, orderOfRuns(random, N, 20));
    const auto writeOther = [](const TempDir& dir) {
        ZqOrderHints hints(std::string(32, 'f'));
        hints.write(dir.path("watched/index"));
    };
    using Change = std::function<void(const TempDir&)>;
    const std::pair<const char*, Change> cases[] = {
        {"none", [](const TempDir& dir) { fs::remove(dir.path("watched/index/img.hints")); }},
        {"of another map", writeOther},
        {"damaged", [](const TempDir& dir) { dir.write("watched/index/img.hints", "x"); }},
        {"too large",
         [](const TempDir& dir) { dir.write("watched/index/img.hints", std::string(3'000'000, 'x')); }},
        {"a folder",
         [](const TempDir& dir) {
             fs::remove(dir.path("watched/index/img.hints"));
             fs::create_directory(dir.path("watched/index/img.hints"));
         }},
    };
    for (const auto& [name, change] : cases) {
        for (const uint64 nBlocks : {~uint64{0}, uint64{N - 1}}) {
            SCOPED_TRACE(testing::Message() << name << ", " << nBlocks);
            const TempDir dir;
            image.write(dir, nBlocks);
            change(dir);
            EXPECT_EQ(optimizeOrGoOn(dir), "");
            EXPECT_FALSE(dir.exists("watched/image/img.hints"));
            EXPECT_FALSE(dir.exists("watched/image/optimize.work"));
        }
    }
    // The same order again has other hints.
    const TempDir dir;
    image.write(dir);
    EXPECT_EQ(optimizeOrGoOn(dir), "");
    ZqOrderHints hints(ZqAppParams(SxString(dir.path("watched/image/"))).checksumIdx);
    hints.groups = {{0, 1, {}, {}}};
    image.writeIndex(dir);
    hints.write(dir.path("watched/index"));
    EXPECT_EQ(optimizeOrGoOn(dir), "");
    const auto now = ZqOrderHints::read(dir.path("watched/image"), hints.getChecksumIdx(), 2);
    ASSERT_TRUE(now);
    EXPECT_EQ(now->groups, hints.groups);
}

TEST(Optimize, NothingOfOthersIsTouched) {
    TestRandom random(18);
    TRACE_SEED(random);
    const ReorderedImage image(random, orderOfRuns(random, N, 20));
    const auto expectRefused = [&](const TempDir& dir, const std::string& text) {
        SCOPED_TRACE(text);
        const TreeSnapshot before = contentOf(dir);
        for (const bool isResumed : {false, true}) {
            const SxString folder = dir.path("watched/image"), index = dir.path("watched/index");
            const auto job = isResumed ? SxPtr<ZqImageOptimize>::create(folder)
                                       : SxPtr<ZqImageOptimize>::create(folder, index);
            EXPECT_NE(optimize(*job), "");
            EXPECT_EQ(contentOf(dir), before);
        }
    };
    {
        const TempDir dir;
        image.write(dir);
        dir.write("watched/other/file", "precious");
        fs::create_directory_symlink(dir.path("watched/other"), dir.path("watched/image/optimize.work"));
        expectRefused(dir, "a link");
    }
    {
        const TempDir dir;
        image.write(dir);
        dir.write("watched/image/optimize.work/file", "precious");
        expectRefused(dir, "a file of somebody else");
    }
    {
        const TempDir dir;
        image.write(dir);
        dir.write("watched/index/stream.json", "");
        ZqImageOptimize job(dir.path("watched/image"), dir.path("watched/index"));
        EXPECT_THAT(optimize(job), HasSubstr("holds an image"));
    }
    const TempDir dir;
    image.write(dir);
    dir.write("watched/index/file", "precious");
    fs::create_directory_symlink(dir.path("watched/index"), dir.path("watched/link"));
    ZqImageOptimize job(dir.path("watched/image"), dir.path("watched/link"));
    EXPECT_EQ(optimize(job), "");
    EXPECT_THAT(job.getResult().indexLeft.str(), HasSubstr("holds other files"));
    EXPECT_EQ(contentOf(dir, "watched/index").size(), 1U);
    EXPECT_EQ(dir.read("watched/index/file"), "precious");
    EXPECT_EQ(contentOf(dir, "watched/image"), image.expected());
}

TEST(Optimize, ALockThatSomebodyHasRemovedCostsNoBlock) {
    TestRandom random(19);
    TRACE_SEED(random);
    const ReorderedImage image(random, allMoveOrders(random, N)[4]);
    const TempDir dir;
    image.write(dir);
    {
        FaultOs os(dir.path("watched"));
        os.failNth(Op::Write, 12, EIO, "img.zqf");
        EXPECT_NE(optimizeOrGoOn(dir), "");
    }
    fs::remove(dir.path("watched/image/optimize.lock"));
    ZqImageOptimize again(dir.path("watched/image"), dir.path("watched/index"));
    EXPECT_THAT(optimize(again), HasSubstr("Unfinished optimization detected"));
    ZqImageOptimize job(dir.path("watched/image"));
    EXPECT_EQ(optimize(job), "");
    EXPECT_EQ(contentOf(dir, "watched/image"), image.expected());
}
