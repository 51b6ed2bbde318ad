#include "../base/BaseTest.h"
#include "Builders.h"
#include "ZqImage.h"
#include "ZqImageRaw.h"

namespace {

std::string writeRaw(const TempDir& dir) {
    ZqImageRaw job(dir.path("image"), dir.path("watched/raw"));
    return failureOf(job);
}

} // namespace

TEST(ImageRaw, BlocksGoToTheirPlacesAndHolesStayHoles) {
    TestRandom random;
    TRACE_SEED(random);
    for (const double stored : {1.0, 0.5, 0.0}) {
        const TempDir dir;
        const TestImage image(random, 3000, stored);
        image.write(SxString(dir.path("image/")));
        ASSERT_EQ(writeRaw(dir), "");
        std::string expected = image.raw;
        for (uint64 rawIdx = 0; rawIdx < image.nRaw(); ++rawIdx) {
            if (image.map(static_cast<int64>(rawIdx)) == ZqImage::NO_ENTRY)
                expected.replace(rawIdx * TestImage::BLOCK, TestImage::BLOCK, TestImage::BLOCK, '\0');
        }
        EXPECT_TRUE(dir.read("watched/raw/img.raw") == expected);
        SxStat info;
        SxOs::get().stat(dir.path("watched/raw/img.raw"), &info);
        EXPECT_LE(info.allocated, static_cast<int64>((image.nZqf() + 16) * TestImage::BLOCK));
    }
}

TEST(ImageRaw, AnIncompleteImageIsRefused) {
    TestRandom random;
    const TestImage image(random, 20);
    const std::pair<std::function<void(const TempDir&)>, std::string> cases[] = {
        {[&](const TempDir& dir) { image.write(SxString(dir.path("image/")), image.nZqf() - 1); },
         "isn't complete: img.zqf has "},
        {[](const TempDir& dir) { fs::resize_file(dir.path("image/img.idx"), 19 * 8); },
         "has 19 entries, which doesn't fit"},
        {[&](const TempDir& dir) {
             std::string idx = image.idxBytes();
             idx.replace(8, 8, std::string("\x14\0\0\0\0\0\0\0", 8));
             dir.write("image/img.idx", idx);
         },
         "The entry of RAW block 1 is 20, beyond the end of"},
        {[](const TempDir& dir) { dir.write("image/patch.progress", ""); }, "patch"}};
    for (const auto& [prepare, says] : cases) {
        const TempDir dir;
        image.write(SxString(dir.path("image/")));
        prepare(dir);
        dir.write("watched/raw/img.raw", "old");
        EXPECT_THAT(writeRaw(dir), HasSubstr(says));
        EXPECT_EQ(dir.read("watched/raw/img.raw"), "old");
    }
}

TEST(ImageRaw, TwoIntoOneFolderDontMixAndACutOffOneGoes) {
    TestRandom random;
    const TempDir dir;
    const TestImage first(random, 40, 1.0), second(random, 20, 1.0);
    first.write(SxString(dir.path("image/")));
    second.write(SxString(dir.path("other/")));
    dir.write("watched/raw/img.raw.0123abcd.tmp", "of a run that was cut off");
    FaultOs os(dir.path("watched"));
    std::string nested = "none";
    os.setHook([&](int64, FaultOs::Op op, const std::string&) {
        // The whole file is written, and not in its place yet.
        if (op != FaultOs::Op::Sync || nested != "none") return;
        nested = "";
        ZqImageRaw job(dir.path("other"), dir.path("watched/raw"));
        nested = failureOf(job);
        EXPECT_TRUE(dir.read("watched/raw/img.raw") == second.raw);
    });
    EXPECT_EQ(writeRaw(dir), "");
    EXPECT_EQ(nested, "");
    EXPECT_TRUE(dir.read("watched/raw/img.raw") == first.raw);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path("watched/raw")), fs::directory_iterator()), 1);
}

TEST(ImageRaw, OnlyAWriteLayerWithARecordIsInTheWay) {
    TestRandom random;
    const TempDir dir;
    TestImage(random, 20).write(SxString(dir.path("image/")));
    const std::string header = "ZLAYER03" + std::string(24, 'h'), first = "ZLAYER01" + std::string(8, 'h');
    const std::pair<std::string, bool> indices[] = {{"", false},
                                                    {header, false},
                                                    {header + std::string(15, 'r'), false},
                                                    {first, false},
                                                    {std::string(64, '\0'), false},
                                                    {header + std::string(16, 'r'), true},
                                                    {first + std::string(16, 'r'), true},
                                                    {"ZLAYER99", true},
                                                    {std::string(40, '\0') + "x", true}};
    for (const auto& [index, isWritten] : indices) {
        dir.write("image/img.tix", index);
        dir.write("image/img.tmp", std::string(4096, 'b'));
        const std::string failure = writeRaw(dir);
        EXPECT_EQ(!failure.empty(), isWritten) << index << failure;
        EXPECT_EQ(failure.find("has a write layer (img.tix)") != std::string::npos, isWritten) << failure;
    }
}

TEST(ImageRaw, TheImageItselfIsNoPlaceForIt) {
    TestRandom random;
    const TempDir dir;
    TestImage(random, 20).write(SxString(dir.path("image/")));
    fs::create_directory_symlink(dir.path("image"), dir.path("link"));
    const TreeSnapshot before = contentOf(dir, "image");
    for (const char* to : {"image", "image/", "link", "link/deep", "image/new/deep"}) {
        ZqImageRaw job(dir.path("image"), dir.path(to));
        EXPECT_THAT(failureOf(job), HasSubstr("lies in the image"));
    }
    EXPECT_EQ(contentOf(dir, "image"), before);
    ZqImageRaw above(dir.path("image"), dir.path());
    EXPECT_EQ(failureOf(above), "");
}
