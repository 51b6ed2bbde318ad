#include "FaultOs.h"
#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "TempDir.h"

#include <gtest/gtest.h>

TEST(FaultOs, ACrashKeepsWhatIsSyncedAndNothingElse) {
    const TempDir dir;
    for (const char* name : {"file", "from", "gone/inner"})
        dir.write(name, "old");
    const TreeSnapshot before = dir.snapshot();
    FaultOs os(dir.path());
    const auto change = [&](bool sync) {
        SxFileIO file(dir.path("file"), "wb");
        file.write(SxString("new"));
        if (sync) file.sync();
        SxFileIO(dir.path("made"), "wb").write(SxString("lost"));
        SxFSAction::mv(dir.path("from"), dir.path("to"));
        SxFSAction::rm_r(dir.path("gone"));
        if (sync) SxFSAction::syncDir(dir.path());
    };
    change(false);
    os.crash();
    EXPECT_EQ(dir.snapshot(), before);

    change(true);
    os.cutPowerAt(os.getNSteps() + 1);
    EXPECT_THROW(SxFSAction::rm(dir.path("to")), SxException);
    EXPECT_TRUE(os.isCut());
    os.crash();
    EXPECT_EQ(dir.read("file"), "new");
    EXPECT_EQ(dir.read("made"), "") << "its name is synced, its bytes aren't";
    EXPECT_EQ(dir.read("to"), "old");
    EXPECT_FALSE(dir.exists("from") || dir.exists("gone"));
}
