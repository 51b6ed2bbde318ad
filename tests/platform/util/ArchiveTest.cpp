#include "Builders.h"
#include "Failure.h"
#include "FaultOs.h"
#include "SxException.h"
#include "TempDir.h"
#include "ZqArchive.h"

#include <archive.h>
#include <archive_entry.h>
#include <filesystem>
#include <gmock/gmock.h>

namespace fs = std::filesystem;
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
void writeRaw7z(const std::string& path, const std::vector<RawEntry>& entries) {
    archive* a = archive_write_new();
    archive_write_set_format_7zip(a);
    ASSERT_EQ(archive_write_open_filename(a, path.c_str()), ARCHIVE_OK) << archive_error_string(a);
    for (const RawEntry& raw : entries) {
        archive_entry* entry = archive_entry_new();
        archive_entry_set_pathname(entry, raw.name.c_str());
        archive_entry_set_filetype(entry, raw.type);
        archive_entry_set_perm(entry, 0777);
        archive_entry_set_size(entry, static_cast<la_int64_t>(raw.bytes.size()));
        if (!raw.link.empty()) archive_entry_set_symlink(entry, raw.link.c_str());
        ASSERT_EQ(archive_write_header(a, entry), ARCHIVE_OK) << archive_error_string(a);
        archive_write_data(a, raw.bytes.data(), raw.bytes.size());
        archive_entry_free(entry);
    }
    ASSERT_EQ(archive_write_free(a), ARCHIVE_OK);
}

/// The texts of the chain that `act` raises; empty where it raises nothing.
class Archive7z : public testing::Test {
protected:
    Archive7z() { fs::create_directory(out); }

    /// Unpacks a.7z into the folder "out"; gives the failure.
    std::string extract() const {
        return failureOf([&] { ZqArchive::extract7z(dir.path("a.7z"), out); });
    }
    void pack(const std::vector<RawEntry>& entries) const { writeRaw7z(dir.path("a.7z"), entries); }

    const TempDir dir;
    const std::string out = dir.path("out");
};

} // namespace

TEST_F(Archive7z, PackedFilesComeBackAndReplaceOldOnes) {
    dir.write("in/img.idx", TestRandom().bytes(3'000'001) + std::string(5'000'000, 'x'));
    dir.write("in/empty", "");
    dir.write("in/sub/n\u00e4me", "sub");
    TreeSnapshot expected = dir.snapshot("in");
    dir.write("out/img.idx", "old");
    dir.write("out/sub/own", "stays");
    dir.write("out/.unpacking/0", "left over by a cut");
    expected["sub/own"] = dir.snapshot("out")["sub/own"];

    ZqArchive::compress7z(dir.path("a.7z"), dir.path("in"), {"img.idx", "empty", "sub/n\u00e4me"});
    EXPECT_EQ(extract(), "");
    EXPECT_EQ(dir.snapshot("out"), expected);
    EXPECT_EQ(fs::status(dir.path("out/img.idx")).permissions(), fs::perms(0600));
    EXPECT_FALSE(dir.exists("a.7z.tmp"));
}

TEST_F(Archive7z, HostileEntriesAreRefusedAndLeaveNothing) {
    const std::pair<RawEntry, const char*> cases[] = {
        {{"/tmp/evil", "x"}, "absolute"},
        {{"good/../../evil", "x"}, "'..'"},
        {{"..", "", AE_IFDIR}, "'..'"},
        {{"good2//x", "x"}, "empty part"},
        {{"sub/c:evil", "x"}, "drive letter"},
        {{"..\\evil", "x"}, "backslash"},
        {{"link", "", AE_IFLNK, "/etc"}, "neither a file nor a folder"},
        {{"fifo", "", AE_IFIFO}, "neither a file nor a folder"},
        {{"good", "y"}, "twice"},
        {{"good/x", "x"}, "is a file and a folder"},
        {{"filled", "x"}, "twice"},
        {{".unpacking/1", "x"}, "reserved"},
        {{"out-link/x", "x"}, "is a link"},
        {{"file-link", "x"}, "is a link"},
        {{"present", "x"}, "is no file"},
        {{"plain/x", "x"}, "is no folder"},
    };
    dir.write("outside/x", "untouched");
    dir.write("out/plain", "untouched");
    dir.write("out/present/y", "untouched");
    fs::create_symlink("../outside", dir.path("out/out-link"));
    fs::create_symlink("../outside/x", dir.path("out/file-link"));
    for (const auto& [entry, reason] : cases) {
        pack({{"good", "x"}, {"filled/x", "x"}, entry, {"good3", "x"}});
        const TreeSnapshot before = dir.snapshot();
        // The name of a folder is stored with a slash.
        EXPECT_THAT(extract(),
                    AllOf(HasSubstr(dir.path("a.7z")), HasSubstr("Entry '" + entry.name), HasSubstr(reason)));
        EXPECT_EQ(dir.snapshot(), before) << entry.name;
    }
}

TEST_F(Archive7z, DamagedArchivesFailAndLeaveNothing) {
    TestRandom random;
    TRACE_SEED(random);
    const std::string bytes = random.bytes(20'000);
    pack({{"file", bytes}});
    const std::string whole = dir.read("a.7z");
    for (const size_t size : {size_t{0}, size_t{31}, size_t{1000}, whole.size() - 1}) {
        dir.write("a.7z", whole.substr(0, size));
        EXPECT_THAT(extract(), HasSubstr(dir.path("a.7z"))) << size;
    }
    // Wherever the flipped byte lies, the archive must fail or give the true bytes.
    for (int i = 0; i < 200; ++i) {
        const size_t at = random.below(whole.size());
        std::string flipped = whole;
        flipped[at] = static_cast<char>(flipped[at] ^ 0x41);
        dir.write("a.7z", flipped);
        if (extract().empty()) {
            EXPECT_TRUE(dir.read("out/file") == bytes) << at;
            fs::remove(dir.path("out/file"));
        }
        ASSERT_TRUE(fs::is_empty(out)) << at;
    }
}

TEST_F(Archive7z, EntriesLargerThanTheFreeSpaceAreRefused) {
    pack({{"small", std::string(1000, 'x')}, {"bomb", std::string(1 << 20, '\0')}});
    FaultOs os(out);
    os.setFreeSpaceAnswer(1 << 20);
    os.failNth(FaultOs::Op::Write, 2, EIO, "", true);
    EXPECT_THAT(extract(),
                AllOf(HasSubstr("'bomb'"), HasSubstr("1000 + 1048576"), HasSubstr("1048576 are free")));
    EXPECT_EQ(os.getNFailed(), 0);
    // The answer of the disk may be wrong.
    os.failNth(FaultOs::Op::Write, 1'000'000, EIO);
    os.setFreeSpaceAnswer(1 << 30);
    os.setDiskLeft(60'000);
    EXPECT_THAT(extract(), HasSubstr("No space left"));
    EXPECT_TRUE(fs::is_empty(out));
}

TEST_F(Archive7z, AFailedPackKeepsTheOldArchive) {
    dir.write("in/a", "a");
    dir.write("a.7z", "old");
    const TreeSnapshot before = dir.snapshot();
    const auto compress = [&](const SxList<SxString>& names, int level) {
        return failureOf([&] { ZqArchive::compress7z(dir.path("a.7z"), dir.path("in"), names, level); });
    };
    EXPECT_THAT(compress({"a", "missing"}, 1), AllOf(HasSubstr("a.7z"), HasSubstr("'missing'")));
    EXPECT_THAT(compress({"../a.7z"}, 1), HasSubstr("'..'"));
    EXPECT_NE(compress({"a"}, 10), "") << "there is no level 10";
    FaultOs os(dir.path());
    os.setDiskLeft(20);
    EXPECT_THAT(compress({"a"}, 1), HasSubstr("No space left"));
    EXPECT_EQ(dir.snapshot(), before);
}

TEST(ArchiveZstd, CopiesComeBackAndProgressCountsTheSource) {
    TempDir dir;
    TestRandom random;
    for (const size_t size : {size_t{0}, size_t{1}, size_t{1} << 20, (size_t{5} << 20) + 3}) {
        const std::string bytes = random.bytes(size / 2) + std::string(size - size / 2, 'x');
        int64 last = -1;
        const auto progress = [&](int64 nRead) {
            EXPECT_GT(nRead, last);
            last = nRead;
            return true;
        };
        EXPECT_TRUE(ZqArchive::compressZSTD(dir.write("in", bytes), dir.path("packed"), 1, progress));
        EXPECT_EQ(last, static_cast<int64>(size));
        ZqArchive::decompressZSTD(dir.path("packed"), dir.path("out"));
        EXPECT_TRUE(dir.read("out") == bytes) << size;
    }
}

TEST(ArchiveZstd, AStopAndFailuresRemoveTheTarget) {
    TempDir dir;
    const std::string in = dir.write("in", std::string(5'000'000, 'x')), out = dir.path("out");
    int64 nCalls = 0;
    EXPECT_FALSE(ZqArchive::compressZSTD(in, out, 1, [&](int64) { return ++nCalls < 2; }));
    EXPECT_EQ(nCalls, 2);
    EXPECT_FALSE(dir.exists("out"));

    const auto failure = [](const std::string& from, const std::string& to, int level) {
        return failureOf([&] { ZqArchive::compressZSTD(from, to, level); });
    };
    EXPECT_THAT(failure(in, out, 99), HasSubstr("level 99"));
    EXPECT_THAT(failure(in, in, 3), HasSubstr("the source itself"));
    EXPECT_EQ(fs::file_size(in), 5'000'000u);
    FaultOs os(dir.path());
    os.failNth(FaultOs::Op::Sync, 1, EIO);
    EXPECT_THAT(failure(in, out, 3), HasSubstr("Input/output error"));
    EXPECT_FALSE(dir.exists("out"));
}

TEST(ArchiveZstd, DamagedFramesAreRefused) {
    TempDir dir;
    ZqArchive::compressZSTD(dir.write("in", TestRandom().bytes(300'000)), dir.path("packed"), 3);
    const std::string whole = dir.read("packed");
    std::string badChecksum = whole;
    badChecksum.back() = static_cast<char>(badChecksum.back() ^ 1);
    const std::pair<std::string, const char*> cases[] = {
        {"just a text, long enough", "zstd frame"},
        {whole.substr(0, whole.size() - 1), "cut short"},
        {whole + whole, "follow the end"},
        {badChecksum, "checksum"},
        // One raw block of one byte and no content size.
        {std::string("\x28\xb5\x2f\xfd\x00\x58\x09\x00\x00x", 10), "declares no size"},
        // Declares 2^62 bytes.
        {std::string("\x28\xb5\x2f\xfd\xe0\0\0\0\0\0\0\0\x40\x09\0\0x", 17), "are free"},
    };
    for (const auto& [bytes, reason] : cases) {
        dir.write("bad", bytes);
        const std::string failure =
            failureOf([&] { ZqArchive::decompressZSTD(dir.path("bad"), dir.path("out")); });
        EXPECT_THAT(failure, AllOf(HasSubstr(dir.path("bad")), HasSubstr(reason)));
        EXPECT_FALSE(dir.exists("out")) << reason;
    }
}
