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
         "The entry of RAW block 1 is 20, behind the end of"},
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
