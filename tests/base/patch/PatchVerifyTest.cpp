#include "BaseTest.h"
#include "Builders.h"
#include "SxMd5.h"
#include "ZqArchive.h"
#include "ZqLog.h"
#include "ZqPatch.h"
#include "ZqPatchParams.h"

namespace {

constexpr uint64 NONE = ZqImage::NO_ENTRY;

/// What a check of one block after the other comes to.
ZqPatch::ImageCounters expected(const std::string& raw, const std::string& zqf, const SxArray<uint64>& map) {
    ZqPatch::ImageCounters c;
    std::string rawSide, zqfSide;
    const auto block = [](const std::string& bytes, uint64 idx) {
        std::string one = idx * 4096 < bytes.size() ? bytes.substr(idx * 4096, 4096) : "";
        one.resize(4096);
        return one;
    };
    for (const uint64 zqfIdx : map) {
        const uint64 rawIdx = c.nTotal++;
        const bool isThere = zqfIdx < zqf.size() / 4096;
        ++(isThere ? c.nMapped : c.nUnmapped);
        if (zqfIdx == NONE) continue;
        const std::string here = block(raw, rawIdx),
                          there = isThere ? block(zqf, zqfIdx) : std::string(4096, '\0');
        if (here != there) ++c.nInvalid;
        if (here != there && isThere && c.firstWrongRawIdx == NONE) c.firstWrongRawIdx = rawIdx;
        if (!isThere) ++c.nMissing;
        if (!isThere && here == there) ++c.nMissingZero;
        rawSide += here;
        zqfSide += there;
    }
    c.md5Raw = SxMd5::get(rawSide);
    c.md5Zqf = SxMd5::get(zqfSide);
    return c;
}

std::string describe(const ZqPatch::ImageCounters& c) {
    SxString text;
    for (const uint64 n : {c.nTotal, c.nMapped, c.nUnmapped, c.nInvalid, c.nMissing, c.nMissingZero,
                           c.nWrong(), c.firstWrongRawIdx})
        text += SxString(n) + " ";
    return (text + c.md5Raw + " " + c.md5Zqf).str();
}

} // namespace

TEST(PatchVerify, CountersAndDigests) {
    TestRandom random;
    TRACE_SEED(random);
    TestImage image(random, 1500, 0.7);
    image.raw.replace(40 * 4096, 200 * 4096, 200 * 4096, '\0');
    image.zqf.clear();
    for (uint64 rawIdx = 0, n = 0; rawIdx < image.nRaw(); ++rawIdx) {
        // Mostly in long runs, as images are; holes and jumps between them.
        const bool stored = !random.chance(0.02);
        image.map(static_cast<int64>(rawIdx)) = stored ? n++ : NONE;
    }
    for (uint64 from = 0; from + 100 < image.nRaw(); from += 100) {
        const uint64 to = random.below(image.nRaw() - 100);
        for (int64 i = 0; i < 50; ++i)
            std::swap(image.map(static_cast<int64>(from) + i), image.map(static_cast<int64>(to) + i));
    }
    image.zqf.resize(image.raw.size());
    for (uint64 rawIdx = 0; rawIdx < image.nRaw(); ++rawIdx) {
        const uint64 zqfIdx = image.map(static_cast<int64>(rawIdx));
        if (zqfIdx != NONE) image.zqf.replace(zqfIdx * 4096, 4096, image.rawBlock(rawIdx));
    }
    SxArray<uint64> none(700), wild(image.map);
    none.set(NONE);
    wild(7) = NONE - 1;
    wild(9) = uint64{1} << 52;
    std::string oneBad = image.zqf, twoBad = image.zqf;
    oneBad[image.map(1000) * 4096 + 4095] ^= 1;
    for (const int64 rawIdx : {300, 1499})
        twoBad[image.map(rawIdx) * 4096] ^= 1;

    struct Case {
        const char* name;
        std::string raw, zqf;
        SxArray<uint64> map;
    };
    const std::string &raw = image.raw, &zqf = image.zqf;
    const Case cases[] = {
        {"right", raw, zqf, image.map},
        {"nothing stored", raw, zqf, none},
        {"no entries", raw, zqf, SxArray<uint64>()},
        {"one wrong block", raw, oneBad, image.map},
        {"two wrong blocks", raw, twoBad, image.map},
        {"partial", raw, zqf.substr(0, 300 * 4096 + 4095), image.map},
        {"nothing there", raw, "", image.map},
        {"wild entries", raw, zqf, wild},
        {"last block cut", raw.substr(0, raw.size() - 4000), zqf, image.map},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const TempDir dir;
        dir.write("raw/img.raw", c.raw);
        dir.write("zqf/img.zqf", c.zqf);
        dir.write("zqf/img.idx",
                  {reinterpret_cast<const char*>(c.map.data()), static_cast<size_t>(c.map.getSize()) * 8});
        const TreeSnapshot before = dir.snapshot();
        EXPECT_EQ(describe(ZqPatch::verifyImage(dir.path("raw/"), dir.path("zqf/"), nullptr)),
                  describe(expected(c.raw, c.zqf, c.map)));
        EXPECT_EQ(dir.snapshot(), before);
    }
}

TEST(PatchVerify, WordsOnTheConsoleAndInTheLog) {
    TestRandom random;
    const TestImage image(random, 3, 1);
    const TempDir dir;
    image.write(dir.prefix());
    dir.write("img.raw", image.raw);
    std::vector<std::string> lines;
    ZqLog::setSink(
        [&](const SxString& tag, const SxString& text) { lines.push_back((tag + "|" + text).str()); });
    testing::internal::CaptureStdout();
    ZqPatch::verifyImage(dir.prefix(), dir.prefix());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\rVerifying  0 / 3                       \r"
                                                      "\rImage verified                     \n");
    const std::string md5 = SxMd5::get(image.raw).str();
    EXPECT_THAT(lines,
                ElementsAre(HasSubstr("rawDir [" + dir.path() + "/] zqfDir ["), "base|MD5 sum RAW : " + md5,
                            "base|MD5 sum ZqF : " + md5, "base|Total       : 3", "base|Mapped      : 3",
                            "base|Unmapped    : 0", "base|Invalid     : 0"));

    dir.write("img.idx", std::string(80, '\xff'));
    testing::internal::CaptureStdout();
    ZqPatch::verifyImage(dir.prefix(), dir.prefix());
    ZqLog::setSink({});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "\rImage verified                     \n");
}

TEST(PatchVerify, FailuresNameTheFile) {
    TestRandom random;
    const TestImage image(random, 3, 1);
    const TempDir dir;
    image.write(dir.prefix());
    dir.write("img.raw", image.raw);
    const auto verify = [&] {
        return failureOf([&] { ZqPatch::verifyImage(dir.prefix(), dir.prefix(), nullptr); });
    };
    for (const char* name : {"img.idx", "img.zqf", "img.raw"}) {
        const std::string bytes = dir.read(name);
        fs::remove(dir.path(name));
        EXPECT_EQ(verify(), "File " + dir.path(name) + " not found");
        dir.write(name, bytes);
        FaultOs os(dir.path());
        os.failNth(Op::Read, 1, EIO, name);
        EXPECT_THAT(verify(),
                    AllOf(StartsWith("Verification of image content failed: "), HasSubstr(dir.path(name))));
    }
    dir.write("img.raw", image.raw.substr(4096));
    EXPECT_THAT(verify(), AllOf(StartsWith("Verification of image content failed: "),
                                HasSubstr("img.raw' ends before block 2")));
    dir.write("img.raw", image.raw);

    // The map may be packed.
    ZqArchive::compress7z(dir.path("img.idx.7z"), dir.path(), {"img.idx"});
    fs::remove(dir.path("img.idx"));
    EXPECT_EQ(verify(), "");
    EXPECT_EQ(dir.read("img.idx"), image.idxBytes());
}

TEST(PatchVerify, MetadataOfAFolder) {
    const TempDir dir;
    const auto verify = [&] { return failureOf([&] { ZqPatch::verifyMeta(dir.path("x/../")); }); };
    fs::create_directory(dir.path("x"));
    EXPECT_EQ(verify(), "File " + dir.path("x/../patch.json") + " not found.");
    ZqPatchParams().write(dir.prefix());
    EXPECT_EQ(verify(), "File " + dir.path("map.7z") + " is missing.");
    dir.write("map.idx", "");
    EXPECT_EQ(verify(), "File " + dir.path("patch.7z") + " is missing.");
    dir.write("patch.7z", "");
    EXPECT_EQ(verify(), "");
    fs::rename(dir.path("map.idx"), dir.path("map.7z"));
    fs::rename(dir.path("patch.7z"), dir.path("patch.info"));
    EXPECT_EQ(verify(), "");
    // A disk that fails isn't a patch without a map.
    FaultOs os(dir.path());
    os.failNth(Op::Stat, 1, EIO, "map.idx");
    EXPECT_THAT(verify(), HasSubstr("Cannot look at '"));
}
