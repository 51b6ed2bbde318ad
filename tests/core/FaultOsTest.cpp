#include "FaultOs.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "TempDir.h"

#include <cerrno>
#include <gmock/gmock.h>

namespace {

void put(const std::string& path, const std::string& bytes, bool sync, int64 offset = -1) {
    SxFileIO file(path, offset < 0 ? "wb" : "r+b");
    file.seek(std::max<int64>(offset, 0));
    file.write(SxString(bytes));
    if (sync) file.sync();
}

} // namespace

TEST(FaultOs, ACrashForgetsWhatWasNotSynced) {
    TempDir dir;
    dir.write("kept", "old bytes");
    dir.write("cut", "0123456789");
    dir.write("replaced", "old");
    dir.write("removed", "old");
    dir.write("from", "moved");
    dir.write("gone/inner", "inner");
    FaultOs os(dir.path());

    put(dir.path("kept"), "NEW", true, 0);
    put(dir.path("kept"), "lost and longer than before", false, 4);
    put(dir.path("new"), "lost", true);
    put(dir.path("cut"), "", false);
    SxFSAction::mv(dir.path("new"), dir.path("replaced"));
    SxFSAction::mv(dir.path("from"), dir.path("to"));
    SxFSAction::rm(dir.path("removed"));
    SxFSAction::rm_r(dir.path("gone"));
    SxFSAction::mkdir_p(dir.path("made/deep"));
    put(dir.path("made/deep/file"), "lost", true);
    os.crash();

    const TreeSnapshot tree = dir.snapshot();
    std::vector<std::string> names;
    for (const auto& [name, mark] : tree)
        names.push_back(name);
    EXPECT_THAT(names,
                testing::ElementsAre("cut", "from", "gone", "gone/inner", "kept", "removed", "replaced"));
    EXPECT_EQ(dir.read("kept"), "NEW bytes");
    EXPECT_EQ(dir.read("cut"), "0123456789");
    EXPECT_EQ(dir.read("replaced"), "old");
    EXPECT_EQ(dir.read("from"), "moved");
    EXPECT_EQ(dir.read("gone/inner"), "inner");
}

TEST(FaultOs, SyncedNamesAndBytesStay) {
    TempDir dir;
    dir.write("old", "old");
    dir.write("removed", "old");
    FaultOs os(dir.path());

    put(dir.path("synced"), "bytes", true);
    put(dir.path("unsynced"), "bytes", false);
    SxFSAction::mv(dir.path("synced"), dir.path("old"));
    SxFSAction::rm(dir.path("removed"));
    SxFSAction::mkdir_p(dir.path("made"));
    SxFSAction::mkdir_p(dir.path("new-folder/sub"));
    SxFSAction::mv(dir.path("new-folder"), dir.path("moved-folder"));
    SxFSAction::syncDir(dir.path());
    put(dir.path("made/lost"), "its folder isn't synced", true);
    SxFSAction::mv(dir.path("made"), dir.path("moved-again"));
    os.crash();

    EXPECT_EQ(dir.read("old"), "bytes");
    EXPECT_EQ(dir.read("unsynced"), "") << "a name without its bytes";
    EXPECT_FALSE(dir.exists("synced"));
    EXPECT_FALSE(dir.exists("removed"));
    EXPECT_TRUE(dir.exists("made"));
    EXPECT_FALSE(dir.exists("made/lost"));
    EXPECT_FALSE(dir.exists("moved-again"));
    EXPECT_TRUE(dir.exists("moved-folder"));
    EXPECT_FALSE(dir.exists("moved-folder/sub"));

    SxFileIO file(dir.path("last"), "wb");
    file.write(SxString("bytes"));
    ASSERT_EQ(os.syncFs(file.getFd()), 0);
    file.close();
    const TreeSnapshot before = dir.snapshot();
    os.crash();
    EXPECT_EQ(dir.snapshot(), before);
}

TEST(FaultOs, ARandomCrashKeepsPendingPagesAndNamesByChance) {
    bool sawMix = false, sawNew = false, sawOld = false;
    for (uint64 seed = 0; seed < 40; ++seed) {
        TempDir dir;
        dir.write("file", std::string(8192, 'a'));
        dir.write("tmp", "x");
        FaultOs os(dir.path());
        put(dir.path("file"), std::string(8192, 'b'), false, 0);
        SxFSAction::mv(dir.path("tmp"), dir.path("final"));
        std::mt19937_64 random(seed);
        os.crash(&random);
        const std::string bytes = dir.read("file");
        ASSERT_EQ(bytes.size(), 8192u);
        sawMix |= bytes.front() != bytes.back();
        (dir.exists("final") ? sawNew : sawOld) = true;
        ASSERT_NE(dir.exists("tmp"), dir.exists("final")) << "a rename lost or doubled the file";
    }
    EXPECT_TRUE(sawMix && sawNew && sawOld);
}

TEST(FaultOs, TheNthOperationFailsAndTheDiskFills) {
    TempDir dir, other;
    FaultOs os(dir.path());
    os.failNth(FaultOs::Op::Write, 2, EIO, "target");
    put(dir.path("elsewhere"), "x", false);
    put(other.path("target"), "x", false);
    put(dir.path("target"), "x", false);
    EXPECT_THROW(put(dir.path("target"), "x", false), SxException);
    put(dir.path("target"), "x", false);
    EXPECT_EQ(os.getNFailed(), 1);

    os.setDiskLeft(10);
    put(dir.path("small"), "123456", false);
    EXPECT_THROW(put(dir.path("large"), "123456", false), SxException);
    EXPECT_EQ(dir.read("large"), "1234") << "the write came short";
    put(dir.path("small"), "abcdef", false, 0);
    SxFSAction::rm(dir.path("large"));
    int64 left = 0;
    ASSERT_EQ(os.freeSpace(dir.path(), &left), 0);
    EXPECT_EQ(left, 4);
    os.setFreeSpaceAnswer(1000);
    ASSERT_EQ(os.freeSpace(dir.path(), &left), 0);
    EXPECT_EQ(left, 1000);
}

TEST(FaultOs, CountsDurableStepsAndCutsThePowerAtOne) {
    TempDir dir;
    FaultOs os(dir.path());
    std::vector<int64> steps;
    os.setHook([&](int64 step, FaultOs::Op, const std::string&) { steps.push_back(step); });
    put(dir.path("a"), "a", true);
    SxFSAction::syncDir(dir.path());
    EXPECT_THAT(steps, testing::ElementsAre(1, 2));

    os.cutPowerAt(4);
    put(dir.path("a"), "b", true, 0);
    EXPECT_THROW(SxFSAction::rm(dir.path("a")), SxException);
    EXPECT_TRUE(os.isCut());
    EXPECT_THROW(put(dir.path("a"), "c", false, 0), SxException);
    os.crash();
    EXPECT_EQ(os.getNSteps(), 4);
    put(dir.path("c"), "c", false);
    EXPECT_EQ(dir.read("a"), "b");
}
