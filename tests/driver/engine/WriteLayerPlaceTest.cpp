#include "DriveImage.h"
#include "Failure.h"
#include "ZqBlocks.h"

#include <gmock/gmock.h>

using testing::HasSubstr;

// Write layers whose image is another one by now, at the next mount or under the drive.

TEST(WriteLayer, BelongsToOneVersionOfTheImage) {
    TestRandom random(6);
    const DriveImage image(random, 8, 1.0);
    image.put(0, image.nZqf, false);
    const std::string block(ZqBlocks::SIZE, 'w');
    const auto setRecords = [&](const char* mnt, const char* guid, const char* idx = "") {
        image.dir.write("app.json",
                        std::string(R"({"checksums": {"mnt": ")") + mnt + R"(", "idx": ")" + idx + R"("}})");
        image.dir.write("img.json", std::string(R"({"guid": ")") + guid + R"("})");
    };
    for (const bool isFlushed : {false, true}) {
        for (const char* name : {"img.tix", "img.tmp"})
            std::filesystem::remove(image.path(name));
        setRecords("digest", "G1");
        {
            Drive drive(image, Mode::Rtw);
            ASSERT_EQ(drive.write(3, block), 0);
            if (isFlushed) drive.disk.flushLayer();
        }
        const auto failure = [&](Mode mode) {
            return failureOf(
                [&] { EXPECT_EQ(Drive(image, mode).read(3), block.substr(0, image.validBytes(3))); });
        };
        setRecords("digest", "G2", "of another order");
        EXPECT_EQ(failure(Mode::Ro), "");
        setRecords("", "digest");
        EXPECT_EQ(failure(Mode::Ro), "") << "the guid stands in for the digest";
        for (const Mode mode : {Mode::Ro, Mode::Rtw, Mode::Rw}) {
            setRecords("another", "G1");
            EXPECT_THAT(failure(mode),
                        HasSubstr("another version of this one: put that image back, or remove"));
        }
        setRecords("", "");
        EXPECT_EQ(failure(Mode::Ro), "") << "nothing is known of the image";
    }
}

TEST(WriteLayer, NothingIsWrittenIntoAnotherImageInThePlaceOfIts) {
    TestRandom random(11);
    for (const Mode mode : {Mode::Rtw, Mode::Rw}) {
        const DriveImage image(random, 40, 0.5, "image/");
        image.put(0, image.nZqf, false);
        uint64 without = 0;
        while (image.hasPlace(without))
            ++without;
        const uint64 rawIdx = mode == Mode::Rtw ? 0 : without;
        // Otherwise the files of the layer would be there from the start.
        if (mode == Mode::Rw) std::filesystem::create_directory(image.path("img.tmp"));
        Drive drive(image, mode);
        const auto write = [&] { return drive.write(rawIdx, std::string(ZqBlocks::SIZE, 'w')); };
        if (mode == Mode::Rtw) {
            ASSERT_EQ(write(), 0);
        }
        std::filesystem::rename(image.path(""), image.dir.path("old"));
        std::filesystem::create_directory(image.path(""));
        const std::map<std::string, std::string> others = {
            {"img.zqf", std::string(image.sizeZqf, 'o')}, {"img.tix", "index"}, {"img.tmp", "layer"}};
        for (const auto& [name, bytes] : others)
            image.dir.write("image/" + name, bytes);
        if (mode == Mode::Rtw) {
            EXPECT_THAT(failureOf([&] { drive.disk.flushLayer(); }), HasSubstr("replaced by another one"));
        } else {
            EXPECT_EQ(write(), EIO);
        }
        for (const auto& [name, bytes] : others)
            EXPECT_EQ(image.dir.read("image/" + name), bytes) << name;
    }
}

// An updater or a restored backup: of the whole folder, or of each file in it.
TEST(WriteLayer, AnIndexIsWrittenAnewInItsOwnFolderOnly) {
    constexpr uint64 N = 2000;
    for (const bool isFolder : {true, false}) {
        SCOPED_TRACE(isFolder ? "another folder" : "other files");
        TestRandom random(12);
        const DriveImage image(random, N, 0.5, "image/");
        image.put(0, image.nZqf, false);
        const auto block = [](uint64 rawIdx) {
            return std::string(ZqBlocks::SIZE, static_cast<char>('a' + rawIdx % 20));
        };
        const auto fill = [&](Drive* drive) {
            for (uint64 rawIdx = 0; rawIdx < N - 1; ++rawIdx)
                ASSERT_EQ(drive->write(rawIdx, block(rawIdx)), 0);
            ASSERT_EQ(drive->disk.sync(), 0);
        };
        const auto expectAll = [&](Drive* drive) {
            for (uint64 rawIdx = 0; rawIdx < N - 1; ++rawIdx)
                ASSERT_TRUE(drive->read(rawIdx) == block(rawIdx)) << rawIdx;
        };
        TreeSnapshot others;
        {
            Drive drive(image, Mode::Rtw);
            ASSERT_NO_FATAL_FAILURE(fill(&drive));
            if (isFolder) std::filesystem::rename(image.path(""), image.dir.path("old"));
            for (const char* name : {"img.zqf", "img.tix", "img.tmp"}) {
                image.dir.write("other", std::string("another image's ") + name);
                std::filesystem::create_directory(image.path(""));
                std::filesystem::rename(image.dir.path("other"), image.path(name));
            }
            others = image.dir.snapshot("image");
            for (int round = 0; round < 20; ++round) {
                ASSERT_EQ(drive.discard(0, N), 0);
                ASSERT_NO_FATAL_FAILURE(fill(&drive));
            }
            ASSERT_NO_FATAL_FAILURE(expectAll(&drive));
            EXPECT_EQ(drive.disk.close(), 0);
        }
        EXPECT_EQ(image.dir.snapshot("image"), others);
        if (!isFolder) continue;
        EXPECT_LT(std::filesystem::file_size(image.dir.path("old/img.tix")), 1U << 20);
        std::filesystem::remove_all(image.path(""));
        std::filesystem::rename(image.dir.path("old"), image.path(""));
        Drive drive(image, Mode::Ro);
        ASSERT_NO_FATAL_FAILURE(expectAll(&drive));
    }
}
