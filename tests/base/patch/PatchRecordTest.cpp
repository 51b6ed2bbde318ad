#include "BaseTest.h"
#include "Builders.h"
#include "SxFSAction.h"
#include "ZqPatchInfo.h"
#include "ZqPatchProgress.h"

#include <cstring>
#include <limits>

namespace {

std::string number(uint64 value, size_t nBytes) {
    std::string bytes(sizeof value, '\0');
    std::memcpy(bytes.data(), &value, sizeof value);
    return bytes.substr(0, nBytes);
}

SxMd5 digestOf(char fill) {
    SxMd5::Digest digest;
    digest.fill(static_cast<unsigned char>(fill));
    return SxMd5(digest);
}

/// A part as the file has it.
std::string partBytes(uint64 nOld, uint64 nNew, uint64 patchSize, const std::vector<uint64>& items) {
    std::string bytes = number(nOld, 4) + number(nNew, 4) + number(patchSize, 8);
    bytes += std::string(16, 'o') + std::string(16, 'n') + std::string(16, 'p');
    for (const uint64 item : items)
        bytes += number(item, 8);
    return bytes;
}

std::string progressBytes(char id, uint64 stage, uint64 part) {
    return std::string(16, id) + number(stage, 4) + number(part, 4) + std::string(16, '\0');
}

} // namespace

TEST(PatchRecord, PartsOfAPatch) {
    const TempDir dir;
    const std::string file = dir.path("patch.info");
    const std::string bytes = partBytes(2, 1, 5, {7, 8, ~uint64{0}}) + partBytes(0, 2, 0, {3, 1}) +
                              partBytes(1, 0, uint64{1} << 40, {9}) + partBytes(0, 0, 1, {});
    dir.write("patch.info", bytes);
    const SxList<ZqPatchInfo> parts = ZqPatchInfo::read(file);
    ASSERT_EQ(parts.getSize(), 4);
    EXPECT_EQ(parts(0).oldMap, (SxArray<uint64>{7, 8}));
    EXPECT_EQ(parts(0).newMap, (SxArray<uint64>{~uint64{0}}));
    EXPECT_EQ(parts(1).newMap, (SxArray<uint64>{3, 1}));
    EXPECT_EQ(parts(2).patchSize, uint64{1} << 40);
    EXPECT_TRUE(parts(3).oldMd5 == digestOf('o') && parts(3).newMd5 == digestOf('n') &&
                parts(3).patchMd5 == digestOf('p'));
    ZqPatchInfo::write(dir.path("again"), parts);
    EXPECT_EQ(dir.read("again"), bytes);
    EXPECT_EQ(SxFSAction::look(dir.path("again"))->permissions, 0600U);
    ZqPatchInfo::write(dir.path("again"), {});
    EXPECT_EQ(ZqPatchInfo::read(dir.path("again")).getSize(), 0);

    EXPECT_EQ(failureOf([&] { ZqPatchInfo::write(dir.path("again"), {ZqPatchInfo()}); }),
              "Cannot write patch parameters: The MD5 digest isn't finished");
    EXPECT_EQ(dir.read("again"), "");
}

TEST(PatchRecord, BadPartsAreRefused) {
    const TempDir dir;
    const std::string file = dir.path("patch.info");
    const auto read = [&] { return failureOf([&] { ZqPatchInfo::read(file); }); };
    EXPECT_EQ(read(), "File " + file + " was not found");
    constexpr uint64 MOST = 0xFFFFFFFF, ALL = std::numeric_limits<int64>::max();
    const std::string good = partBytes(1, 2, ALL - 1, {1, 2, 3});
    const std::string readOld = "Read invalid number of old map elements: '" + file + "', part 1: it has ",
                      readNew = "Read invalid number of new map elements: '" + file + "', part 1: it has ";
    const std::pair<std::string, std::string> cases[] = {
        {partBytes(MOST, 1, 0, {1, 2}), readOld + "4294967295 old items, and the file 16 more bytes"},
        {partBytes(2, 1, 0, {1}) + "1234567", readOld + "2 old items, and the file 15 more bytes"},
        {partBytes(1, MOST, 0, {1, 2}), readNew + "4294967295 new items, and the file 8 more bytes"},
        {partBytes(0, 1, 0, {}), readNew + "1 new items, and the file 0 more bytes"},
        {partBytes(0, 0, 0, {}).substr(0, 63), "'" + file + "', part 1: the file ends within its header"},
        {partBytes(0, 0, 2, {}), "'" + file + "', part 1: its patch stream ends beyond 2^63 - 1 bytes"},
        {partBytes(0, 0, ~uint64{0}, {}),
         "'" + file + "', part 1: its patch stream ends beyond 2^63 - 1 bytes"},
    };
    for (const auto& [bytes, reason] : cases) {
        dir.write("patch.info", good + bytes);
        EXPECT_EQ(read(), "Cannot read patch parameters: " + reason);
    }
    // A file that tells a size and doesn't have the bytes.
    dir.write("patch.info", good + partBytes(1, 0, 0, {4}));
    FaultOs os(dir.path());
    os.setReadEnd("patch.info", 88 + 64 + 4);
    EXPECT_EQ(read(), "Cannot read patch parameters: " + readOld + "1 old items, and the file 4 more bytes");
    os.setReadEnd("", -1);
    os.failNth(Op::Read, 2, EIO);
    EXPECT_THAT(read(), AllOf(StartsWith("Cannot read patch parameters: "), HasSubstr(file)));
}

TEST(PatchRecord, Progress) {
    const TempDir dir;
    const std::string file = dir.path("patch.progress");
    ZqPatchProgress progress;
    progress.write(file);
    EXPECT_EQ(dir.read("patch.progress"), progressBytes('\0', 0, 0));
    progress.patchId = digestOf('i');
    progress.stage = ZqPatchProgress::CopyNewData;
    progress.part = 0x01020304;
    // What stands under the temporary name is no way to another file.
    dir.write("other", "other");
    fs::create_symlink("other", dir.path("patch.progress.tmp"));
    progress.write(file);
    EXPECT_EQ(dir.read("patch.progress"), progressBytes('i', 3, 0x01020304));
    EXPECT_EQ(dir.read("other"), "other");
    EXPECT_FALSE(dir.exists("patch.progress.tmp"));
    ZqPatchProgress again;
    again.read(file);
    EXPECT_EQ(again, progress);

    const auto read = [&] { return failureOf([&] { again.read(file); }); };
    const std::string corrupted = "Reading of patch progress failed.: Corrupted resume descriptor: '" + file;
    const std::string good = progressBytes('j', 2, 1);
    for (const std::string& bytes : {std::string(), good.substr(1), good + "x"}) {
        dir.write("patch.progress", bytes);
        EXPECT_EQ(read(), corrupted + "' has " + std::to_string(bytes.size()) + " bytes, and not 40");
    }
    // The pairs that no step has.
    for (const auto& [stage, part] : {std::pair<uint64, uint64>{7, 0}, {0xFFFFFFFF, 0}, {5, 1}, {6, 1}}) {
        dir.write("patch.progress", progressBytes('j', stage, part));
        EXPECT_EQ(read(), corrupted + "' states stage " + std::to_string(stage) + " of part " +
                              std::to_string(part) + ", which there isn't");
    }
    fs::remove(file);
    EXPECT_EQ(read(), "Reading of patch progress failed.: Patch progress file '" + file + "' not found");
    EXPECT_EQ(again, progress);
    EXPECT_THAT(failureOf([&] { progress.write(dir.path("none/patch.progress")); }),
                StartsWith("Failed to write patch progress file.: "));
}

TEST(PatchRecord, ProgressOutlivesCutsAndFaults) {
    const std::string before = progressBytes('b', 1, 1), after = progressBytes('a', 2, 1);
    ZqPatchProgress progress;
    progress.patchId = digestOf('a');
    progress.stage = ZqPatchProgress::ApplyPatchData;
    progress.part = 1;
    TestRandom random;
    TRACE_SEED(random);
    const std::string name = "patch.progress";
    bool isThrough = false;
    for (int64 step = 1; !isThrough; ++step) {
        SCOPED_TRACE(step);
        std::mt19937_64 chance(random.below(~uint64{0}));
        for (std::mt19937_64* fate : {static_cast<std::mt19937_64*>(nullptr), &chance}) {
            const TempDir dir;
            dir.write(name, before);
            FaultOs os(dir.path());
            os.cutPowerAt(step);
            isThrough = failureOf([&] { progress.write(dir.path(name)); }).empty();
            os.crash(fate);
            const std::string left = dir.read(name);
            EXPECT_TRUE(left == after || (!isThrough && left == before)) << left.size();
            progress.write(dir.path(name));
            EXPECT_EQ(dir.read(name), after);
        }
    }
    for (const Op op : {Op::Open, Op::Write, Op::Sync, Op::Close, Op::Rename, Op::SyncDir}) {
        const TempDir dir;
        dir.write(name, before);
        FaultOs os(dir.path());
        os.failNth(op, 1, EIO);
        EXPECT_THAT(failureOf([&] { progress.write(dir.path(name)); }),
                    AllOf(StartsWith("Failed to write patch progress file.: "), HasSubstr(dir.path())));
        EXPECT_EQ(dir.read(name), op == Op::SyncDir ? after : before);
    }
}
