#include "../BaseTest.h"
#include "Builders.h"
#include "SxException.h"
#include "SxMd5.h"
#include "ZqAppParams.h"
#include "ZqFileTable.h"
#include "ZqImageCheck.h"

#include <cstring>

namespace {

using Row = ZqFileTable::Row;
const std::string BUILD = "0123456789abcdef0123456789abcdef";
constexpr uint64 N_RAW = 1000;

template<class T>
std::string bytesOf(T value) {
    return {reinterpret_cast<const char*>(&value), sizeof value};
}

std::string rowOf(uint64 first, uint64 count, const std::string& path, uint64 size = 1) {
    return bytesOf(first) + bytesOf(count) + bytesOf(size) + bytesOf(static_cast<uint32>(path.size())) + path;
}

/// A table as the format has it, with the digest of its bytes.
std::string fileOf(uint64 nRows, const std::string& rows, const std::string& magic = "ZFILES01",
                   const std::string& build = BUILD) {
    const std::string bytes = magic + build + bytesOf(nRows) + rows;
    SxMd5 md5;
    md5.update(bytes.data(), static_cast<int64>(bytes.size()));
    md5.finish();
    return bytes + std::string(md5.getDigest().begin(), md5.getDigest().end());
}

/// What reading says, or nothing.
std::string failureOf(const TempDir& dir, const std::string& bytes) {
    dir.write("img.files", bytes);
    try {
        ZqFileTable::read(dir.prefix(), BUILD, N_RAW);
        return "";
    } catch (const SxException& e) {
        EXPECT_THAT(e.what(), StartsWith("'" + dir.path("img.files") + "' can't be used: "));
        return e.what();
    }
}

} // namespace

TEST(FileTable, IsReadAsItWasWritten) {
    const TempDir dir;
    EXPECT_FALSE(ZqFileTable::exists(dir.prefix()));
    std::vector<Row> rows = {{7, 3, 9000, "b"},
                             {10, 1, 4096, std::string("\xff\n\x1b[2J \"\\", 8)},
                             {500, 500, ~uint64{0}, "a/b/" + std::string(5000, 'x')},
                             {0, 1, 9000, "b"}};
    // Beyond what is read at once.
    for (uint64 i = 0; i < 300; ++i)
        rows.push_back({100 + i, 1, i, std::to_string(i) + std::string(6000, 'y')});
    const ZqFileTable table(BUILD, N_RAW, rows);
    EXPECT_EQ(table.getNFiles(), rows.size() - 1);
    EXPECT_TRUE(std::is_sorted(table.getRows().begin(), table.getRows().end(),
                               [](const Row& a, const Row& b) { return a.first < b.first; }));
    table.write(dir.prefix());
    EXPECT_TRUE(ZqFileTable::exists(dir.prefix()));
    EXPECT_TRUE(ZqFileTable::read(dir.prefix(), BUILD, N_RAW).getRows() == table.getRows());

    ZqFileTable(BUILD, 0, {}).write(dir.prefix());
    EXPECT_EQ(dir.read("img.files"), fileOf(0, ""));
    EXPECT_TRUE(ZqFileTable::read(dir.prefix(), BUILD, 0).getRows().empty());
    ZqFileTable(BUILD, N_RAW, {{1, 2, 8192, "x/y"}}).write(dir.prefix());
    EXPECT_EQ(dir.read("img.files"), fileOf(1, rowOf(1, 2, "x/y", 8192)));
    EXPECT_EQ(dir.snapshot().size(), 1U);
}

TEST(FileTable, EachCutAndEachAlteredByteIsFound) {
    const TempDir dir;
    const std::string right = fileOf(2, rowOf(1, 2, "x/y") + rowOf(3, 1, "z"));
    ASSERT_EQ(failureOf(dir, right), "");
    for (size_t at = 0; at < right.size(); ++at) {
        EXPECT_NE(failureOf(dir, right.substr(0, at)), "") << at;
        std::string altered = right;
        altered[at] = static_cast<char>(altered[at] ^ 4);
        EXPECT_THAT(failureOf(dir, altered), HasSubstr("it was cut off or altered")) << at;
    }
    fs::remove(dir.path("img.files"));
    EXPECT_THROW(ZqFileTable::read(dir.prefix(), BUILD, N_RAW), SxException);
}

TEST(FileTable, WhatIsWrongInItIsTold) {
    const std::string row = rowOf(5, 5, "a"), other = "f" + BUILD.substr(1), a = "row 0, of 'a', ";
    const std::pair<std::string, std::string> cases[] = {
        {fileOf(0, "", "ZFILES02"), "another format"},
        {fileOf(0, "", "ZLAYER03"), "no table of a drive's files"},
        {fileOf(1, row, "ZFILES01", other), "belongs to the build " + other + ", and the image is " + BUILD},
        {fileOf(~uint64{0}, row), "fewer rows than it says"},
        {fileOf(2, row), "fewer rows than it says"},
        {fileOf(2, row + row.substr(0, 28)), "fewer rows than it says"},
        {fileOf(2, row + rowOf(20, 1, "bc").substr(0, 29)), "ends within a row"},
        {fileOf(1, row + "x"), "something follows its rows"},
        {fileOf(1, rowOf(995, 6, "a")), a + "lies beyond the drive's 1000 blocks"},
        {fileOf(1, rowOf(~uint64{0}, 2, "a")), a + "lies beyond"},
        {fileOf(1, rowOf(2, ~uint64{0}, "a")), a + "lies beyond"},
        {fileOf(1, rowOf(2, 0, "a")), a + "has no block"},
        {fileOf(2, row + rowOf(9, 2, "b")), "row 1, of 'b', isn't after the one before"},
        {fileOf(2, row + rowOf(4, 1, "b")), "row 1, of 'b', isn't after the one before"},
        {fileOf(1, rowOf(1, 1, std::string(8193, 'p'))), "too long"},
    };
    const TempDir dir;
    for (const auto& [bytes, says] : cases)
        EXPECT_THAT(failureOf(dir, bytes), HasSubstr(says));
    std::string many;
    for (uint64 i = 0; i <= N_RAW; ++i)
        many += rowOf(i, 1, "a");
    EXPECT_THAT(failureOf(dir, fileOf(N_RAW + 1, many)), HasSubstr("more rows than the drive has blocks"));
    for (const std::string& path :
         {std::string("/a"), std::string("a/"), std::string("a//b"), std::string("a\0b", 3)}) {
        EXPECT_THAT(failureOf(dir, fileOf(1, rowOf(1, 1, path))), HasSubstr("has no path")) << path;
    }
    EXPECT_THAT(failureOf(dir, fileOf(2, rowOf(1, 1, "") + rowOf(2, 1, "ab"))), HasSubstr("has no path"));
    EXPECT_THROW(ZqFileTable(BUILD, N_RAW, {{1, 1, 1, ""}}), SxException);
    EXPECT_THAT(failureOf(dir, fileOf(1, rowOf(1, 0, "\x1b[2J"))), HasSubstr("'\\x1b[2J'"));
    EXPECT_THROW(ZqFileTable(BUILD, 5, {{1, 2, 1, "a"}, {2, 1, 1, "b"}}), SxException);
    EXPECT_THROW(ZqFileTable(BUILD, 5, {{4, 2, 1, "a"}}), SxException);
    EXPECT_THROW(ZqFileTable("x", 5, {}).write(dir.prefix()), SxException);
}

TEST(FileTable, ACheckOfTheImageKnowsIt) {
    TestRandom random;
    const TestImage image(random, 100, 1);
    const TempDir dir;
    image.write(dir.prefix());
    ZqAppParams app(dir.prefix());
    app.checksumMnt = BUILD;
    app.write(dir.prefix());
    const auto check = [&] {
        ZqImageCheck job(dir.path());
        EXPECT_EQ(::failureOf(job), "");
        SxString all;
        for (const SxString& text : job.getNotes())
            all += text + "\n";
        for (const SxString& text : job.getFaults())
            all += "FAULT " + text + "\n";
        return all.str();
    };
    EXPECT_THAT(check(), testing::Not(HasSubstr("img.files")));
    ZqFileTable(BUILD, 100, {{1, 99, 5, "a"}}).write(dir.prefix());
    EXPECT_THAT(check(),
                AllOf(HasSubstr("img.files: fits this build, 1 files\n"), testing::Not(HasSubstr("FAULT"))));
    app.checksumMnt = "f" + BUILD.substr(1);
    app.write(dir.prefix());
    EXPECT_THAT(check(), AllOf(HasSubstr("FAULT '"), HasSubstr("belongs to the build 0123"),
                               HasSubstr("remove it, and image order makes another")));
}
