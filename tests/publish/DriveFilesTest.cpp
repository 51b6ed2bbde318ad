#include "../base/BaseTest.h"
#include "Builders.h"
#include "SxException.h"
#include "SxProcess.h"
#include "ZqAppParams.h"
#include "ZqCreateContent.h"
#include "ZqDriveFiles.h"
#include "ZqDriveRows.h"
#include "ZqErofsWalk.h"
#include "ZqExt4Walk.h"
#include "ZqImage.h"
#include "ZqImageBuild.h"
#include "ZqImageCheck.h"
#include "ZqImageRaw.h"

#include <cstring>
#include <unistd.h>

namespace {

constexpr uint64 BLOCK = 4096;
const std::string APP = "TAVRIN-protected/app/";

std::string build(const TempDir& dir, ZqDriveMaker::FileSystem fileSystem,
                  const std::string& target = "image") {
    ZqImageBuild::Options what;
    what.fileSystem = fileSystem;
    ZqImageBuild job(dir.path(target), dir.path("source"), what);
    return failureOf(job);
}

std::string rawOf(const TempDir& dir, const std::string& image = "image") {
    ZqImageRaw job(dir.path(image), dir.path("raw"));
    EXPECT_EQ(failureOf(job), "");
    return dir.read("raw/img.raw");
}

ZqFileTable tableOf(const TempDir& dir) {
    const ZqImageInfo info(dir.path("image"));
    return ZqFileTable::read(dir.path("image/"), info.app.checksumMnt, info.nRaw);
}

/// The bytes that the table gives a file of the drive, without its holes.
std::string bytesOf(const ZqFileTable& table, const std::string& raw, const std::string& path) {
    std::string bytes;
    for (const ZqFileTable::Row& row : table.getRows()) {
        if (row.path == path) bytes += raw.substr(row.first * BLOCK, row.count * BLOCK);
    }
    return bytes;
}

/// Names and sizes that file systems treat differently; the content tells files apart.
std::map<std::string, std::string> sourceFiles() {
    TestRandom random;
    std::string deep;
    for (int i = 0; i < 60; ++i)
        deep += "folder " + std::to_string(i) + "/";
    std::map<std::string, std::string> files = {{"one", "1"},
                                                {"block", random.bytes(BLOCK)},
                                                {"block+1", random.bytes(BLOCK + 1)},
                                                {deep + "leaf", random.bytes(5)},
                                                {"odd/\xff\xfe not utf-8", "x"},
                                                {"odd/line\nfeed \t \"quote\" \\", "y"},
                                                {"odd/" + std::string(254, 'n'), "z"},
                                                {"large", random.bytes(3'000'000)}};
    for (int i = 0; i < 2000; ++i)
        files["many/a file with a rather long name, number " + std::to_string(i)] = std::to_string(i);
    return files;
}

class DriveFiles : public testing::TestWithParam<ZqDriveMaker::FileSystem> {
protected:
    const TempDir dir;
};

TEST_P(DriveFiles, TheTableOfABuildTellsWhereEachFileLies) {
    const auto files = sourceFiles();
    for (const auto& [name, bytes] : files)
        dir.write("source/" + name, bytes);
    dir.write("source/empty", "");
    fs::create_symlink("one", dir.path("source/link"));
    ASSERT_EQ(build(dir, GetParam()), "");
    const std::string raw = rawOf(dir);
    const ZqFileTable table = tableOf(dir);
    EXPECT_EQ(table.getNFiles(), files.size() + 1);
    for (const auto& [name, bytes] : files) {
        const std::string padded = bytes + std::string((BLOCK - bytes.size() % BLOCK) % BLOCK, '\0');
        EXPECT_TRUE(bytesOf(table, raw, APP + name) == padded) << name;
    }
    for (const ZqFileTable::Row& row : table.getRows()) {
        const auto file =
            row.path == "gxprefetch.info" ? files.end() : files.find(row.path.str().substr(APP.size()));
        if (file != files.end()) {
            EXPECT_EQ(row.size, file->second.size()) << row.path;
        }
    }
    const ZqDriveFiles::Found found = ZqDriveFiles::find(dir.path("image"));
    ASSERT_TRUE(found.table) << found.why;
    EXPECT_TRUE(found.table->getRows() == table.getRows());
    EXPECT_TRUE(found.why.isEmpty() &&
                ZqDriveFiles::whyNot(dir.path("image"), ZqImageInfo(dir.path("image"))).isEmpty());
}

/// Blocks of data at even places, holes or zeros at odd ones.
std::string pieces(uint64 n, std::string* dataOnly) {
    TestRandom random(3);
    std::string bytes;
    for (uint64 i = 0; i < n; ++i) {
        const std::string block = random.bytes(BLOCK);
        bytes += block + std::string(BLOCK, '\0');
        *dataOnly += block;
    }
    return bytes;
}

TEST_P(DriveFiles, HolesHaveNoRowWhereTheyHaveNoBlocks) {
    std::string dataOnly;
    // More pieces than an inode names, and more than one block names.
    const std::string bytes = pieces(800, &dataOnly);
    dir.write("source/pieces", bytes);
    dir.write("source/hole", "");
    fs::resize_file(dir.path("source/hole"), 100 * BLOCK);
    ASSERT_EQ(build(dir, GetParam()), "");
    const std::string raw = rawOf(dir);
    const ZqFileTable table = tableOf(dir);
    const bool hasHoles = GetParam() == ZqDriveMaker::Ext4;
    EXPECT_TRUE(bytesOf(table, raw, APP + "pieces") == (hasHoles ? dataOnly : bytes));
    EXPECT_EQ(bytesOf(table, raw, APP + "hole").size(), hasHoles ? 0 : 100 * BLOCK);
    uint64 nRows = 0;
    for (const ZqFileTable::Row& row : table.getRows()) {
        if (row.path == APP + "pieces") {
            ++nRows;
            EXPECT_EQ(row.size, bytes.size());
        }
    }
    EXPECT_LE(nRows, 4U) << "pieces that are neighbours on the disk, too, are one row";
    const ZqDriveFiles::Found found = ZqDriveFiles::find(dir.path("image"));
    ASSERT_TRUE(found.table) << found.why;
    EXPECT_TRUE(found.table->getRows() == table.getRows());
}

// The journal stands in the middle of the drive.
TEST_P(DriveFiles, AFileInSeveralPiecesHasARowForEach) {
    TestRandom random(5);
    const std::string bytes = random.bytes(45'000'000);
    dir.write("source/large", bytes);
    ASSERT_EQ(build(dir, GetParam()), "");
    const ZqFileTable table = tableOf(dir);
    EXPECT_EQ(table.getRows().size(), GetParam() == ZqDriveMaker::Ext4 ? 3U : 2U);
    EXPECT_EQ(table.getNFiles(), 2U);
    EXPECT_TRUE(bytesOf(table, rawOf(dir), APP + "large").substr(0, bytes.size()) == bytes);
}

/// Altered numbers in what the file system is made of: in blocks that aren't files'.
TEST_P(DriveFiles, ADamagedDriveEndsTheWalk) {
    TestRandom random(7);
    TRACE_SEED(random);
    for (int i = 0; i < 30; ++i)
        dir.write("source/f" + std::to_string(i % 5) + "/" + std::to_string(i),
                  random.bytes(random.below(9000)));
    std::string dataOnly;
    dir.write("source/pieces", pieces(400, &dataOnly));
    ASSERT_EQ(build(dir, GetParam()), "");
    const std::string right = dir.read("image/img.zqf"), folder = dir.path("image");
    const ZqImageInfo info(folder);
    const SxArray<uint64> map = ZqImage(SxString(folder + "/")).getMap();
    const uint64 nMeta = std::min<uint64>(info.app.sizeMnt, right.size());
    uint64 nFound = 0, nDamaged = 0;
    for (int round = 0; round < 500; ++round) {
        std::string bytes = right;
        for (uint64 n = random.between(1, 4); n > 0; --n) {
            uint64 at = random.below(nMeta);
            // Most of it is zeros, which nothing reads.
            for (int tries = 0; bytes[at] == 0 && tries < 50; ++tries)
                at = random.below(nMeta);
            const uint64 wild[] = {0, 1, 2, 0xFF, 0xFFFF, 0xFFFFFFFF, ~uint64{0}, random.below(1 << 12)};
            const uint64 value = wild[random.below(std::size(wild))];
            const size_t width = size_t{1} << random.below(4);
            std::memcpy(bytes.data() + std::min(at, bytes.size() - width), &value, width);
        }
        dir.write("image/img.zqf", bytes);
        const ZqDriveFiles::Found found = ZqDriveFiles::find(folder, info, map);
        EXPECT_EQ(found.table.has_value(), found.why.isEmpty());
        ++(found.table ? nFound : nDamaged);
    }
    EXPECT_GT(nDamaged, 50U);
    EXPECT_GT(nFound, 50U);
}

INSTANTIATE_TEST_SUITE_P(Publish, DriveFiles, testing::Values(ZqDriveMaker::Erofs, ZqDriveMaker::Ext4),
                         [](const auto& instance) {
                             return ZqDriveMaker::typeToString(instance.param).str();
                         });

int shell(const std::string& command) {
    return SxProcess("/bin/sh", {"-c", SxString("PATH=$PATH:/usr/sbin:/sbin; " + command)}, SxProcess::Silent)
        .run();
}

/// All files of a drive by their first names, or the failure.
std::map<std::string, ZqDriveWalk::File> walk(ZqDriveWalk* drive) {
    std::map<std::string, ZqDriveWalk::File> files;
    drive->findNames();
    drive->visitFiles([&](const ZqDriveWalk::File& file) { files[file.paths.front().str()] = file; });
    return files;
}

/// A number of a drive that leads a walk astray.
struct Lie {
    size_t at, n; ///< bytes
    uint64 value;
    const char* says;
};

template<class Walk>
void tellLies(const TempDir& dir, const std::string& right, const std::vector<Lie>& lies) {
    dir.write("raw.lie", right);
    const auto writeAt = [&](size_t at, const std::string& bytes) {
        std::fstream file(dir.path("raw.lie"), std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(static_cast<std::streamoff>(at));
        file.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    };
    for (const Lie& lie : lies) {
        SCOPED_TRACE(std::to_string(lie.at) + " is " + std::to_string(lie.value));
        writeAt(lie.at, std::string(reinterpret_cast<const char*>(&lie.value), lie.n));
        try {
            ZqRawReader reader{SxString(dir.path("raw.lie"))};
            Walk drive(&reader);
            std::vector<ZqFileTable::Row> rows;
            for (const auto& [path, file] : walk(&drive))
                ZqDriveRows::append(file, &rows);
            const ZqFileTable table("build", reader.getSize() / BLOCK, rows);
            ADD_FAILURE() << lie.says << ": " << table.getRows().size() << " rows";
        } catch (const SxException& e) {
            EXPECT_THAT(e.what(), HasSubstr(lie.says));
        }
        writeAt(lie.at, right.substr(lie.at, lie.n));
    }
}

} // namespace

TEST(DriveFilesOf, WhyThereIsNoTableIsTold) {
    const TempDir dir;
    dir.write("source/a", std::string(20000, 'a'));
    const auto why = [&](const std::string& image) {
        const ZqDriveFiles::Found found = ZqDriveFiles::find(dir.path(image));
        EXPECT_FALSE(found.table);
        EXPECT_EQ(ZqDriveFiles::whyNot(dir.path(image), ZqImageInfo(dir.path(image))), found.why);
        return found.why.str();
    };
    ASSERT_EQ(build(dir, ZqDriveMaker::Squashfs), "");
    EXPECT_FALSE(dir.exists("image/img.files"));
    EXPECT_EQ(why("image"), "squashfs packs several files into a block");
    ZqCreateContent content(dir.path("content"), dir.path("source"));
    ASSERT_EQ(failureOf(content), "");
    EXPECT_EQ(why("content"), "the image holds no file system that is known");

    ASSERT_EQ(build(dir, ZqDriveMaker::Erofs, "parts"), "");
    ASSERT_TRUE(ZqImage(SxString(dir.path("parts/"))).split(BLOCK, false, nullptr));
    EXPECT_EQ(why("parts"), "the image is split");
    ASSERT_EQ(build(dir, ZqDriveMaker::Erofs, "part"), "");
    fs::resize_file(dir.path("part/img.zqf"), BLOCK);
    EXPECT_EQ(why("part"), "the image isn't complete");
    fs::remove(dir.path("part/img.zqf"));
    EXPECT_EQ(why("part"), "the image isn't complete");
    ASSERT_EQ(build(dir, ZqDriveMaker::Erofs, "unnamed"), "");
    ZqAppParams app(SxString(dir.path("unnamed/")));
    app.checksumMnt = SxString();
    app.write(SxString(dir.path("unnamed/")));
    EXPECT_EQ(why("unnamed"), "app.json names no build (checksums.mnt)");
    dir.write("unnamed/optimize.lock", "");
    EXPECT_EQ(why("unnamed"), "the image is being changed");
}

TEST(DriveFilesOf, ANewImageTakesTheOldTableAway) {
    const TempDir dir;
    dir.write("source/a", "a");
    ASSERT_EQ(build(dir, ZqDriveMaker::Erofs), "");
    const std::string erofs = dir.read("image/img.files");
    ASSERT_EQ(build(dir, ZqDriveMaker::Squashfs), "");
    EXPECT_FALSE(dir.exists("image/img.files"));
    ASSERT_EQ(build(dir, ZqDriveMaker::Ext4), "");
    EXPECT_FALSE(dir.read("image/img.files") == erofs);
    // What stands there isn't believed, since the new one is at hand.
    dir.write("image/img.files", "damaged");
    ASSERT_EQ(build(dir, ZqDriveMaker::Ext4), "");
    EXPECT_EQ(tableOf(dir).getNFiles(), 2U);
    ASSERT_EQ(build(dir, ZqDriveMaker::Erofs), "");
    EXPECT_TRUE(dir.read("image/img.files") == erofs);
    ZqCreateContent content(dir.path("image"), dir.path("source"));
    ASSERT_EQ(failureOf(content), "");
    EXPECT_FALSE(dir.exists("image/img.files"));
}

// Drives that no build here makes, but that tools make when they are left to themselves.
TEST(DriveFilesOf, OtherDrivesAreReadOrRefused) {
    const TempDir dir;
    TestRandom random(9);
    const std::string whole = random.bytes(2 * BLOCK), rest = random.bytes(BLOCK + 100);
    dir.write("s/b/whole", whole);
    dir.write("s/rest", rest);
    dir.write("s/small", "tail");
    fs::create_hard_link(dir.path("s/b/whole"), dir.path("s/a name"));
    fs::create_hard_link(dir.path("s/b/whole"), dir.path("s/c"));
    const std::string raw = dir.path("raw"), tree = " '" + raw + "' '" + dir.path("s") + "'";
    ASSERT_EQ(shell("mkfs.erofs --quiet --force-uid=70000 -Eforce-inode-extended" + tree), 0);
    {
        ZqRawReader reader{SxString(raw)};
        ZqErofsWalk erofs(&reader);
        const auto files = walk(&erofs);
        ASSERT_EQ(files.size(), 3U);
        const ZqDriveWalk::File& linked = files.at("a name");
        EXPECT_THAT(linked.paths, ElementsAre(SxString("a name"), SxString("b/whole"), SxString("c")));
        ASSERT_EQ(linked.extents.size(), 1U);
        EXPECT_TRUE(dir.read("raw").substr(linked.extents[0].first * BLOCK, 2 * BLOCK) == whole);
        // Ends of files stand between the inodes, and those blocks belong to no file.
        ASSERT_EQ(files.at("rest").extents.size(), 1U);
        EXPECT_EQ(files.at("rest").extents[0].count, 1U);
        EXPECT_TRUE(files.at("small").extents.empty());
    }
    const auto refuse = [&](const std::string& command, auto makeWalk, const std::string& says) {
        fs::remove(raw);
        ASSERT_EQ(shell(command), 0) << command;
        try {
            ZqRawReader reader{SxString(raw)};
            auto drive = makeWalk(&reader);
            walk(&drive);
            ADD_FAILURE() << command;
        } catch (const SxException& e) {
            EXPECT_THAT(e.what(), HasSubstr(says)) << command;
        }
    };
    const auto asErofs = [](ZqDriveReader* reader) { return ZqErofsWalk(reader); };
    const auto asExt4 = [](ZqDriveReader* reader) { return ZqExt4Walk(reader); };
    dir.write("s/packs well", std::string(100000, 'x'));
    refuse("mkfs.erofs --quiet -zlz4" + tree, asErofs, "is stored in a way that isn't known");
    refuse("mke2fs -q -t ext4 -b 4096 -I 256 -O 64bit -d '" + dir.path("s") + "' '" + raw + "' 8M", asExt4,
           "other features");
    refuse("mke2fs -q -t ext4 -b 1024 -d '" + dir.path("s") + "' '" + raw + "' 8M", asExt4,
           "no ext4 with blocks of 4096 bytes");
    refuse("mke2fs -q -t ext2 -b 4096 -I 256 -d '" + dir.path("s") + "' '" + raw + "' 8M", asExt4,
           "other features");
    refuse("mksquashfs '" + dir.path("s") + "' '" + raw + "' -noappend -quiet", asErofs, "no EROFS");
}

TEST(DriveFilesOf, EachLieOfAnErofsIsTold) {
    const TempDir dir;
    dir.write("s/dir/file", std::string(3 * BLOCK, 'f'));
    dir.write("s/other/x", "x");
    ASSERT_EQ(shell("mkfs.erofs --quiet -x-1 -T1 --all-root -Enoinline_data '" + dir.path("raw") + "' '" +
                    dir.path("s") + "'"),
              0);
    const std::string right = dir.read("raw");
    const auto number = [&](size_t at, size_t n) { return ZqDriveReader::number(right, at, n); };
    const size_t super = 1024, inodes = number(super + 40, 4) * BLOCK;
    const uint64 rootNid = number(super + 14, 2);
    const size_t root = inodes + rootNid * 32, entries = root + 32; // the folder's end stands after its inode
    const size_t name = entries + number(entries + 2 * 12 + 8, 2);
    ASSERT_EQ(right.substr(name, 3), "dir");
    const uint64 dirNid = number(entries + 2 * 12, 8);
    const size_t file = inodes + number(inodes + dirNid * 32 + 32 + 2 * 12, 8) * 32;
    tellLies<ZqErofsWalk>(dir, right,
                          {{super, 4, 1, "no EROFS"},
                           {super + 12, 1, 9, "no EROFS"},
                           {super + 80, 4, 0x80, "features that aren't known"},
                           {super + 14, 2, 0xFFFF, "lies beyond it"},
                           {super + 40, 4, 0xFFFFFFFF, "ends before byte"},
                           {entries + 2 * 12, 8, rootNid, "folder 'dir' has another name, too"},
                           {entries + 3 * 12, 8, dirNid, "folder 'other' has another name, too"},
                           {entries + 2 * 12, 8, ~uint64{0}, "lies beyond it"},
                           {entries + 2 * 12 + 10, 1, 1, "isn't what its folder says"},
                           {entries + 8, 2, 0, "a folder isn't one"},
                           {entries + 8, 2, 13, "a folder isn't one"},
                           {entries + 8, 2, 60000, "a folder isn't one"},
                           {entries + 12 + 8, 2, 1, "names overlap"},
                           {entries + 2 * 12 + 8, 2, 50000, "names overlap"},
                           {name, 1, '/', "folder '' has a name that is none"},
                           {name, 1, 0, "a name that is none"},
                           {root + 8, 4, 0xFFFFFFFF, "lie beyond its"},
                           {file + 8, 4, 0xFFFFFFFF, "lie beyond its"},
                           {file + 16, 4, 0xFFFFFFFF, "lie beyond its"},
                           {file, 2, 3 << 1, "stored in a way that isn't known"}});
}

TEST(DriveFilesOf, EachLieOfAnExt4IsTold) {
    const TempDir dir;
    dir.write("source/dir/file", std::string(3 * BLOCK, 'f'));
    dir.write("source/other/x", "x");
    ASSERT_EQ(build(dir, ZqDriveMaker::Ext4), "");
    const std::string right = rawOf(dir);
    const auto number = [&](size_t at, size_t n) { return ZqDriveReader::number(right, at, n); };
    const auto entryOf = [&](const std::string& name, char type) {
        return right.find(std::string{static_cast<char>(name.size()), type} + name) - 6;
    };
    const size_t table = number(BLOCK + 8, 4) * BLOCK;
    const auto inodeOf = [&](uint64 inode) { return table + (inode - 1) * ZqExt4Walk::INODE_SIZE; };
    const size_t super = 1024, dirAt = entryOf("dir", 2), root = inodeOf(2);
    const size_t file = inodeOf(number(entryOf("file", 1), 4));
    const size_t x = inodeOf(number(entryOf("x", 1), 4));
    ASSERT_EQ(number(file + 0x28, 2), 0xF30A);
    constexpr size_t TREE = 0x28, FIRST = TREE + 12; // of an inode: extents, and the first of them
    tellLies<ZqExt4Walk>(dir, right,
                         {{super + 0x38, 2, 1, "no ext4"},
                          {super + 0x18, 4, 0, "no ext4"},
                          {super + 0x58, 2, 128, "no ext4"},
                          {super + 0x60, 4, 0x246, "other features"},
                          {super + 0x28, 4, 0, "its groups have no inodes"},
                          {super + 0x28, 4, 1, "isn't what its folder says"},
                          {super, 4, 1, "isn't among its 1"},
                          {BLOCK + 8, 4, 0xFFFFFFFF, "ends before byte"},
                          {dirAt, 4, 0xFFFFFFFF, "isn't among its"},
                          {dirAt, 4, 2, "dir' has another name, too"},
                          {dirAt + 4, 2, 0, "a folder isn't one"},
                          {dirAt + 4, 2, 8, "a folder isn't one"},
                          {dirAt + 4, 2, 0xFFFF, "a folder isn't one"},
                          {dirAt + 6, 1, 255, "a folder isn't one"},
                          {dirAt + 6, 1, 0, "a name that is none"},
                          {dirAt + 7, 1, 1, "isn't what its folder says"},
                          {dirAt + 8, 1, '/', "a name that is none"},
                          {root, 2, 0x8000, "isn't what its folder says"},
                          {file + TREE, 2, 0, "a tree of extents isn't one"},
                          {file + TREE + 2, 2, 5, "a tree of extents isn't one"},
                          {file + TREE + 6, 2, 6, "a tree of extents isn't one"},
                          // A leaf is taken for a branch.
                          {file + TREE + 6, 2, 1, "lie beyond its"},
                          {file + FIRST + 8, 4, 0xFFFFFFFF, "lie beyond its"},
                          {file + FIRST + 6, 2, 0xFFFF, "lie beyond its"},
                          {file + FIRST + 4, 2, 32768, "lie beyond its"},
                          {x + FIRST + 8, 4, number(file + FIRST + 8, 4), "isn't after the one before"}});
}
