#include "BaseTest.h"
#include "Builders.h"
#include "SxMd5.h"
#include "ZqAppParams.h"
#include "ZqCreateContent.h"
#include "ZqImageLock.h"
#include "ZqImageParams.h"
#include "ZqLog.h"

#include <sys/stat.h>

namespace {

std::string tryCreate(const TempDir& dir, const std::string& target = "watched/target") {
    ZqCreateContent job(dir.path(target), dir.path("watched/source"));
    return failureOf(job);
}

/// A source of three blocks, and an old image with more in it than a new one has.
void makeFolders(const TempDir& dir) {
    dir.write("watched/source/a", "a");
    dir.write("watched/source/b/c", std::string(4097, 'c'));
    for (const std::string name :
         {"app.json", "img.json", "img.idx", "img.zqf", "img.idx.md5", "traces/1/x.json"}) {
        dir.write("watched/target/" + name, "old");
    }
}

std::string padded(std::string bytes) {
    bytes.resize((bytes.size() + 4095) / 4096 * 4096, '\0');
    return bytes;
}

/// What the files of a folder come to, sorted by name in each folder.
std::string packed(const fs::path& folder, bool isTop = true) {
    std::set<fs::path> entries;
    for (const auto& entry : fs::directory_iterator(folder))
        entries.insert(entry.path());
    std::string all;
    for (const fs::path& path : entries) {
        if (isTop && path.filename().string().starts_with("System Volume Information")) continue;
        const fs::file_status status = fs::symlink_status(path);
        if (fs::is_directory(status)) all += packed(path, false);
        if (fs::is_regular_file(status)) all += padded(TempDir::readFile(path));
    }
    return all;
}

void expectImageOf(const TempDir& dir, const std::string& target, const std::string& zqf) {
    EXPECT_EQ(contentOf(dir, target).size(), 4U);
    EXPECT_TRUE(dir.read(target + "/img.zqf") == zqf) << "the blocks differ";
    std::string idx;
    for (uint64 block = 0; block < zqf.size() / 4096; ++block) {
        for (int shift = 0; shift < 64; shift += 8)
            idx += static_cast<char>(block >> shift);
    }
    EXPECT_TRUE(dir.read(target + "/img.idx") == idx) << "the map isn't the identity";

    ZqImageParams image;
    image.pathPrefix = dir.path(target + "/");
    image.guid = SxMd5::get(SxString(zqf));
    image.sizeRaw = static_cast<int64>(zqf.size());
    image.filesystem = "none";
    image.driverVersion = "0.0.0";
    EXPECT_EQ(ZqImageParams(image.pathPrefix), image);
    ZqAppParams app;
    app.pathPrefix = image.pathPrefix;
    app.guid = app.checksumZqf = app.checksumMnt = image.guid;
    app.checksumIdx = SxMd5::get(SxString(idx));
    app.sizeZqf = zqf.size();
    app.sizeIdx = idx.size();
    EXPECT_EQ(ZqAppParams(app.pathPrefix), app);
}

} // namespace

TEST(CreateContent, FilesBecomeBlocks) {
    TestRandom random;
    const TempDir dir;
    const std::map<std::string, size_t> files = {{"1", 1},
                                                 {"4097", 4097},
                                                 {"4096", 4096},
                                                 {"empty", 0},
                                                 {"big/chunk", 10'240'000},
                                                 {"big/chunk+1", 10'240'001},
                                                 {"big/b/10 M", 10'235'904},
                                                 {"big.x", 5},
                                                 {"\u00e4 name/with space", 100},
                                                 {"Z", 4095},
                                                 {"z/z/z/z", 1},
                                                 {"System Volume Information/x", 9},
                                                 {"System Volume Information.txt", 9},
                                                 {"z/System Volume Information/x", 9}};
    for (const auto& [name, size] : files)
        dir.write("watched/source/" + name, random.bytes(size));
    fs::create_directory(dir.path("watched/source/nothing"));
    fs::create_symlink("4097", dir.path("watched/source/link"));
    fs::create_symlink("z", dir.path("watched/source/folder link"));
    fs::create_symlink("gone", dir.path("watched/source/dangling"));
    ASSERT_EQ(::mkfifo(dir.path("watched/source/fifo").c_str(), 0600), 0);
    const std::string zqf = packed(dir.path("watched/source"));

    ZqCreateContent job(dir.path("watched/new/deep/target"), dir.path("watched/source"));
    ASSERT_EQ(failureOf(job), "");
    expectImageOf(dir, "watched/new/deep/target", zqf);
    EXPECT_EQ(job.getNCurrent() + job.getNTotal(), 2 * zqf.size());
    EXPECT_TRUE(job.isComplete());
    EXPECT_EQ(job.getNFiles(), 12);
    const ZqRuntimeInfo::Stats stats = job.runtimeInfo->createStats;
    EXPECT_TRUE(stats.started);
    EXPECT_EQ(stats.bytes, static_cast<int64>(zqf.size()));
    EXPECT_LT(stats.timeSec, 60);
}

TEST(CreateContent, WhatTheTargetHeldIsReplaced) {
    const TempDir dir;
    makeFolders(dir);
    dir.write("watched/target/image.new/img.zqf", "left over");
    fs::remove_all(dir.path("watched/source"));
    fs::create_directory(dir.path("watched/source"));
    ASSERT_EQ(tryCreate(dir, "watched\\target/"), "");
    expectImageOf(dir, "watched/target", "");
}

TEST(CreateContent, ABadSourceLeavesTheTargetAsItWas) {
    // The failure; what fails at source/b/c and which time, or what source/b/link leads to, or what becomes
    // of source/b/c when the target is being written to.
    const std::vector<std::tuple<std::string, Op, int64, std::string, uint64>> cases = {
        {"Cannot archive file @: Cannot open file '@': ", Op::Open, 1, "", 0},
        {"Cannot archive file @: Cannot open file '@': ", Op::Open, 2, "", 0},
        {"Cannot archive file @: ", Op::Read, 1, "", 0},
        {"Cannot archive file @: ", Op::Read, 2, "", 0},
        {"Cannot archive file @: The file became shorter", Op::Open, 0, "", 10},
        {"Cannot scan directory: The symbolic link '", Op::Open, 0, "..", 0},
        {"Cannot scan directory: The symbolic link '", Op::Open, 0, "link", 0},
        {"Cannot scan directory: The symbolic link '", Op::Open, 0, "../a2", 0}};
    for (const auto& [failure, op, nth, link, newSize] : cases) {
        for (const std::string target : {"watched/target", "watched/new/deep/target"}) {
            SCOPED_TRACE(failure + " " + link);
            const TempDir dir;
            makeFolders(dir);
            const std::string file = dir.path("watched/source/b/c");
            fs::resize_file(file, 10'240'001);
            fs::create_symlink("b/link", dir.path("watched/source/a2"));
            if (!link.empty()) fs::create_symlink(link, dir.path("watched/source/b/link"));
            FaultOs os(dir.path("watched"));
            os.failNth(op, nth, EACCES, "source/b/c");
            os.setHook([&file, size = newSize](int64, Op step, const std::string&) {
                if (step == Op::MakeDir && size > 0) fs::resize_file(file, size);
            });
            const TreeSnapshot before = contentOf(dir, "watched/target");
            EXPECT_THAT(tryCreate(dir, target), StartsWith(SxString(failure).substitute("@", file).str()));
            EXPECT_EQ(contentOf(dir, "watched/target"), before);
            EXPECT_FALSE(dir.exists("watched/new"));
        }
    }
}

TEST(CreateContent, BadFoldersAndForeignLocksAreRefused) {
    const TempDir dir;
    makeFolders(dir);
    fs::create_symlink("source", dir.path("watched/alias"));
    fs::create_directory_symlink("watched", dir.path("shortcut"));
    dir.write("file", "");
    const TreeSnapshot before = contentOf(dir, "");
    for (const char* target : {"watched/source", "watched/source/b", "watched/source/new/deeper", "watched",
                               "", "/", "watched/alias/x", "watched/new/../source/y", "shortcut/source/b"}) {
        EXPECT_THAT(tryCreate(dir, target),
                    AllOf(StartsWith("The folders '"), HasSubstr("lie in each other")))
            << target;
        EXPECT_EQ(contentOf(dir, ""), before);
    }
    for (const char* source : {"watched/none", "file"}) {
        std::string logged;
        ZqLog::setSink(
            [&](const SxString& tag, const SxString& text) { logged = (tag + ": " + text).str(); });
        ZqCreateContent job(dir.path("watched/target"), dir.path(source));
        EXPECT_EQ(failureOf(job), "");
        ZqLog::setSink(nullptr);
        EXPECT_EQ(logged, "base: ZqCreateContent::main : " + dir.path(source) + "/ is not a directory.");
        EXPECT_FALSE(job.isComplete());
    }
    ZqCreateContent stopped(dir.path("watched/target"), dir.path("watched/source"));
    stopped.stop();
    EXPECT_EQ(failureOf(stopped), "");
    EXPECT_FALSE(stopped.isComplete());
    EXPECT_EQ(contentOf(dir, ""), before);
    {
        const auto lock =
            ZqImageLock::take(dir.path("watched/target"), ZqImageLock::Shape, ZqImageLock::Shared, "play");
        EXPECT_THAT(tryCreate(dir), HasSubstr("(play)"));
    }
    EXPECT_EQ(contentOf(dir, ""), before);
    EXPECT_EQ(tryCreate(dir, "watched/source2"), "") << "a name that only begins like the source's";
}
