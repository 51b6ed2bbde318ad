#include "DriveImage.h"
#include "Failure.h"
#include "ZqBlocks.h"

#include <barrier>
#include <gmock/gmock.h>
#include <thread>

namespace {

using testing::HasSubstr;

/// Writes at random, and knows which contents each block may have after a cut.
class Writer {
public:
    Writer(const DriveImage& image_, TestRandom* random_)
        : image(image_),
          random(*random_),
          allowed(image.nRaw()) {
        const std::string raw = image.rawBytes();
        for (uint64 rawIdx = 0; rawIdx < image.nRaw(); ++rawIdx)
            allowed[rawIdx] = {raw.substr(rawIdx * ZqBlocks::SIZE, ZqBlocks::SIZE)};
    }

    /// Ends at the first failure. A flush counts as a sync.
    void run(Mode mode, int nSteps, bool syncsFirst = false) {
        try {
            Drive drive(image, mode);
            if (syncsFirst && !sync(&drive)) return;
            for (int n = 0; n < nSteps; ++n) {
                if (!step(&drive)) return;
            }
            if (drive.disk.close() == 0) settle();
        } catch (const SxException&) {
        }
    }

    /// `isSettled`: what is found is durable.
    std::string findLoss(Mode mode, bool isSettled = true) {
        Drive drive(image, mode);
        for (uint64 rawIdx = 0; rawIdx < image.nRaw(); ++rawIdx) {
            const std::string block = drive.read(rawIdx);
            std::vector<std::string>& versions = allowed[rawIdx];
            if (std::find(versions.begin(), versions.end(), block) == versions.end()) {
                return "RAW block " + std::to_string(rawIdx) + " has none of its " +
                       std::to_string(versions.size()) + " versions: " + block.substr(0, 20);
            }
            if (isSettled) versions.clear();
            versions.push_back(block);
        }
        return "";
    }

private:
    bool sync(Drive* drive) {
        if (drive->disk.sync() != 0) return false;
        settle();
        return true;
    }
    bool step(Drive* drive) {
        const uint64 kind = random.below(20);
        if (kind == 0) {
            if (!failureOf([&] { drive->disk.flushLayer(); }).empty()) return false;
            settle();
        } else if (kind < 4) {
            return sync(drive);
        } else if (kind < 9) {
            const uint64 rawIdx = random.below(image.nRaw());
            const uint64 n = std::min(random.between(1, 6), image.nRaw() - rawIdx);
            for (uint64 i = rawIdx; i < rawIdx + n; ++i)
                allowed[i].push_back(std::string(image.validBytes(i), '\0'));
            if (drive->discard(rawIdx, n) != 0) return false;
        } else {
            const uint64 rawIdx = random.below(image.nRaw());
            allowed[rawIdx].push_back(random.bytes(image.validBytes(rawIdx)));
            if (drive->write(rawIdx, allowed[rawIdx].back()) != 0) return false;
        }
        return true;
    }
    /// What was written last is durable.
    void settle() {
        for (std::vector<std::string>& versions : allowed)
            versions = {versions.back()};
    }

    const DriveImage& image;
    TestRandom& random;
    std::vector<std::vector<std::string>> allowed; ///< by RAW index, the newest last
};

class WriteLayerCut : public testing::TestWithParam<Mode> {};

} // namespace

TEST_P(WriteLayerCut, AtAnyStepKeepsWhatIsSynced) {
    TestRandom random(17);
    TRACE_SEED(random);
    int64 nCuts = 0;
    for (int64 cutAt = 1;; ++cutAt) {
        DriveImage image(random, 24, 0.6, "watched/", TempDir::inMemory());
        image.put(0, image.nZqf, false);
        FaultOs os(image.dir.path("watched"));
        Writer writer(image, &random);
        writer.run(GetParam(), 40);
        os.cutPowerAt(os.getNSteps() + cutAt);
        writer.run(GetParam(), 60);
        const bool wasCut = os.isCut();
        std::mt19937_64 chance(static_cast<uint64>(cutAt));
        os.crash(cutAt % 2 ? &chance : nullptr);
        ASSERT_EQ(writer.findLoss(Mode::Ro), "") << "cut at step " << cutAt;
        // What the cut has left must not come back after what is written from here on.
        writer.run(GetParam(), 30);
        os.crash(&chance);
        ASSERT_EQ(writer.findLoss(GetParam()), "") << "second cut after step " << cutAt;
        nCuts += wasCut;
        if (!wasCut && cutAt > 60) break;
    }
    EXPECT_GT(nCuts, 10);
}

// What is read is durable by the next sync, whoever wrote it; and until then nothing takes its place.
TEST_P(WriteLayerCut, AfterAKillKeepsWhatIsSynced) {
    TestRandom random(18);
    TRACE_SEED(random);
    int64 nKills = 0;
    for (int i = 0; i < 200; ++i) {
        const auto killAt = static_cast<int64>(random.between(1, 30));
        DriveImage image(random, 24, 0.6, "watched/", TempDir::inMemory());
        image.put(0, image.nZqf, false);
        FaultOs os(image.dir.path("watched"));
        Writer writer(image, &random);
        os.cutPowerAt(killAt);
        writer.run(GetParam(), 60);
        nKills += os.isCut();
        os.revive();
        ASSERT_EQ(writer.findLoss(Mode::Ro, false), "") << "killed at step " << killAt;
        const auto cutAfter = static_cast<int64>(random.between(1, 8));
        os.cutPowerAt(os.getNSteps() + cutAfter);
        writer.run(GetParam(), 30, random.chance(0.5));
        std::mt19937_64 chance(static_cast<uint64>(i));
        os.crash(i % 2 ? &chance : nullptr);
        ASSERT_EQ(writer.findLoss(GetParam()), "")
            << "killed at step " << killAt << ", cut " << cutAfter << " later";
    }
    EXPECT_GT(nKills, 100);
}

INSTANTIATE_TEST_SUITE_P(Modes, WriteLayerCut, testing::Values(Mode::Rtw, Mode::Rw));

TEST(WriteLayer, GivesDiscardedRoomBackAndUsesItAgain) {
    TestRandom random(21);
    constexpr uint64 N = 400, RESERVED = 64;
    const DriveImage image(random, N, 0.5);
    image.put(0, image.nZqf, false);
    const auto allocated = [&] {
        SxStat info;
        EXPECT_EQ(SxOs::get().stat(image.path("img.tmp"), &info), 0);
        return static_cast<uint64>(info.allocated) / ZqBlocks::SIZE;
    };
    const auto fill = [&](Drive* drive, char c) {
        for (uint64 rawIdx = 0; rawIdx < N; ++rawIdx)
            ASSERT_EQ(drive->write(rawIdx, std::string(ZqBlocks::SIZE, c)), 0);
        ASSERT_EQ(drive->disk.sync(), 0);
    };
    const auto giveBack = [](Drive* drive) {
        while (drive->disk.giveBackRoom())
            continue;
    };
    const auto expectAll = [&](Drive* drive, char c) {
        for (uint64 rawIdx = 0; rawIdx < N; ++rawIdx)
            ASSERT_TRUE(drive->read(rawIdx) == std::string(image.validBytes(rawIdx), c)) << rawIdx;
    };
    {
        Drive drive(image, Mode::Rtw);
        // Enough to have the index written anew several times.
        for (int round = 0; round < 400; ++round) {
            ASSERT_NO_FATAL_FAILURE(fill(&drive, static_cast<char>('a' + round % 20)));
            ASSERT_EQ(drive.discard(0, N), 0);
            ASSERT_EQ(drive.disk.sync(), 0);
            if (round < 2) {
                ASSERT_EQ(drive.write(0, std::string(ZqBlocks::SIZE, 'y')), 0);
                ASSERT_EQ(drive.disk.sync(), 0);
                EXPECT_GE(allocated(), N) << "a sync waits for no holes, be it large or small";
                giveBack(&drive);
                EXPECT_LE(allocated(), RESERVED + 1);
            }
        }
        expectAll(&drive, '\0');
        EXPECT_LT(std::filesystem::file_size(image.path("img.tix")), 2U << 20);
        EXPECT_LE(std::filesystem::file_size(image.path("img.tmp")), (N + RESERVED) * ZqBlocks::SIZE);
        ASSERT_NO_FATAL_FAILURE(fill(&drive, 'x'));
        ASSERT_EQ(drive.discard(0, N / 2), 0);
        EXPECT_GE(allocated(), N) << "what isn't durable yet was given back";
        ASSERT_EQ(drive.disk.sync(), 0);
        giveBack(&drive);
        EXPECT_LE(allocated(), N / 2 + RESERVED);
        EXPECT_EQ(drive.write(0, std::string(ZqBlocks::SIZE, 'y')), 0);
    }
    // As if the service had been killed before the holes.
    std::filesystem::resize_file(image.path("img.tmp"), 2 * N * ZqBlocks::SIZE);
    for (const Mode mode : {Mode::Ro, Mode::Rtw, Mode::Rw}) {
        Drive drive(image, mode);
        EXPECT_TRUE(drive.read(0) == std::string(ZqBlocks::SIZE, 'y'));
        EXPECT_TRUE(drive.read(1) == std::string(ZqBlocks::SIZE, '\0'));
        EXPECT_TRUE(drive.read(N - 1) == std::string(image.validBytes(N - 1), 'x'));
    }
    EXPECT_LE(std::filesystem::file_size(image.path("img.tmp")), (N + RESERVED) * ZqBlocks::SIZE);
}

TEST(WriteLayer, AnIndexDoesntGrowFromMountToMount) {
    TestRandom random(24);
    constexpr uint64 N = 8000, N_KEPT = 500, RECORD = 16, LEAST = 1 << 20;
    const DriveImage image(random, N, 0.2);
    image.put(0, image.nZqf, false);
    const auto block = [](uint64 rawIdx) {
        return std::string(ZqBlocks::SIZE, static_cast<char>('a' + rawIdx % 20));
    };
    for (int mount = 0; mount < 12; ++mount) {
        Drive drive(image, Mode::Rtw);
        ASSERT_EQ(drive.disk.sync(), 0);
        // The blocks that read as zeros and that the image has, and those that stay written.
        EXPECT_LE(std::filesystem::file_size(image.path("img.tix")),
                  LEAST + 2 * (N / 5 + N_KEPT + N / 20) * RECORD)
            << "mount " << mount;
        for (uint64 rawIdx = 0; rawIdx < N - 1; ++rawIdx)
            ASSERT_EQ(drive.write(rawIdx, block(rawIdx)), 0);
        ASSERT_EQ(drive.disk.sync(), 0);
        ASSERT_EQ(drive.discard(N_KEPT, N - N_KEPT), 0);
    }
    Drive drive(image, Mode::Ro);
    for (uint64 rawIdx = 0; rawIdx < N - 1; ++rawIdx) {
        ASSERT_TRUE(drive.read(rawIdx) ==
                    (rawIdx < N_KEPT ? block(rawIdx) : std::string(ZqBlocks::SIZE, '\0')))
            << rawIdx;
    }
}

TEST(WriteLayer, WhatAFullDiskHasRefusedOnceIsNoFailureLater) {
    TestRandom random(23);
    constexpr uint64 N = 400;
    const DriveImage image(random, N, 0.2);
    image.put(0, image.nZqf, false);
    // The names are taken, as if there were no room for the files.
    std::filesystem::create_directory(image.path("img.tmp"));
    Drive drive(image, Mode::Rw);
    EXPECT_EQ(drive.disk.getFailure().str(), "") << "nothing needs the files yet";
    const std::string block(ZqBlocks::SIZE, 'b');
    const auto write = [&] {
        int error = 0;
        for (uint64 rawIdx = 0; rawIdx < N && error == 0; ++rawIdx)
            error = drive.write(rawIdx, block);
        return error;
    };
    EXPECT_NE(write(), 0);
    EXPECT_THAT(drive.disk.getFailure().str(), HasSubstr("img.tmp"));
    std::filesystem::remove(image.path("img.tmp"));
    std::filesystem::create_directory(image.path("img.tix.new"));
    for (int round = 0; round < 120; ++round) {
        ASSERT_EQ(write(), 0);
        ASSERT_EQ(drive.discard(0, N), 0);
        ASSERT_EQ(drive.disk.sync(), 0);
    }
    EXPECT_GT(std::filesystem::file_size(image.path("img.tix")), 1U << 20)
        << "nothing was to be written anew";
    EXPECT_EQ(drive.disk.getFailure().str(), "");
}

TEST(WriteLayer, ALayerOfAFormerFormatTakesDiscards) {
    for (const bool isFirst : {false, true}) {
        TestRandom random(22);
        const DriveImage image(random, 8, 1.0);
        image.put(0, image.nZqf, false);
        const std::string block(ZqBlocks::SIZE, 'w'), zeros(ZqBlocks::SIZE, '\0');
        {
            Drive drive(image, Mode::Rtw);
            for (const uint64 rawIdx : {5U, 1U, 3U})
                ASSERT_EQ(drive.write(rawIdx, block), 0);
        }
        std::string tix = TempDir::readFile(image.path("img.tix"));
        if (isFirst) tix.erase(16, 16);
        tix.replace(0, 8, isFirst ? "ZLAYER01" : "ZLAYER02");
        image.dir.write("img.tix", tix);
        {
            // The name of the new index is taken.
            std::filesystem::create_directory(image.path("img.tix.new"));
            Drive drive(image, Mode::Rtw);
            ASSERT_EQ(drive.discard(0, 2), 0);
            EXPECT_EQ(drive.disk.sync(), EIO);
            EXPECT_THAT(drive.disk.getFailure().str(), HasSubstr("in its present format"));
            std::filesystem::remove(image.path("img.tix.new"));
        }
        {
            Drive drive(image, Mode::Rtw);
            ASSERT_EQ(drive.discard(0, 2), 0);
            ASSERT_EQ(drive.write(6, block), 0);
            ASSERT_EQ(drive.disk.sync(), 0);
        }
        EXPECT_EQ(TempDir::readFile(image.path("img.tix")).substr(0, 8), "ZLAYER03");
        Drive drive(image, Mode::Rtw);
        for (const uint64 rawIdx : {0U, 1U})
            EXPECT_TRUE(drive.read(rawIdx) == zeros) << rawIdx;
        for (const uint64 rawIdx : {3U, 5U, 6U})
            EXPECT_TRUE(drive.read(rawIdx) == block) << rawIdx;
        drive.disk.flushLayer();
        EXPECT_TRUE(drive.read(1) == zeros);
        EXPECT_EQ(std::filesystem::file_size(image.path("img.tix")), 32U) << "zeros have moved, too";
    }
}

TEST(WriteLayer, ADamagedIndexIsCutOrRefused) {
    constexpr size_t RECORD = 16;
    struct Case {
        const char* name;
        std::function<void(std::string* tix, std::string* tmp)> damage;
        int nKept; ///< of three written blocks
        const char* failure;
    };
    const Case cases[] = {
        {"whole", [](std::string*, std::string*) {}, 3, ""},
        {"empty", [](std::string* tix, std::string*) { tix->clear(); }, 0, ""},
        {"cut header", [](std::string* tix, std::string*) { tix->resize(7); }, 0, ""},
        {"cut identity", [](std::string* tix, std::string*) { tix->resize(2 * RECORD - 1); }, 0, ""},
        {"the former format",
         [](std::string* tix, std::string*) { tix->erase(RECORD, RECORD).replace(0, 8, "ZLAYER01"); }, 3, ""},
        {"cut record", [](std::string* tix, std::string*) { tix->resize(5 * RECORD - 1); }, 2, ""},
        {"zeros after it", [](std::string* tix, std::string*) { tix->append(3 * RECORD, '\0'); }, 3, ""},
        {"all zeros", [](std::string* tix, std::string*) { tix->assign(tix->size(), '\0'); }, 0, ""},
        {"a bit of the index", [](std::string* tix, std::string*) { (*tix)[3 * RECORD] ^= 1; }, 1, ""},
        {"a bit of the slot", [](std::string* tix, std::string*) { (*tix)[4 * RECORD + 9] ^= 4; }, 2, ""},
        {"a record twice", [](std::string* tix, std::string*) { tix->append(*tix, 2 * RECORD, RECORD); }, 0,
         "twice"},
        {"no data", [](std::string*, std::string* tmp) { tmp->clear(); }, 0, "beyond 'img.tmp'"},
        {"short data", [](std::string*, std::string* tmp) { tmp->pop_back(); }, 0, "beyond 'img.tmp'"},
        {"another file", [](std::string* tix, std::string*) { tix->replace(0, 4, "What"); }, 0,
         "not the index"},
        {"another disk", [](std::string* tix, std::string*) { ++(*tix)[8]; }, 0, "belongs to a disk of"},
    };
    for (const Case& test : cases) {
        SCOPED_TRACE(test.name);
        TestRandom random(3);
        const DriveImage image(random, 8);
        image.put(0, image.nZqf, false);
        const std::string block(ZqBlocks::SIZE, 'w');
        {
            Drive drive(image, Mode::Rtw);
            for (const uint64 rawIdx : {5U, 1U, 3U})
                ASSERT_EQ(drive.write(rawIdx, block), 0);
        }
        std::string tix = TempDir::readFile(image.path("img.tix")),
                    tmp = TempDir::readFile(image.path("img.tmp"));
        test.damage(&tix, &tmp);
        image.dir.write("img.tix", tix);
        image.dir.write("img.tmp", tmp);
        for (const Mode mode : {Mode::Ro, Mode::Rtw, Mode::Rw}) {
            int nKept = 0;
            const std::string failure = failureOf([&] {
                Drive drive(image, mode);
                for (const uint64 rawIdx : {5U, 1U, 3U})
                    nKept += drive.read(rawIdx) == block;
            });
            EXPECT_EQ(nKept, test.nKept);
            EXPECT_EQ(failure.empty(), *test.failure == '\0') << failure;
            EXPECT_THAT(failure, AllOf(HasSubstr(test.failure), HasSubstr(*test.failure ? "img.tix" : "")));
        }
    }
}

TEST(WriteLayer, TheSyncOfAnIndexIsProgress) {
    TestRandom random(25);
    const DriveImage image(random, 40, 1.0, "watched/");
    image.put(0, image.nZqf, false);
    FaultOs os(image.dir.path("watched"));
    Drive drive(image, Mode::Rtw);
    ASSERT_EQ(drive.write(3, std::string(ZqBlocks::SIZE, 'w')), 0);
    uint64 before = 0, after = 0;
    os.setHook([&](int64, FaultOs::Op op, const std::string& path) {
        if (op == FaultOs::Op::Sync && path.ends_with("img.tix.new")) before = drive.disk.getProgress();
        if (op == FaultOs::Op::Rename) after = drive.disk.getProgress();
    });
    drive.disk.flushLayer();
    os.setHook({});
    EXPECT_GT(after, before);
}

TEST(WriteLayer, AFullDiskFailsTheWriterAndNothingElse) {
    TestRandom random(4);
    constexpr uint64 N = 300, RESERVED = 64;
    const DriveImage image(random, N, 0.5, "watched/");
    image.put(0, image.nZqf, false);
    FaultOs os(image.dir.path("watched"));
    const auto full = [&](char c) { return std::string(image.validBytes(0), c); };
    {
        Drive drive(image, Mode::Rtw);
        ASSERT_EQ(drive.write(0, full('1')), 0);
        os.setDiskLeft(ZqBlocks::SIZE / 2);
        const std::string large((RESERVED + 1) * ZqBlocks::SIZE, '2');
        int error = 0;
        drive.disk.write(100 * ZqBlocks::SIZE, static_cast<uint32>(large.size()), large.data(), 1, false,
                         &error);
        EXPECT_EQ(error, ENOSPC);
        EXPECT_EQ(drive.write(0, full('2')), 0) << "a slot that is there needs no room";
        // Twice: a sync on a disk with room fills the reserve again.
        for (const uint64 first : {1U, 101U}) {
            for (uint64 i = 0; i < RESERVED; ++i)
                ASSERT_EQ(drive.write(first + i, full('3')), 0) << i;
            EXPECT_EQ(drive.write(first + RESERVED, full('2')), ENOSPC);
            EXPECT_EQ(drive.disk.sync(), 0) << "the records need no room either";
            os.setDiskLeft(1 << 20);
            EXPECT_EQ(drive.disk.sync(), 0);
            os.setDiskLeft(0);
        }
        os.setDiskLeft(1 << 20);
        EXPECT_EQ(drive.write(200, full('4')), 0);
        EXPECT_EQ(drive.disk.sync(), 0);
    }
    os.crash();
    Drive drive(image, Mode::Ro);
    EXPECT_TRUE(drive.read(0) == full('2'));
    EXPECT_TRUE(drive.read(1) == full('3'));
    EXPECT_TRUE(drive.read(RESERVED) == full('3'));
    EXPECT_TRUE(drive.read(RESERVED + 1) ==
                image.rawBytes().substr((RESERVED + 1) * ZqBlocks::SIZE, ZqBlocks::SIZE));
    EXPECT_TRUE(drive.read(100 + RESERVED) == full('3'));
    EXPECT_TRUE(drive.read(200) == full('4'));
}

// What is removed on a drive makes room on a disk that others have filled.
TEST(WriteLayer, ADiscardNeedsNoRoom) {
    TestRandom random(6);
    constexpr uint64 N = 6000;
    const DriveImage image(random, N, 0.5, "watched/");
    image.put(0, image.nZqf, false);
    FaultOs os(image.dir.path("watched"));
    const std::string block(ZqBlocks::SIZE, 'w');
    {
        Drive drive(image, Mode::Rtw);
        for (uint64 rawIdx = 0; rawIdx < N - 1; ++rawIdx)
            ASSERT_EQ(drive.write(rawIdx, block), 0);
        ASSERT_EQ(drive.disk.sync(), 0);
        os.setDiskLeft(0);
        ASSERT_EQ(drive.discard(0, N - 100), 0);
        EXPECT_EQ(drive.disk.sync(), 0);
        EXPECT_LT(std::filesystem::file_size(image.path("img.tix")), 2 * N * 16 + 100);
        EXPECT_EQ(drive.write(1, block), 0);
        EXPECT_EQ(drive.disk.sync(), 0);
    }
    os.crash();
    Drive drive(image, Mode::Ro);
    EXPECT_TRUE(drive.read(0) == std::string(ZqBlocks::SIZE, '\0'));
    for (const uint64 rawIdx : {uint64{1}, N - 100, N - 2})
        EXPECT_TRUE(drive.read(rawIdx) == block) << rawIdx;
}

TEST(WriteLayer, ADriveThatCantKeepWritesIsRefused) {
    TestRandom random(7);
    const DriveImage image(random, 40, 0.5, "watched/");
    image.put(0, image.nZqf, false);
    FaultOs os(image.dir.path("watched"));
    os.setDiskLeft(ZqBlocks::SIZE);
    for (int i = 0; i < 2; ++i)
        EXPECT_THAT(failureOf([&] { Drive(image, Mode::Rtw); }), HasSubstr("There is no room in"));
    EXPECT_EQ(Drive(image, Mode::Ro).read(0).size(), ZqBlocks::SIZE);
    os.setDiskLeft(1 << 20);
    EXPECT_EQ(Drive(image, Mode::Rtw).write(0, std::string(ZqBlocks::SIZE, 'w')), 0);
}

TEST(WriteLayer, NoWriteIsTakenBehindAFailedOne) {
    struct Case {
        Mode mode;
        FaultOs::Op op;
        const char* file;
    };
    for (const Case& test :
         {Case{Mode::Rtw, FaultOs::Op::Write, "img.tmp"}, Case{Mode::Rtw, FaultOs::Op::Sync, "img.tmp"},
          Case{Mode::Rtw, FaultOs::Op::Sync, "img.tix"}, Case{Mode::Rw, FaultOs::Op::Write, "img.zqf"},
          Case{Mode::Rw, FaultOs::Op::Sync, "img.zqf"}}) {
        SCOPED_TRACE(std::string(test.file) + " op " + std::to_string(static_cast<int>(test.op)));
        TestRandom random(5);
        const DriveImage image(random, 16, 1.0, "watched/");
        image.put(0, image.nZqf, false);
        FaultOs os(image.dir.path("watched"));
        Drive drive(image, test.mode);
        os.failNth(test.op, 1, EIO, test.file);
        const std::string block(ZqBlocks::SIZE, 'b');
        EXPECT_TRUE(drive.write(0, block) == EIO || drive.disk.sync() == EIO);
        EXPECT_EQ(os.getNFailed(), 1);
        EXPECT_EQ(drive.write(1, block), EIO);
        EXPECT_NE(drive.disk.sync(), 0);
        EXPECT_NE(drive.disk.close(), 0);
        EXPECT_THAT(drive.disk.getFailure().str(), HasSubstr(test.file));
    }
}

/// A disk that is full as soon as a write layer has its reserve.
class DiskForTheReserve : public FaultOs {
public:
    using FaultOs::FaultOs;

    int preallocate(int fd, int64 offset, int64 n) override {
        if (isFull) return -ENOSPC;
        isFull = n >= RESERVE;
        return FaultOs::preallocate(fd, offset, n);
    }
    int64 writeAt(int fd, const void* buffer, int64 n, int64 offset) override {
        return isFull && offset >= RESERVE ? -ENOSPC : FaultOs::writeAt(fd, buffer, n, offset);
    }

private:
    static constexpr int64 RESERVE = 64 * ZqBlocks::SIZE;
    std::atomic<bool> isFull{false};
};

TEST(WriteLayer, TwoFirstWritersAtOnceLoseNothingOnAFullDisk) {
    const std::string block(ZqBlocks::SIZE, 'w');
    for (int round = 0; round < 1000 && !testing::Test::HasFailure(); ++round) {
        TestRandom random(5);
        const DriveImage image(random, 8);
        DiskForTheReserve os(image.dir.path());
        BlockMap map(image.prefix.str(), image.sizeRaw, true);
        WriteLayer layer(image.prefix.str(), &map, false);
        int errors[2] = {-1, -1};
        std::barrier ready(2);
        const auto write = [&](uint64 at) {
            ready.arrive_and_wait();
            errors[at] = layer.write({at}, 1, block.data());
        };
        std::thread other(write, 1);
        write(0);
        other.join();
        for (const uint64 at : {0U, 1U}) {
            if (errors[at] != 0) continue;
            std::string found(ZqBlocks::SIZE, '?');
            SxOs::get().readAt(layer.getFd(), found.data(), ZqBlocks::SIZE, map.get({at}).slot().byte());
            EXPECT_EQ(found, block);
        }
    }
}
