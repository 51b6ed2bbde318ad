#include "Builders.h"
#include "FaultOs.h"
#include "SxException.h"
#include "TempDir.h"
#include "ZqArchive.h"

#include <archive.h>
#include <archive_entry.h>
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

using testing::AllOf;
using testing::HasSubstr;

namespace {

struct RawEntry {
    std::string name;
    std::string bytes = {};
    unsigned type = AE_IFREG;
    std::string link = {}; ///< target of a symbolic link
};

/// Writes what it is told, however hostile.
void writeRaw7z(const std::string& path, const std::vector<RawEntry>& entries, bool asZip = false) {
    archive* a = archive_write_new();
    asZip ? archive_write_set_format_zip(a) : archive_write_set_format_7zip(a);
    ASSERT_EQ(archive_write_open_filename(a, path.c_str()), ARCHIVE_OK) << archive_error_string(a);
    for (const RawEntry& raw : entries) {
        archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, raw.name.c_str());
        archive_entry_set_filetype(entry, raw.type);
        archive_entry_set_perm(entry, 0777);
        archive_entry_set_size(entry, static_cast<la_int64_t>(raw.bytes.size()));
        if (!raw.link.empty()) archive_entry_set_symlink(entry, raw.link.c_str());
        ASSERT_EQ(archive_write_header(a, entry), ARCHIVE_OK) << archive_error_string(a);
        ASSERT_EQ(archive_write_data(a, raw.bytes.data(), raw.bytes.size()),
                  static_cast<la_ssize_t>(raw.bytes.size()));
        archive_entry_free(entry);
    }
    ASSERT_EQ(archive_write_close(a), ARCHIVE_OK) << archive_error_string(a);
    archive_write_free(a);
}

/// The texts of the chain that `act` raises; empty where it raises nothing.
template<class Act>
std::string failureOf(Act act) {
    try {
        act();
    } catch (const SxException& e) {
        return e.what();
    }
    return "";
}

std::string extractFailure(const std::string& archive, const std::string& folder) {
    return failureOf([&] { ZqArchive::extract7z(archive, folder); });
}

unsigned permissionsOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
}

} // namespace

TEST(Archive7z, PackedFilesComeBack) {
    TempDir dir;
    TestRandom random;
    TRACE_SEED(random);
    const std::string big = random.bytes(3'000'001) + std::string(5'000'000, 'x');
    dir.write("in/img.idx", big);
    dir.write("in/empty", "");
    dir.write("in/sub/n\u00e4me", "sub");
    const SxList<SxString> names{"img.idx", "empty", "sub/n\u00e4me"};

    ZqArchive::compress7z(dir.path("a.7z"), dir.path("in"), names);
    ZqArchive::extract7z(dir.path("a.7z"), dir.path("new/out") + "/");

    EXPECT_EQ(dir.snapshot("new/out"), dir.snapshot("in"));
    EXPECT_EQ(permissionsOf(dir.path("new/out/img.idx")), 0600u);
    EXPECT_EQ(permissionsOf(dir.path("new/out/sub")), 0755u);
    EXPECT_FALSE(dir.exists("a.7z.tmp"));
}

TEST(Archive7z, ReplacesFilesOfTheSameNameAndKeepsTheRest) {
    TempDir dir;
    writeRaw7z(dir.path("a.7z"), {{"sub/", "", AE_IFDIR}, {"sub/a", "new"}});
    dir.write("out/sub/a", "old and longer");
    dir.write("out/sub/b", "stays");
    dir.write("out/.unpacking/0", "left over by a cut");

    ZqArchive::extract7z(dir.path("a.7z"), dir.path("out"));

    EXPECT_EQ(dir.read("out/sub/a"), "new");
    EXPECT_EQ(dir.read("out/sub/b"), "stays");
    EXPECT_FALSE(dir.exists("out/.unpacking"));
}

TEST(Archive7z, HostileEntriesAreRefusedAndLeaveNothing) {
    const struct {
        const char* what;
        RawEntry entry;
        const char* reason;
    } cases[] = {
        {"absolute", {"/tmp/evil", "x"}, "absolute"},
        {"up", {"../evil", "x"}, "'..'"},
        {"up within", {"good/../../evil", "x"}, "'..'"},
        {"up as folder", {"..", "", AE_IFDIR}, "'..'"},
        {"self", {"./good2", "x"}, "'.'"},
        {"empty part", {"good2//x", "x"}, "empty part"},
        {"drive", {"C:/evil", "x"}, "drive letter"},
        {"drive within", {"sub/c:evil", "x"}, "drive letter"},
        {"backslash", {"..\\evil", "x"}, "backslash"},
        {"symbolic link", {"link", "", AE_IFLNK, "/etc"}, "neither a file nor a folder"},
        {"device", {"dev", "", AE_IFCHR}, "neither a file nor a folder"},
        {"fifo", {"fifo", "", AE_IFIFO}, "neither a file nor a folder"},
        {"twice", {"good", "y"}, "twice"},
        {"file as folder", {"good/x", "x"}, "is a file and a folder"},
        {"folder as file", {"filled", "x"}, "twice"},
        {"reserved", {".unpacking/1", "x"}, "reserved"},
        {"through a link in the folder", {"out-link/x", "x"}, "is a link"},
        {"onto a link in the folder", {"file-link", "x"}, "is a link"},
        {"onto a folder", {"present", "x"}, "is no file"},
        {"below a file", {"plain/x", "x"}, "is no folder"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        TempDir dir;
        dir.write("outside/x", "untouched");
        dir.write("out/plain", "untouched");
        dir.write("out/present/y", "untouched");
        ASSERT_EQ(::symlink("../outside", dir.path("out/out-link").c_str()), 0);
        ASSERT_EQ(::symlink("../outside/x", dir.path("out/file-link").c_str()), 0);
        writeRaw7z(dir.path("a.7z"), {{"good", "x"}, {"filled/x", "x"}, c.entry, {"good3", "x"}});
        const TreeSnapshot before = dir.snapshot();

        // The name of a folder is stored with a slash.
        EXPECT_THAT(
            extractFailure(dir.path("a.7z"), dir.path("out")),
            AllOf(HasSubstr(dir.path("a.7z")), HasSubstr("Entry '" + c.entry.name), HasSubstr(c.reason)));

        EXPECT_EQ(dir.snapshot(), before);
    }
}

TEST(Archive7z, DamagedArchivesFailAndLeaveNothing) {
    TempDir dir;
    TestRandom random;
    TRACE_SEED(random);
    const std::string first = random.bytes(20'000), second = random.bytes(20'000);
    writeRaw7z(dir.path("a.7z"), {{"first", first}, {"second", second}});
    const std::string whole = dir.read("a.7z");
    const auto expectRefused = [&](const std::string& bytes) {
        dir.write("bad.7z", bytes);
        EXPECT_THAT(extractFailure(dir.path("bad.7z"), dir.path("deep/out")), HasSubstr(dir.path("bad.7z")));
        EXPECT_FALSE(dir.exists("deep"));
    };
    for (const size_t size : {size_t{0}, size_t{5}, size_t{31}, size_t{1000}, whole.size() - 1}) {
        SCOPED_TRACE(size);
        expectRefused(whole.substr(0, size));
    }
    // Wherever the flipped byte lies, the archive must fail or give the true bytes.
    for (int i = 0; i < 200; ++i) {
        std::string flipped = whole;
        const size_t at = random.below(whole.size());
        flipped[at] = static_cast<char>(flipped[at] ^ static_cast<char>(1 + random.below(255)));
        SCOPED_TRACE(at);
        dir.write("bad.7z", flipped);
        if (extractFailure(dir.path("bad.7z"), dir.path("deep/out")).empty()) {
            EXPECT_TRUE(dir.read("deep/out/first") == first && dir.read("deep/out/second") == second);
            std::filesystem::remove_all(dir.path("deep"));
        }
        ASSERT_FALSE(dir.exists("deep"));
    }
    expectRefused("This is no archive, just a text that is long enough for a header.");
    writeRaw7z(dir.path("a.zip"), {{"first", "x"}}, true);
    expectRefused(dir.read("a.zip"));
    expectRefused("");
    EXPECT_THAT(extractFailure(dir.path("none.7z"), dir.path("deep/out")), HasSubstr("No such file"));
}

TEST(Archive7z, EntriesLargerThanTheFreeSpaceAreRefusedBeforeTheyAreWritten) {
    TempDir dir;
    std::filesystem::create_directory(dir.path("out"));
    writeRaw7z(dir.path("a.7z"), {{"small", std::string(1000, 'x')}, {"bomb", std::string(1 << 20, '\0')}});
    FaultOs os(dir.path("out"));
    os.setFreeSpaceAnswer(1 << 20);
    os.failNth(FaultOs::Op::Write, 2, EIO, "", true);

    EXPECT_THAT(extractFailure(dir.path("a.7z"), dir.path("out")),
                AllOf(HasSubstr("'bomb'"), HasSubstr("1000 + 1048576"), HasSubstr("1048576 are free")));

    EXPECT_EQ(os.getNFailed(), 0);
    EXPECT_TRUE(dir.snapshot("out").empty());
}

TEST(Archive7z, EveryFailureOfTheDiskLeavesTheFolderAsItWas) {
    TempDir dir;
    writeRaw7z(dir.path("a.7z"), {{"new/a", "aaaa"}, {"b", "bbbb"}, {"e/", "", AE_IFDIR}});
    dir.write("out/own", "own");
    const TreeSnapshot before = dir.snapshot("out");
    using Op = FaultOs::Op;
    for (const Op op : {Op::Open, Op::Write, Op::Sync, Op::MakeDir, Op::Rename, Op::SyncDir, Op::FreeSpace}) {
        for (int64 nth = 1;; ++nth) {
            SCOPED_TRACE(testing::Message() << "operation " << static_cast<int>(op) << ", number " << nth);
            FaultOs os(dir.path("out"));
            os.failNth(op, nth, EIO);
            const std::string failure = extractFailure(dir.path("a.7z"), dir.path("out"));
            if (os.getNFailed() == 0) {
                ASSERT_GT(nth, 1);
                ASSERT_EQ(failure, "");
                break;
            }
            EXPECT_THAT(failure, HasSubstr("Input/output error"));
            ASSERT_EQ(dir.snapshot("out"), before);
        }
        std::filesystem::remove_all(dir.path("out"));
        dir.write("out/own", "own");
    }
}

TEST(Archive7z, AFullDiskIsNamedWhenTheFreeSpaceLied) {
    TempDir dir;
    std::filesystem::create_directory(dir.path("out"));
    writeRaw7z(dir.path("a.7z"), {{"a", std::string(100'000, 'x')}});
    FaultOs os(dir.path("out"));
    os.setDiskLeft(60'000);
    os.setFreeSpaceAnswer(1 << 30);
    EXPECT_THAT(extractFailure(dir.path("a.7z"), dir.path("out")), HasSubstr("No space left"));
    EXPECT_TRUE(dir.snapshot("out").empty());
}

TEST(Archive7z, WhatIsThereAfterAPowerCutIsComplete) {
    const std::string bytes(100'000, 'x');
    for (int64 step = 1;; ++step) {
        SCOPED_TRACE(step);
        TempDir dir;
        std::filesystem::create_directory(dir.path("out"));
        writeRaw7z(dir.path("a.7z"), {{"img.idx", bytes}, {"sub/other", bytes}});
        FaultOs os(dir.path("out"));
        os.cutPowerAt(step);
        const bool done = extractFailure(dir.path("a.7z"), dir.path("out")).empty();
        ASSERT_EQ(done, !os.isCut());
        std::mt19937_64 random(static_cast<uint64>(step));
        os.crash(step % 2 ? &random : nullptr);
        for (const char* name : {"out/img.idx", "out/sub/other"}) {
            if (done || dir.exists(name)) {
                EXPECT_EQ(dir.read(name), bytes);
            }
        }
        if (done) break;
        ZqArchive::extract7z(dir.path("a.7z"), dir.path("out"));
        EXPECT_EQ(dir.snapshot("out").size(), 3u);
    }
}

TEST(Archive7z, AFailedPackKeepsTheOldArchive) {
    TempDir dir;
    dir.write("in/a", "a");
    dir.write("a.7z", "old");
    const TreeSnapshot before = dir.snapshot();
    const auto pack = [&](const SxList<SxString>& names, int level) {
        return failureOf([&] { ZqArchive::compress7z(dir.path("a.7z"), dir.path("in"), names, level); });
    };
    EXPECT_THAT(pack({"a", "missing"}, 1), AllOf(HasSubstr("a.7z"), HasSubstr("'missing'")));
    EXPECT_THAT(pack({"../a.7z"}, 1), HasSubstr("'..'"));
    EXPECT_NE(pack({"a"}, 10), "");
    FaultOs os(dir.path());
    os.setDiskLeft(20);
    EXPECT_THAT(pack({"a"}, 1), HasSubstr("No space left"));
    EXPECT_EQ(dir.snapshot(), before);
}

namespace {

std::string compressFailure(const std::string& from, const std::string& to, int level = 3) {
    return failureOf([&] { ZqArchive::compressZSTD(from, to, level); });
}

std::string decompressFailure(const std::string& from, const std::string& to) {
    return failureOf([&] { ZqArchive::decompressZSTD(from, to); });
}

} // namespace

TEST(ArchiveZstd, CopiesComeBackFromSeveralThreads) {
    TempDir dir;
    TestRandom random;
    TRACE_SEED(random);
    std::vector<std::thread> threads;
    int i = 0;
    for (const size_t size : {size_t{0}, size_t{1}, size_t{1} << 20, (size_t{5} << 20) + 3}) {
        dir.write("in" + std::to_string(i), random.bytes(size / 2) + std::string(size - size / 2, 'x'));
        threads.emplace_back([&dir, i] {
            const std::string n = std::to_string(i);
            EXPECT_TRUE(ZqArchive::compressZSTD(dir.path("in" + n), dir.path("packed" + n), i - 1));
            ZqArchive::decompressZSTD(dir.path("packed" + n), dir.path("out" + n));
        });
        ++i;
    }
    for (std::thread& thread : threads)
        thread.join();
    for (--i; i >= 0; --i) {
        const std::string n = std::to_string(i);
        EXPECT_EQ(dir.read("out" + n), dir.read("in" + n)) << n;
    }
}

TEST(ArchiveZstd, ProgressCountsTheSourceAndCanStop) {
    TempDir dir;
    dir.write("in", std::string(5'000'000, 'x'));
    int64 last = 0, nCalls = 0;
    EXPECT_TRUE(ZqArchive::compressZSTD(dir.path("in"), dir.path("out"), 1, [&](int64 nRead) {
        EXPECT_GT(nRead, last);
        last = nRead;
        return true;
    }));
    EXPECT_EQ(last, 5'000'000);
    EXPECT_FALSE(
        ZqArchive::compressZSTD(dir.path("in"), dir.path("out"), 1, [&](int64) { return ++nCalls < 2; }));
    EXPECT_EQ(nCalls, 2);
    EXPECT_FALSE(dir.exists("out"));
}

TEST(ArchiveZstd, FailuresRemoveTheTarget) {
    TempDir dir;
    dir.write("in", std::string(1000, 'x'));
    EXPECT_THAT(compressFailure(dir.path("none"), dir.path("out")), HasSubstr("No such file"));
    EXPECT_THAT(compressFailure(dir.path("in"), dir.path("out"), 99), HasSubstr("level 99"));
    EXPECT_THAT(compressFailure(dir.path("in"), dir.path("in")), HasSubstr("the source itself"));
    EXPECT_EQ(dir.read("in"), std::string(1000, 'x'));
    {
        FaultOs os(dir.path());
        os.failNth(FaultOs::Op::Sync, 1, EIO);
        EXPECT_THAT(compressFailure(dir.path("in"), dir.path("out")), HasSubstr("Input/output error"));
    }
    EXPECT_FALSE(dir.exists("out"));
}

TEST(ArchiveZstd, DamagedFramesAreRefused) {
    TempDir dir;
    TestRandom random;
    TRACE_SEED(random);
    dir.write("in", random.bytes(300'000));
    ZqArchive::compressZSTD(dir.path("in"), dir.path("packed"), 3);
    const std::string whole = dir.read("packed");
    std::string badChecksum = whole;
    badChecksum.back() = static_cast<char>(badChecksum.back() ^ 1);
    const struct {
        const char* what;
        std::string bytes;
        const char* reason;
    } cases[] = {
        {"empty", "", "zstd frame"},
        {"no frame", "just a text, long enough", "zstd frame"},
        {"cut short", whole.substr(0, whole.size() - 1), "cut short"},
        {"cut in the middle", whole.substr(0, 1000), "cut short"},
        {"behind the end", whole + "x", "follow the end"},
        {"a second frame", whole + whole, "follow the end"},
        {"checksum", badChecksum, "checksum"},
        // One raw block of one byte and no content size, as a streaming writer makes it.
        {"no size", std::string("\x28\xb5\x2f\xfd\x00\x58\x09\x00\x00x", 10), "declares no size"},
        // Declares 2^62 bytes.
        {"bomb", std::string("\x28\xb5\x2f\xfd\xe0\0\0\0\0\0\0\0\x40\x09\0\0x", 17), "are free"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        dir.write("bad", c.bytes);
        EXPECT_THAT(decompressFailure(dir.path("bad"), dir.path("out")),
                    AllOf(HasSubstr(dir.path("bad")), HasSubstr(c.reason)));
        EXPECT_FALSE(dir.exists("out"));
    }
}
