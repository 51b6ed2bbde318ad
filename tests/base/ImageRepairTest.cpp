#include "BaseTest.h"
#include "Builders.h"
#include "NetLab.h"
#include "ZqFileServer.h"
#include "ZqImageRepair.h"

namespace {

constexpr uint64 STRETCH = ZqRemoteImage::STRETCH;

/// A complete image, and the server that it came from.
class ImageRepair : public testing::Test {
protected:
    ImageRepair() {
        serve(PackedImage(zqf).bytes());
        dir.write("served/img.zqf", zqf);
        server.start();
    }
    void serve(const std::string& packed) const { dir.write("served/img.zqf.zst", packed); }
    /// The image with some bytes changed.
    std::string damaged(const std::vector<uint64>& offsets) const {
        std::string bytes = zqf;
        for (const uint64 offset : offsets)
            bytes[offset] ^= 1;
        return bytes;
    }
    /// How many stretches are mended, or why none is.
    std::string mend(const std::string& bytes) {
        const SxString file(dir.write("img.zqf", bytes));
        image = SxPtr<ZqRemoteImage>::create(SxPtr<ZqNetLink>::create(quickSettings()), server.getUrl(),
                                             zqf.size());
        uint64 nMended = 0;
        nCompared = 0;
        const std::string failure = failureOf([&] {
            nMended = ZqImageRepair(file, image).mend([&](uint64 nDone) { nCompared = nDone; }, stop);
        });
        return failure.empty() ? std::to_string(nMended) : failure;
    }
    std::string now() const { return dir.read("img.zqf"); }

    TestRandom random{17};
    const std::string zqf = random.bytes(7 * STRETCH + 4096);
    TempDir dir;
    ZqFileServer server{(fs::create_directories(dir.path("served")), dir.path("served"))};
    SxPtr<ZqRemoteImage> image;
    ZqStopTest stop;
    uint64 nCompared = 0;
};

} // namespace

TEST_F(ImageRepair, FetchesWhatIsWrongAndNothingElse) {
    const std::pair<std::vector<uint64>, uint64> cases[] = {
        {{}, 0},
        {{0}, 1},
        {{STRETCH - 1, STRETCH, 5 * STRETCH, 5 * STRETCH + 9}, 3},
        {{zqf.size() - 1}, 1},
        {{0, STRETCH, 2 * STRETCH, 3 * STRETCH, 4 * STRETCH, 5 * STRETCH, 6 * STRETCH, 7 * STRETCH}, 8},
    };
    for (const auto& [offsets, nWrong] : cases) {
        SCOPED_TRACE(nWrong);
        const uint64 nBefore = server.getNBytes();
        EXPECT_EQ(mend(damaged(offsets)), std::to_string(nWrong));
        EXPECT_TRUE(now() == zqf);
        EXPECT_EQ(nCompared, zqf.size());
        EXPECT_LT(server.getNBytes() - nBefore, 1000 + nWrong * ZqSeekTable::MAX_PACKED);
    }
    EXPECT_EQ(mend(zqf.substr(0, 7 * STRETCH - 1)), "2") << "one that is too short";
    EXPECT_TRUE(now() == zqf);
}

TEST_F(ImageRepair, LeavesWhatItCantTell) {
    const std::string wrong = damaged({7, 3 * STRETCH});
    for (const std::string& packed : {PackedImage(zqf, false).bytes(), std::string("no table")}) {
        serve(packed);
        EXPECT_EQ(mend(wrong), "0");
        EXPECT_TRUE(now() == wrong);
    }
    fs::remove(dir.path("served/img.zqf.zst"));
    EXPECT_EQ(mend(wrong), "0");
    server.stop();
    EXPECT_EQ(mend(wrong), "0");
    EXPECT_TRUE(now() == wrong);
}

TEST_F(ImageRepair, TakesNothingWrong) {
    const std::string wrong = damaged({7, 3 * STRETCH, 5 * STRETCH});
    // Frame 3 can't be decoded, and the plain form is taken; then that is wrong, too.
    PackedImage packed(zqf);
    packed.frames[3][100'000] ^= 1;
    serve(packed.bytes());
    EXPECT_EQ(mend(wrong), "3");
    EXPECT_TRUE(now() == zqf);
    dir.write("served/img.zqf", damaged({3 * STRETCH + 8}));
    EXPECT_THAT(mend(wrong), HasSubstr("Stretch 3 of"));
    EXPECT_TRUE(now() == damaged({3 * STRETCH, 5 * STRETCH})) << "what is right is kept";
}

TEST_F(ImageRepair, WaitsForAServerThatIsAwayAndEndsWhenStopped) {
    const std::string wrong = damaged({7, 3 * STRETCH});
    // The table has come once stretches are compared.
    std::atomic<int> nLooks{0};
    stop = [&] {
        if (nCompared < zqf.size()) return false;
        if (nLooks == 0) server.stop();
        if (++nLooks == 60) server.start();
        return false;
    };
    EXPECT_EQ(mend(wrong), "2");
    EXPECT_TRUE(now() == zqf);
    EXPECT_GE(nLooks, 60);
    stop = [&] { return nCompared >= 2 * STRETCH; };
    EXPECT_THAT(mend(wrong), HasSubstr("stopped"));
    EXPECT_TRUE(now() == wrong);
}
