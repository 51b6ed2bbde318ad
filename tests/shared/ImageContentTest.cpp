#include "TempDir.h"
#include "ZqImageContent.h"
#include "ZqImageFiles.h"

#include <gmock/gmock.h>

TEST(ImageContent, OnlyTheImagesOwnFilesGo) {
    const TempDir dir;
    const char* const own[] = {"img.zqf",
                               "img.zqf.synced",
                               "img.idx.new",
                               "img.idx.zst.new",
                               "app.json",
                               "app.json.0123abcd.tmp",
                               "image.lock",
                               "img.tmp",
                               "img.zqf.part3.zstd",
                               "patching/img.lock",
                               "image.new/any/thing",
                               "traces/2026/img.trc",
                               "traces/2026/trace.json.0123abcd.tmp",
                               "traces/2026/sources.json",
                               "runs/2026-11-27T12-35-01Z-0123abcd.json",
                               "runs/2026-11-27T12-35-01Z-0123abcd.json.0123abcd.tmp",
                               "runs/2026-11-27T12-35-01Z.log",
                               "runs/2026-11-27T12-35-01Z.log.0123abcd.tmp",
                               "runs/preparations.json",
                               "write.log"};
    const char* const others[] = {"notes.txt",
                                  "img.zqf.bak",
                                  "app.json.0123abcx.tmp",
                                  "traces/2026/me.txt",
                                  "runs/me.txt",
                                  "mine/img.zqf",
                                  "mine/traces/img.trc",
                                  "app.json.tmp",
                                  "runs/mine.json",
                                  "runs/mine/2026-11-27T12-35-01Z.log",
                                  "runs/mine.log",
                                  "traces/img.trc",
                                  "traces/2026/mine/img.trc"};
    for (const char* name : own)
        dir.write(name, std::string(5000, 'x'));
    for (const char* name : others)
        dir.write(name, "x");
    std::filesystem::create_directories(dir.path("elsewhere"));
    std::filesystem::create_symlink(dir.path("mine"), dir.path("optimize.work"));
    std::filesystem::create_directories(dir.path("traces/empty"));

    const ZqImageContent content{SxString(dir.path())};
    EXPECT_EQ(content.getNFiles(), static_cast<int64>(std::size(own)) + 1) << "with the link";
    EXPECT_EQ(content.getNForeign(), static_cast<int64>(std::size(others)) + 1) << "with the empty folder";
    EXPECT_GE(content.getNBytes(), 5000 * std::size(own));
    content.remove();
    for (const char* name : own)
        EXPECT_FALSE(std::filesystem::exists(dir.path(name))) << name;
    for (const char* name : others)
        EXPECT_TRUE(std::filesystem::exists(dir.path(name))) << name;
    for (const char* gone : {"patching", "image.new", "traces/empty", "optimize.work"})
        EXPECT_FALSE(std::filesystem::exists(dir.path(gone))) << gone;
    EXPECT_TRUE(std::filesystem::exists(dir.path("elsewhere"))) << "an empty folder of somebody else's";
}
