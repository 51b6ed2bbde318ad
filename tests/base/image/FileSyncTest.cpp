#include "BaseTest.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "SxMd5.h"
#include "ZqAppParams.h"
#include "ZqFileSync.h"
#include "ZqStreamRecord.h"

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
    // Where the machine tells no id, the note of another process may be that of another start.
    dir.write("img.zqf.synced", "100 -12.34\n");
    EXPECT_EQ(synced.cutBack(), 100U);
    dir.write("img.zqf.synced", "40 -\n");
    EXPECT_EQ(synced.cutBack(), 60U);
}

TEST_F(FileSync, ANoteOfAnotherStartCostsNoImageThatIsRight) {
    const std::string right(100, 'x');
    struct Case {
        const char* name;
        std::string bytes;
        bool hasDigest, isWritten;
        uint64 left;
    };
    const Case cases[] = {
        {"cut off", right.substr(0, 90), true, false, 40},
        {"as large as the image, with another byte", right.substr(1) + "y", true, false, 40},
        {"larger than the image", right + "x", true, false, 40},
        {"of no known digest", right, false, false, 40},
        {"completed by a copy", right, true, false, 100},
        {"written into by a drive", right.substr(1) + "y", true, true, 100},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        ZqAppParams app;
        app.sizeZqf = right.size();
        if (each.hasDigest) app.checksumZqf = SxMd5::get(right);
        app.write(dir.prefix());
        ZqStreamRecord record;
        record.isWritten = each.isWritten;
        record.write(dir.prefix());
        dir.write("img.zqf", right.substr(0, 40));
        synced.note(40);
        dir.write("img.zqf.synced", "40 elsewhere\n");
        // A new inode, as some file systems give with each mount.
        dir.write("new", each.bytes);
        SxFSAction::mv(dir.prefix() + "new", file);
        EXPECT_EQ(synced.believed(each.bytes.size()), each.left);
        EXPECT_EQ(synced.cutBack(), each.bytes.size() - each.left);
        EXPECT_EQ(size(), each.left);
        if (each.left == right.size() && !each.isWritten) {
            EXPECT_EQ(noted(), right.size()) << "it is read once";
        }
        synced.begin(each.left);
        EXPECT_EQ(noted(), each.left);
    }
}
