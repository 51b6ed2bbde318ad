#include "ReorderedImage.h"
#include "SxMd5.h"
#include "ZqArchive.h"
#include "ZqImageParams.h"
#include "ZqMoveProgress.h"
#include "ZqOptimizeFolder.h"

namespace {

constexpr uint32 N = 90;
constexpr const char* WORK = "watched/image/optimize.work/";
constexpr const char* LOCK = "watched/image/optimize.lock";
using Phase = ZqMoveProgress::Phase;

/// The image in a new order, and the job that brings it there cut off by one operation that fails.
class CutOff {
public:
    CutOff(const MoveOrder& order, uint64 nBlocks, Op op, const std::string& file, int64 nth = 1)
        : random(21),
          image(random, order) {
        image.write(dir, nBlocks);
        dir.write("watched/index/img.idx.md5",
                  SxMd5::file(SxString(dir.path("watched/index/img.idx"))).str());
        FaultOs os(dir.path("watched"));
        os.failNth(op, nth, EIO, file);
        EXPECT_NE(optimizeOrGoOn(dir), "");
    }
    /// Its failure.
    std::string goOn() {
        ZqImageOptimize job(dir.path("watched/image"));
        const std::string failure = optimize(job);
        mode = job.getResult().mode;
        return failure;
    }
    std::string beginAgain() {
        ZqImageOptimize job(dir.path("watched/image"), dir.path("watched/index"));
        return optimize(job);
    }

    TestRandom random;
    const ReorderedImage image;
    const TempDir dir;
    ZqImageOptimize::Mode mode = ZqImageOptimize::None;
};

MoveOrder reversal(uint32 n) {
    return reversalOfTheFront(n, n);
}

/// The order of the images that are partial. Of their blocks the last one counts as absent.
MoveOrder frontOrder() {
    return reversalOfTheFront(N, 50);
}
constexpr uint64 N_THERE = 60, N_COPIED = 59;

} // namespace

TEST(OptimizeFolder, TheStateFollowsFromProgressNoteAndLock) {
    using Folder = ZqOptimizeFolder;
    struct Case {
        std::optional<ZqMoveProgress::State> howFar;
        std::optional<ZqOptimizeNote::Mode> note;
        Folder::State locked, unlocked;
    };
    const auto IN_PLACE = ZqOptimizeNote::InPlace, COPY = ZqOptimizeNote::Copy;
    const std::vector<Case> cases = {
        {std::nullopt, std::nullopt, Folder::Done, Folder::Nothing}, // an empty folder
        {{{Phase::Heads, 0, 0, 0}}, IN_PLACE, Folder::Moving, Folder::Nothing},
        {{{Phase::Batches, 0, 0, 0}}, IN_PLACE, Folder::Moving, Folder::Moving},
        {{{Phase::Heads, 1, 0, 0}}, IN_PLACE, Folder::Moving, Folder::Moving},
        {{{Phase::Records, 0, 0, 0}}, IN_PLACE, Folder::Replacing, Folder::Replacing},
        {{{Phase::Swap, 4096, 0, 0}}, COPY, Folder::Replacing, Folder::CopyBegun},
        {{{Phase::Tidy, 0, 0, 0}}, COPY, Folder::Done, Folder::Done}};
    for (const Case& each : cases) {
        const TempDir dir;
        dir.write("image/img.zqf", std::string(4096, 'x'));
        const Folder work(SxString(dir.path("image/")));
        EXPECT_EQ(work.state(), Folder::Nothing) << "without a folder";
        work.make();
        if (each.note) {
            ZqOptimizeNote note;
            note.mode = *each.note;
            note.guid = note.from.idx = note.to.idx = "0123456789abcdef0123456789abcdef";
            note.from.sizeZqf = note.to.sizeZqf = 4096;
            note.source.size = 4096;
            work.writeNote(note);
        }
        for (const char* name : {"img.json", "img.zqf"})
            if (each.note) dir.write(std::string("image/optimize.work/") + name, "");
        if (each.howFar) ZqMoveProgress::create(work.file(Folder::PROGRESS), 0, *each.howFar);
        SCOPED_TRACE(each.howFar ? static_cast<int>(each.howFar->phase) : -1);
        EXPECT_EQ(work.state(), each.unlocked);
        if (each.howFar && each.note == IN_PLACE && each.unlocked == Folder::Nothing) {
            // It has its new size already.
            dir.write("image/img.zqf", std::string(8192, 'x'));
            EXPECT_EQ(work.state(), Folder::Moving);
        }
        work.lock();
        EXPECT_EQ(work.state(), each.locked);
        // With the first record, or all, in their places.
        if (!each.howFar || each.howFar->phase < Phase::Records || each.howFar->phase == Phase::Tidy)
            continue;
        fs::remove(dir.path("image/optimize.work/img.json"));
        EXPECT_EQ(work.state(), Folder::Replacing);
        fs::remove(dir.path("image/optimize.lock"));
        EXPECT_EQ(work.state(), each.note == COPY ? Folder::Replacing : Folder::Done);
        fs::remove(dir.path("image/optimize.work/img.zqf"));
        EXPECT_EQ(work.state(), Folder::Done);
    }
    const TempDir dir;
    dir.write("image/optimize.lock", "");
    EXPECT_EQ(ZqOptimizeFolder(SxString(dir.path("image/"))).state(), Folder::Lost);
}

TEST(Optimize, NewRecordsAndBlocksMustBeThereBeforeTheOldOnesGo) {
    using Change = std::function<void(const TempDir&)>;
    const auto take = [](const std::string& name) {
        return [=](const TempDir& dir) { fs::remove(dir.path(WORK + name)); };
    };
    const std::vector<std::tuple<bool, Change, std::string>> cases = {
        {false, take("img.idx"), "isn't the map"},
        {false, take("app.json"), "isn't the record"},
        {true, take("img.idx"), "isn't the map"},
        {true, take("img.zqf"), "isn't what the optimisation has left"},
        {true, [](const TempDir& dir) { fs::resize_file(dir.path(WORK + std::string("img.zqf")), 4096); },
         "isn't what the optimisation has left"}};
    for (const auto& [isCopy, change, text] : cases) {
        SCOPED_TRACE(text);
        MoveOrder order = isCopy ? frontOrder() : reversal(N);
        if (!isCopy) order.source.back() = ZqMovePlan::NONE; // the new file is shorter
        CutOff cut(order, isCopy ? N_THERE : ~uint64{0}, Op::Rename, "img.json", 3);
        ASSERT_TRUE(cut.dir.exists(LOCK));
        change(cut.dir);
        const std::string old = cut.dir.read("watched/image/img.idx");
        EXPECT_THAT(cut.goOn(), HasSubstr(text));
        EXPECT_EQ(cut.dir.read("watched/image/img.idx"), old);
        EXPECT_TRUE(cut.dir.exists(LOCK));
    }
}

TEST(Optimize, WhoGoesOnWithTheRecordsSaysWhatItWas) {
    for (const bool isCopy : {false, true}) {
        for (const bool isLocked : {true, false}) {
            SCOPED_TRACE((isCopy ? "copy" : "in place") + std::string(isLocked ? "" : ", lock removed"));
            CutOff cut(isCopy ? frontOrder() : reversal(N), isCopy ? N_THERE : ~uint64{0}, Op::Rename,
                       "image/img.idx");
            ASSERT_TRUE(cut.dir.exists(LOCK));
            if (!isLocked) {
                fs::remove(cut.dir.path(LOCK));
                EXPECT_THAT(cut.beginAgain(), HasSubstr("Unfinished optimization detected"));
            }
            EXPECT_EQ(cut.goOn(), "");
            EXPECT_EQ(cut.mode, isCopy ? ZqImageOptimize::Copy : ZqImageOptimize::InPlace);
            TreeSnapshot now = contentOf(cut.dir, "watched/image");
            EXPECT_EQ(now.erase("img.idx.md5"), 1U) << "the new digest of the map";
            EXPECT_EQ(now, cut.image.expected(isCopy ? N_COPIED : ~uint64{0}));
        }
    }
}

TEST(Optimize, ACopyIsGoneOnWithOnlyWhereItStillServes) {
    const auto writeZqf = [](const TempDir& dir, const std::string& bytes) {
        dir.write("watched/image/img.zqf", bytes);
    };
    const auto expectCopied = [](const CutOff& cut) {
        TreeSnapshot now = contentOf(cut.dir, "watched/image");
        now.erase("img.idx.md5");
        EXPECT_EQ(now, cut.image.expected(N_COPIED));
    };
    {
        // The image was downloaded to its end since.
        CutOff cut(frontOrder(), N_THERE, Op::Write, "img.zqf");
        ASSERT_FALSE(cut.dir.exists(LOCK));
        writeZqf(cut.dir, cut.image.from.zqf);
        EXPECT_THAT(cut.goOn(), HasSubstr("has become complete"));
        EXPECT_TRUE(cut.dir.read("watched/image/img.zqf") == cut.image.from.zqf);
        EXPECT_EQ(cut.beginAgain(), "");
        EXPECT_TRUE(cut.dir.read("watched/image/img.zqf") == cut.image.to.zqf);
    }
    {
        CutOff cut(frontOrder(), N_THERE, Op::Write, "img.zqf");
        cut.dir.write(WORK + std::string("img.idx"), "other");
        EXPECT_THAT(cut.goOn(), HasSubstr("give INDEX again"));
        EXPECT_EQ(cut.beginAgain(), "");
        expectCopied(cut);
    }
    // More than it should have, and wrong from the start: a note that fits makes nobody believe its end.
    CutOff cut(frontOrder(), N_THERE, Op::Write, "img.zqf");
    cut.dir.write(WORK + std::string("img.zqf"), std::string(2 * N * TestImage::BLOCK, 'x'));
    EXPECT_EQ(cut.goOn(), "");
    expectCopied(cut);
}

TEST(Optimize, BytesThatAPowerCutMayHaveTakenAreNotMoved) {
    TestRandom random(22);
    TRACE_SEED(random);
    const ReorderedImage image(random, frontOrder());
    const TempDir dir;
    image.write(dir);
    // What was noted as synced is there, the rest was lost.
    dir.write("watched/image/img.zqf", image.from.zqf.substr(0, N_THERE * TestImage::BLOCK) +
                                           std::string((N - N_THERE) * TestImage::BLOCK, 0));
    dir.write("watched/image/img.zqf.synced",
              std::to_string(N_THERE * TestImage::BLOCK) + " another-start-of-the-machine\n");
    ZqImageOptimize job(dir.path("watched/image"), dir.path("watched/index"));
    EXPECT_EQ(optimize(job), "");
    EXPECT_EQ(job.getResult().mode, ZqImageOptimize::Copy);
    TreeSnapshot now = contentOf(dir, "watched/image");
    now.erase("img.zqf.synced");
    EXPECT_EQ(now, image.expected(N_COPIED));
}

TEST(Optimize, AStopBeforeAnythingHasBegunLeavesNothing) {
    TestRandom random(23);
    TRACE_SEED(random);
    const ReorderedImage image(random, reversal(N));
    for (const uint64 nBlocks : {~uint64{0}, uint64{N_THERE}}) {
        const TempDir dir;
        image.write(dir, nBlocks);
        const TreeSnapshot before = contentOf(dir);
        ZqImageOptimize job(dir.path("watched/image"), dir.path("watched/index"));
        job.stop();
        EXPECT_EQ(optimize(job), "");
        EXPECT_FALSE(job.isComplete());
        EXPECT_FALSE(job.isBegun());
        EXPECT_EQ(contentOf(dir), before);
    }
}

TEST(Optimize, OnlyTheMapIsTakenOfAnArchive) {
    TestRandom random(24);
    TRACE_SEED(random);
    const ReorderedImage image(random, reversal(N));
    const TempDir dir;
    image.write(dir);
    for (const char* name : {"img.zqf", "move.json", "progress"})
        dir.write("watched/index/" + std::string(name), "hostile");
    ZqArchive::compress7z(dir.path("watched/index/img.idx.7z"), dir.path("watched/index"),
                          {"img.idx", "img.zqf", "move.json", "progress"});
    for (const char* name : {"img.idx", "img.zqf", "move.json", "progress"})
        fs::remove(dir.path("watched/index/" + std::string(name)));
    ZqImageOptimize job(dir.path("watched/image"), dir.path("watched/index"));
    EXPECT_EQ(optimize(job), "");
    EXPECT_EQ(contentOf(dir, "watched/image"), image.expected());
    EXPECT_FALSE(dir.exists("watched/index"));
}

TEST(Optimize, WhatALinkOfTheIndexLeadsToIsTaken) {
    TestRandom random(25);
    TRACE_SEED(random);
    const ReorderedImage image(random, reversal(N));
    const TempDir dir;
    image.write(dir);
    for (const char* name : {"app.json", "img.json", "img.idx"}) {
        fs::rename(dir.path("watched/index/" + std::string(name)), dir.path("watched/" + std::string(name)));
        fs::create_symlink(dir.path("watched/" + std::string(name)),
                           dir.path("watched/index/" + std::string(name)));
    }
    ZqImageOptimize job(dir.path("watched/image"), dir.path("watched/index"));
    EXPECT_EQ(optimize(job), "");
    EXPECT_EQ(contentOf(dir, "watched/image"), image.expected());
    EXPECT_TRUE(dir.exists("watched/img.idx"));
}

TEST(Optimize, PositionsWithoutABlockCountAsAChange) {
    TestRandom random(26);
    TRACE_SEED(random);
    MoveOrder order{"one position is unused by now", std::vector<ZqMovePlan::Position>(N)};
    std::iota(order.source.begin(), order.source.end(), 0);
    order.source[7] = ZqMovePlan::NONE;
    const ReorderedImage image(random, order);
    for (const bool isForecast : {true, false}) {
        const TempDir dir;
        image.write(dir);
        ZqImageOptimize job(dir.path("watched/image"), dir.path("watched/index"));
        if (isForecast) job.setForecastOnly();
        EXPECT_EQ(optimize(job), "");
        EXPECT_EQ(job.getResult().mode, ZqImageOptimize::InPlace);
        EXPECT_EQ(job.getResult().nMoved, 0U);
        EXPECT_EQ(job.getResult().bytes, TestImage::BLOCK);
    }
}

TEST(Optimize, ARecordThatCannotBeReadIsToldBeforeAndHoldsNothingUpLater) {
    CutOff cut(reversal(N), ~uint64{0}, Op::Write, "img.zqf", 12);
    cut.dir.write("watched/image/stream.json", "{");
    EXPECT_EQ(cut.goOn(), "");
    EXPECT_TRUE(cut.dir.read("watched/image/img.zqf") == cut.image.to.zqf);
    cut.image.to.write(SxString(cut.dir.path("watched/index/")));
    fs::remove(cut.dir.path("watched/index/img.zqf"));
    const TreeSnapshot before = contentOf(cut.dir);
    EXPECT_THAT(cut.beginAgain(), HasSubstr("stream.json"));
    EXPECT_EQ(contentOf(cut.dir), before);
}

TEST(Optimize, AForecastLeavesKeptStretchesOfAnotherOrder) {
    TestRandom random(27);
    TRACE_SEED(random);
    const ReorderedImage image(random, frontOrder());
    const TempDir dir;
    image.write(dir, N_THERE);
    dir.write("watched/image/img.ahead", "of another order");
    dir.write("watched/image/img.ahead.idx", "ZAHEAD01");
    const TreeSnapshot before = contentOf(dir);
    ZqImageOptimize job(dir.path("watched/image"), dir.path("watched/index"));
    job.setForecastOnly();
    EXPECT_EQ(optimize(job), "");
    EXPECT_EQ(job.getResult().nMoved + job.getResult().nKept, N_COPIED);
    EXPECT_EQ(contentOf(dir), before);
}

TEST(Optimize, AFileThatWasBroughtBackIsNotMovedOnIn) {
    struct Cut {
        Op op;
        const char* file;
        int64 nth;
    };
    // In a later batch, in the first one of a later round, and when all had moved.
    for (const Cut& at :
         {Cut{Op::Write, "img.zqf", 40}, {Op::Sync, "img.zqf", 3}, {Op::Rename, "image/img.json", 1}}) {
        SCOPED_TRACE(at.nth);
        CutOff cut(reversal(N), ~uint64{0}, at.op, at.file, at.nth);
        ASSERT_TRUE(cut.dir.exists(LOCK));
        cut.dir.write("watched/image/img.zqf", cut.image.from.zqf);
        EXPECT_THAT(cut.goOn(), HasSubstr("isn't the file of which blocks have moved"));
        EXPECT_TRUE(cut.dir.read("watched/image/img.zqf") == cut.image.from.zqf);
    }
}

TEST(Optimize, AWorkFolderOfAnotherImageReplacesNothing) {
    CutOff cut(reversal(N), ~uint64{0}, Op::Rename, "image/img.json");
    const ReorderedImage other(cut.random, reversal(N));
    const TempDir dir;
    other.write(dir);
    fs::copy(cut.dir.path(WORK), dir.path(WORK));
    const TreeSnapshot before = contentOf(dir);
    ZqImageOptimize job(dir.path("watched/image"));
    EXPECT_THAT(optimize(job), HasSubstr("isn't a map of the image"));
    TreeSnapshot now = contentOf(dir);
    now["image/optimize.work/progress"] = before.at("image/optimize.work/progress");
    EXPECT_EQ(now, before);
}

TEST(Optimize, ACopyThatLiesInTheWorkFolderIsOfNoUseInPlace) {
    CutOff cut(reversal(N), ~uint64{0}, Op::Write, "img.zqf", 12);
    cut.dir.write(WORK + std::string("img.zqf"), "of nobody");
    EXPECT_EQ(cut.goOn(), "");
    EXPECT_TRUE(cut.dir.read("watched/image/img.zqf") == cut.image.to.zqf);
}

TEST(Optimize, ARefusedIndexLeavesTheCopyThatWasBegun) {
    CutOff cut(frontOrder(), N_THERE, Op::Write, "img.zqf");
    const std::string map = cut.dir.read("watched/index/img.idx");
    cut.dir.write("watched/index/img.idx", map.substr(8) + map.substr(0, 8));
    EXPECT_THAT(cut.beginAgain(), HasSubstr("has the digest"));
    EXPECT_EQ(cut.goOn(), "");
    EXPECT_TRUE(cut.dir.read("watched/image/img.zqf") ==
                cut.image.to.zqf.substr(0, N_COPIED * TestImage::BLOCK));
}

TEST(Optimize, NothingOfACopyToAnotherOrderIsTaken) {
    bool isCut = true;
    for (int64 step = 1; isCut && !HasFailure(); ++step) {
        for (const bool isKilled : {true, false}) {
            SCOPED_TRACE((isKilled ? "killed at step " : "cut at step ") + std::to_string(step));
            CutOff cut(frontOrder(), N_THERE, Op::Write, "img.zqf", 5);
            const MoveOrder other = reversalOfTheFront(N, 40);
            const ReorderedImage image(cut.image, other);
            const std::vector<TreeSnapshot> right = {cut.image.expected(N_COPIED), image.expected(N_COPIED)};
            image.writeIndex(cut.dir);
            fs::remove(cut.dir.path("watched/index/img.idx.md5"));
            {
                FaultOs os(cut.dir.path("watched"));
                os.cutPowerAt(step);
                cut.beginAgain();
                isCut = os.isCut();
                isKilled ? os.revive() : os.crash(nullptr);
            }
            const auto isRight = [&] {
                TreeSnapshot now = contentOf(cut.dir, "watched/image");
                now.erase("img.idx.md5");
                return now == right[0] || now == right[1];
            };
            // None may have begun, or the end of one be all that was left.
            if (!isRight() && !cut.goOn().empty() && !isRight()) {
                EXPECT_EQ(cut.beginAgain(), "");
            }
            EXPECT_TRUE(isRight());
        }
    }
}

TEST(Optimize, ADigestFileOfTheMapCountsUntilTheMapGoes) {
    TestRandom random(29);
    TRACE_SEED(random);
    const ReorderedImage image(random, reversal(N));
    const TempDir dir;
    image.write(dir);
    // A digest in the record isn't looked at where there is such a file.
    ZqAppParams app(SxString(dir.path("watched/image/")));
    app.checksumIdx = "another";
    app.write();
    dir.write("watched/image/img.idx.md5", SxMd5::file(SxString(dir.path("watched/image/img.idx"))).str());
    {
        FaultOs os(dir.path("watched"));
        os.failNth(Op::Write, 12, EIO, "img.zqf");
        EXPECT_NE(optimizeOrGoOn(dir), "");
    }
    EXPECT_EQ(optimizeOrGoOn(dir), "");
    EXPECT_EQ(contentOf(dir, "watched/image"), image.expected());
}

TEST(Optimize, MapsOfDifferentLengthsAreRefusedInEveryPhase) {
    CutOff cut(reversal(N), ~uint64{0}, Op::Rename, "image/img.json");
    const ZqOptimizeFolder work(SxString(cut.dir.path("watched/image/")));
    cut.dir.write(WORK + std::string("img.idx"), std::string(3000 * sizeof(uint64), '\0'));
    ZqOptimizeNote note = work.readNote();
    note.to.idx = SxMd5::file(work.file("img.idx"));
    work.writeNote(note);
    ZqMoveProgress::create(work.file(ZqOptimizeFolder::PROGRESS), work.digestNote(),
                           {Phase::Records, 0, 0, 0, 0});
    const std::string map = cut.dir.read("watched/image/img.idx");
    EXPECT_NE(cut.goOn(), "");
    EXPECT_EQ(cut.dir.read("watched/image/img.idx"), map);
}
