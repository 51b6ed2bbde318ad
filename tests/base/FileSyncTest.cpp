#include "BaseTest.h"
#include "SxFileIO.h"
#include "ZqFileSync.h"

namespace {

/// A file that grows, and the machine that it lies on.
class FileSync : public testing::Test {
protected:
    /// The same machine; some tell no id of their start.
    class Machine : public FaultOs {
    public:
        using FaultOs::FaultOs;
        std::string bootId() override { return hasId ? FaultOs::bootId() : std::string(); }
        bool hasId = true;
    };
    /// A writer's life: goes on at the file's end, and writes up to `size`.
    void write(uint64 size) {
        synced.cutBack();
        ZqFileSync sync(file);
        SxFileIO out(file, "ab");
        sync.begin(static_cast<uint64>(out.getSize()));
        out.write(SxString(std::string(size - static_cast<uint64>(out.getSize()), 'x')));
        out.close();
        sync.finish(size);
    }
    uint64 size() const { return dir.read("img.zqf").size(); }
    uint64 noted() const { return std::stoull(dir.read("img.zqf.synced")); }

    const TempDir dir;
    const SxString file = dir.prefix() + "img.zqf";
    const ZqSyncedSize synced{file};
    Machine os{dir.path()};
};

} // namespace

TEST_F(FileSync, WhatOneWriterHasLostNoOtherNotes) {
    write(100);
    EXPECT_EQ(noted(), 100U);
    os.failNth(FaultOs::Op::Sync, 1, EIO, "img.zqf");
    write(200);
    EXPECT_EQ(os.getNFailed(), 1);
    write(300);
    EXPECT_EQ(size(), 300U) << "it is as good as ever while the machine runs";
    synced.noteComplete(300);
    EXPECT_EQ(noted(), 100U);
    os.crash();
    synced.cutBack();
    EXPECT_EQ(size(), 100U);
    write(200);
    EXPECT_EQ(noted(), 200U) << "after another start it counts anew";
}

TEST_F(FileSync, AMachineWithoutAnIdCostsNoWriterOfAProcessItsBytes) {
    os.hasId = false;
    write(100);
    std::ofstream(dir.path("img.zqf"), std::ios::app) << std::string(50, 'y');
    EXPECT_EQ(synced.cutBack(), 0U);
    write(200);
    EXPECT_EQ(size(), 200U);
    // That of another process may be that of another start.
    dir.write("img.zqf.synced", "100 -12.34\n");
    EXPECT_EQ(synced.cutBack(), 100U);
    dir.write("img.zqf.synced", "40 -\n");
    EXPECT_EQ(synced.cutBack(), 60U);
}
