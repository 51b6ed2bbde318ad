#include "BaseTest.h"
#include "Builders.h"
#include "SxMd5.h"
#include "ZqImage.h"
#include "ZqImageCheck.h"
#include "ZqImageInfo.h"
#include "ZqImageLock.h"
#include "ZqOrderHints.h"

namespace {

std::vector<std::string> toTexts(const SxList<SxString>& list) {
    std::vector<std::string> texts;
    for (const SxString& text : list)
        texts.push_back(text.str());
    return texts;
}

/// Gives the faults of the image in `dir`, which must stay as it is.
std::vector<std::string> faultsOf(const TempDir& dir, bool isPartial = false) {
    const TreeSnapshot before = contentOf(dir, "");
    ZqImageCheck check(dir.path());
    EXPECT_EQ(failureOf(check), "");
    EXPECT_EQ(check.isPartial(), isPartial);
    EXPECT_EQ(contentOf(dir, ""), before);
    return toTexts(check.getFaults());
}

/// Hints of the map with the digest `idxMd5`, as the file has them.
std::string hintsOf(const std::string& idxMd5) {
    const TempDir dir;
    ZqOrderHints hints{SxString(idxMd5)};
    hints.groups = {{0, 1, {0}, {}}};
    hints.write(dir.path());
    return dir.read("img.hints");
}

} // namespace

TEST(ImageCheck, ARightImageHasNoFault) {
    TestRandom random;
    TRACE_SEED(random);
    const TestImage image(random, 700, 0.7);
    const TempDir dir;
    for (const uint64 nBlocks : {uint64{0}, image.nZqf() - 1}) {
        image.write(dir.prefix(), nBlocks);
        EXPECT_THAT(faultsOf(dir, true), IsEmpty()) << nBlocks;
    }
    image.write(dir.prefix());
    EXPECT_THAT(faultsOf(dir), IsEmpty());
    ZqImageCheck check(dir.prefix());
    EXPECT_EQ(failureOf(check), "");
    EXPECT_EQ(check.getNCurrent() + check.getNTotal(), 2 * (700U * 8 + image.zqf.size()));
    EXPECT_THAT(toTexts(check.getNotes()),
                ElementsAre(HasSubstr("map: 700 entries"), HasSubstr("img.idx: digest "),
                            HasSubstr("img.zqf: digest ")));
}

TEST(ImageCheck, EachDamageIsFound) {
    TestRandom random;
    const TestImage image(random, 100, 1);
    const std::string idx = image.idxBytes(), idxMd5 = SxMd5::get(SxString(idx)).str();
    struct Case {
        const char* file;
        std::string from, to; ///< replaced text; without `from` the whole file, without both it goes
        size_t n;             ///< faults
        const char* last;     ///< a part of the last
    };
    const Case cases[] = {
        {"img.zqf", "", image.zqf.substr(1) + "x", 1, "img.zqf': the digest is "},
        {"img.zqf", "", image.zqf + "x", 1, "img.zqf' has 409601 bytes, app.json says 409600"},
        {"img.idx", "", idx.substr(8) + idx.substr(0, 8), 1, "img.idx': the digest is "},
        {"img.idx", "", idx.substr(8), 4, "img.idx': the digest is "},
        {"img.idx", "", "1234567", 1, "Invalid size of '"},
        {"img.idx", "", "", 1, "img.idx' not found."},
        {"app.json", "sizeIdx\": 800", "sizeIdx\": 792", 1, "has 800 bytes, app.json says 792"},
        {"img.json", "409600", "405505", 0, ""}, // the last block may be cut
        {"img.json", "409600", "405504", 1, "has 100 entries, the RAW image of img.json has 99"},
        {"app.json", "\"idx\": \"", "\"idx\": \"F", 2, "img.hints': It is of another map"},
        {"app.json", "\"zqf\": \"", "\"zqf\": \"F", 1, "img.zqf': the digest is "},
        {"app.json", "checksums", "unknown", 2, "img.hints': It is of another map"},
        {"app.json", "sizeIdx", "unknown", 0, ""},
        {"app.json", "sizeZqf", "unknown", 0, ""},
        {"app.json", "}", "", 1, "Failed to read file "},
        {"img.json", "", "", 1, "Failed to read file "},
        {"img.idx.md5", "", idxMd5 + "\n", 1, "img.idx': the digest is "},
        {"img.idx.md5", "", "x" + idxMd5.substr(1), 1, "img.idx': the digest is "},
        {"img.hints", "ZHINTS01", "ZHINTS02", 1, "img.hints': It isn't a file of hints"},
        {"img.hints", "", hintsOf(std::string(32, 'f')), 1, "img.hints': It is of another map"},
        {"img.hints", "", "", 0, ""}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.file) + " " + c.from + " " + c.to.substr(0, 40));
        const TempDir dir;
        image.write(dir.prefix());
        dir.write("img.hints", hintsOf(idxMd5));
        const SxString old = c.from.empty() ? "" : dir.read(c.file);
        dir.write(c.file, c.from.empty() ? c.to : old.substitute(c.from, c.to).str());
        if (c.from.empty() && c.to.empty()) fs::remove(dir.path(c.file));
        const std::vector<std::string> faults = faultsOf(dir);
        ASSERT_EQ(faults.size(), c.n) << testing::PrintToString(faults);
        EXPECT_THAT(c.n == 0 ? "" : faults.back(), HasSubstr(c.last));
    }
    const TempDir dir;
    image.write(dir.prefix());
    dir.write("app.json", SxString(dir.read("app.json")).substitute("\"idx\": \"", "\"idx\": \"F").str());
    dir.write("img.idx.md5", idxMd5);
    EXPECT_THAT(faultsOf(dir), IsEmpty()) << "img.idx.md5 counts more than what app.json says";
}

TEST(ImageCheck, TenWrongEntriesAreListedAndTheRestCounted) {
    TestRandom random;
    TestImage image(random, 40, 1);
    for (int64 rawIdx = 0; rawIdx < 40; ++rawIdx)
        image.map(rawIdx) = static_cast<uint64>(rawIdx);
    image.map(2) = 40;
    image.map(3) = uint64{1} << 63;
    image.map(5) = 4;
    image.map(6) = ZqImage::NO_ENTRY;
    const TempDir dir;
    image.write(dir.prefix());
    EXPECT_THAT(faultsOf(dir),
                ElementsAre(HasSubstr("of RAW block 2 is 40, which is out of range"),
                            HasSubstr("of RAW block 3 is 9223372036854775808, which is out of range"),
                            HasSubstr("of RAW block 5 is 4, which another block has already")));
    for (int64 rawIdx = 10; rawIdx < 40; ++rawIdx)
        image.map(rawIdx) = 9;
    image.write(dir.prefix());
    const std::vector<std::string> faults = faultsOf(dir);
    ASSERT_EQ(faults.size(), 11U);
    EXPECT_THAT(faults[9], HasSubstr("of RAW block 16 is 9"));
    EXPECT_THAT(faults[10], HasSubstr("img.idx': 23 more wrong entries"));

    TestImage shorter(random, 40, 0.5);
    for (uint64& entry : shorter.map)
        entry += entry == shorter.nZqf() - 1 ? 1 : 0;
    shorter.write(dir.prefix());
    EXPECT_THAT(faultsOf(dir), ElementsAre(HasSubstr("beyond the end of the complete img.zqf")));
}

TEST(ImageCheck, StoppedOrRefused) {
    TestRandom random;
    const TempDir dir;
    TestImage(random, 100, 1).write(dir.prefix());
    ZqImageCheck stopped(dir.path()), refused(dir.path());
    stopped.stop();
    EXPECT_EQ(failureOf(stopped), "Stopped");
    const auto lock = ZqImageLock::take(dir.path(), ZqImageLock::Shape, ZqImageLock::Exclusive, "split");
    EXPECT_THAT(failureOf(refused), HasSubstr("(split)"));
}

TEST(ImageInfo, RunsAndStates) {
    TestRandom random;
    TestImage image(random, 5, 1);
    image.map = {ZqImage::NO_ENTRY, 3, 4, 0, 1};
    const TempDir dir;
    image.write(dir.prefix());
    EXPECT_EQ(ZqImageInfo(dir.path()).nRuns, 2U);
    const std::tuple<const char*, const char*, bool, bool> cases[] = {
        {"img.zqf.info", "partial", true, false},     {"img.zqf.join", "partial", true, true},
        {"img.zqf.split", "complete", false, false},  {"optimize.lock", "optimizing", false, false},
        {"patch.progress", "patching", false, false}, {"patching/img.lock", "patching", false, false}};
    for (const auto& [marker, state, split, joining] : cases) {
        dir.write(marker, "99999999\n5");
        const ZqImageInfo info(dir.prefix());
        EXPECT_EQ(info.getStateText(), state) << marker;
        EXPECT_TRUE(info.storage.split == split && info.storage.joining == joining);
        EXPECT_EQ(info.storage.partSize, split ? 5U : 0U);
        fs::remove(dir.path(marker));
    }
}
