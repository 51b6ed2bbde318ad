#include "../base/BaseTest.h"
#include "DriveImage.h"

#include <cstring>

namespace {

constexpr uint64 BLOCK = 4096;
constexpr uint64 DELIVERY = 256; ///< blocks
constexpr uint64 IN_MEMORY = UnderflowStore::MAX_WITHOUT_FILE / BLOCK;

/// A store over a disk that gets full.
class UnderflowStoreTest : public testing::Test {
protected:
    static std::string block(uint64 zqfIdx) {
        std::string bytes(BLOCK, static_cast<char>(zqfIdx * 37 + 1));
        std::memcpy(bytes.data(), &zqfIdx, sizeof zqfIdx);
        return bytes;
    }
    void add(uint64 first, uint64 n = DELIVERY) {
        std::string bytes;
        for (uint64 i = first; i < first + n; ++i)
            bytes += block(i);
        store.add({first}, bytes.data(), bytes.size());
    }
    /// The first block from `first` to `end` - 1 that isn't as it should be; `end` where all are.
    uint64 firstWrong(uint64 first, uint64 end, bool isPresent) {
        std::string bytes(BLOCK, '\0');
        for (; first < end; ++first) {
            if (store.has({first}) != isPresent) break;
            if (isPresent && (store.read(first * BLOCK, BLOCK, bytes.data()) != 0 || bytes != block(first)))
                break;
        }
        return first;
    }

    const TempDir dir;
    FaultOs os{dir.path()};
    std::atomic<uint64> cursor{0};
    UnderflowStore store{dir.path() + "/", 100'000, 0, cursor};
};

} // namespace

TEST_F(UnderflowStoreTest, AFullDiskLeavesBlocksToBoundedMemory) {
    // 3.2 of the 32 MiB are kept in reserve.
    os.setDiskLeft(32 << 20);
    const uint64 nInFile = 28 * DELIVERY, nAll = nInFile + IN_MEMORY;
    for (uint64 at = 0; at < nAll; at += DELIVERY)
        ASSERT_EQ(failureOf([&] { add(at); }), "") << at;
    int64 left = 0;
    os.freeSpace(dir.path(), &left);
    EXPECT_EQ(left, 4 << 20);
    EXPECT_EQ(firstWrong(0, nAll, true), nAll);
    // Beyond the bound the oldest of those in memory go, and can come anew.
    const uint64 drops = store.nDrops();
    add(nAll);
    EXPECT_GT(store.nDrops(), drops);
    EXPECT_EQ(firstWrong(0, nInFile, true), nInFile);
    EXPECT_EQ(firstWrong(nInFile, nInFile + DELIVERY, false), nInFile + DELIVERY);
    EXPECT_EQ(firstWrong(nInFile + DELIVERY, nAll + DELIVERY, true), nAll + DELIVERY);
    add(nInFile);
    EXPECT_EQ(firstWrong(nInFile, nInFile + DELIVERY, true), nInFile + DELIVERY);
    // Where the cursor passes, memory is free again for what comes.
    cursor = nInFile + 4 * DELIVERY;
    store.dropPassed();
    EXPECT_EQ(firstWrong(0, cursor, false), cursor);
    const uint64 before = store.nDrops();
    add(nAll + DELIVERY);
    EXPECT_EQ(store.nDrops(), before);
    EXPECT_EQ(firstWrong(cursor, nAll + 2 * DELIVERY, true), nAll + 2 * DELIVERY);
    // With room, blocks go into the file, and those in memory can follow.
    os.setDiskLeft(1 << 30);
    store.setCacheSize(0);
    EXPECT_EQ(firstWrong(cursor, nAll + 2 * DELIVERY, true), nAll + 2 * DELIVERY);
    os.freeSpace(dir.path(), &left);
    EXPECT_LT(left, (1 << 30) - (60 << 20));
}

TEST_F(UnderflowStoreTest, OtherFaultsOfTheFileAreToldStill) {
    os.failNth(Op::Write, 1, EIO, "img.delivered");
    EXPECT_THAT(failureOf([&] { add(0); }), HasSubstr("Cannot keep delivered blocks in"));
    EXPECT_EQ(firstWrong(0, DELIVERY, false), DELIVERY);
    add(0);
    // A quota can make a disk full before its time.
    os.failNth(Op::Write, 1, EDQUOT, "img.delivered");
    add(DELIVERY);
    EXPECT_EQ(firstWrong(0, 2 * DELIVERY, true), 2 * DELIVERY);
    // Less memory doesn't help a full disk.
    os.setDiskLeft(0);
    EXPECT_EQ(failureOf([&] { store.setCacheSize(0); }), "");
    EXPECT_EQ(firstWrong(0, 2 * DELIVERY, true), 2 * DELIVERY);
}

TEST_F(UnderflowStoreTest, WhatIsInMemoryCountsOnceHoweverOftenTheFileFails) {
    constexpr uint64 N_MEMORY = 16;
    store.setCacheSize(N_MEMORY * BLOCK);
    os.failNth(Op::Write, 1, EIO, "img.delivered", true);
    // Each time the start of the delivery goes into memory, and its end nowhere.
    for (int i = 0; i < 3; ++i)
        EXPECT_THAT(failureOf([&] { add(0); }), HasSubstr("Cannot keep delivered blocks in"));
    EXPECT_EQ(firstWrong(0, N_MEMORY, true), N_MEMORY);
    EXPECT_EQ(firstWrong(N_MEMORY, DELIVERY, false), DELIVERY);
    cursor = N_MEMORY;
    store.dropPassed();
    // All of the memory is free again.
    EXPECT_EQ(failureOf([&] { add(N_MEMORY, N_MEMORY); }), "");
    EXPECT_EQ(firstWrong(N_MEMORY, 2 * N_MEMORY, true), 2 * N_MEMORY);
}
