#include "../base/BaseTest.h"
#include "Builders.h"
#include "ZqAppParams.h"
#include "ZqCreateContent.h"
#include "ZqDriveFiles.h"
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

INSTANTIATE_TEST_SUITE_P(Publish, DriveFiles, testing::Values(ZqDriveMaker::Erofs, ZqDriveMaker::Ext4),
                         [](const auto& instance) {
                             return ZqDriveMaker::typeToString(instance.param).str();
                         });

} // namespace
