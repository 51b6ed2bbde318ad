#include "RemoteImageReading.h"
#include "SxClock.h"
#include "SxTime.h"
#include "TempDir.h"
#include "ZqFileServer.h"
#include "ZqImageSource.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class LikelyStretch : public testing::Test {
protected:
    void serve(uint64 nStretches) {
        zqf = halfRandom(&random, nStretches * STRETCH);
        dir.write("img.zqf", zqf);
        server.start();
        image = SxPtr<ZqRemoteImage>::create(SxPtr<ZqNetLink>::create(), server.getUrl(), zqf.size());
    }
    /// Somebody is about to wait for stretch `idx`; gives which of the others are begun.
    std::vector<uint64> announce(uint64 idx, const std::vector<uint64>& likely) {
        SxArray<uint64> offsets;
        for (const uint64 each : likely)
            offsets.append(each * STRETCH);
        std::vector<uint64> begun;
        for (const uint64 offset : image->announce({idx * STRETCH}, {STRETCH}, offsets))
            begun.push_back(offset / STRETCH);
        return begun;
    }
    bool hasComeAhead(uint64 n) {
        return SxWait::pass(5000, [&] { return image->getFigures().nAhead == n * STRETCH; });
    }
    uint64 nAsked() const { return server.getNRequests("img.zqf"); }

    TestRandom random;
    std::string zqf;
    const TempDir dir;
    ZqFileServer server{dir.prefix()};
    SxPtr<ZqRemoteImage> image;
};

} // namespace

TEST_F(LikelyStretch, isKeptUntilSomebodyWantsItOrTheStreamComesToIt) {
    serve(30);
    EXPECT_THAT(announce(5, {7, 20, 6, 21}), ElementsAre(7, 20, 6, 21));
    EXPECT_TRUE(readsRight(*image, zqf, 5));
    ASSERT_TRUE(hasComeAhead(4));
    EXPECT_EQ(nAsked(), 2u) << "neighbours come by one request";
    for (const uint64 idx : {7U, 20U})
        EXPECT_TRUE(readsRight(*image, zqf, idx));
    // What is there isn't asked for again, whoever names it.
    EXPECT_THAT(announce(6, {5, 7, 20, 21}), IsEmpty());
    EXPECT_TRUE(readsRight(*image, zqf, 6));
    EXPECT_TRUE(streamOf(*image) == zqf);
    const ZqRemoteImage::Figures figures = image->getFigures();
    EXPECT_GE(figures.nTakenKept, 5 * STRETCH);
    EXPECT_EQ(figures.nTwice, 0u);
    EXPECT_THAT(announce(8, {9, 10}), IsEmpty()) << "the stream has passed all";
}

TEST_F(LikelyStretch, isNotAskedForTwiceWhileItIsOnItsWay) {
    serve(30);
    server.setFault(ZqFileServer::Stall);
    EXPECT_THAT(announce(5, {12, 20}), ElementsAre(12, 20));
    EXPECT_THAT(announce(5, {12, 20, 25}), ElementsAre(25));
    // What somebody waits for comes first.
    ASSERT_TRUE(SxWait::pass(5000, [&] { return nAsked() == 1; }));
    server.setFault(ZqFileServer::Stall, false);
    for (const uint64 idx : {20U, 12U, 5U, 25U})
        EXPECT_TRUE(readsRight(*image, zqf, idx));
    EXPECT_EQ(nAsked(), 4u);
}

TEST_F(LikelyStretch, yieldsToWhatSomebodyWaitsFor) {
    serve(40);
    server.setRate(400'000);
    server.setLatency(20);
    EXPECT_EQ(announce(0, {10, 14, 18, 22}).size(), 4u);
    EXPECT_TRUE(readsRight(*image, zqf, 0));
    EXPECT_LE(image->getFigures().nAhead, STRETCH);
    // Another one comes before those that nobody has asked for.
    EXPECT_TRUE(readsRight(*image, zqf, 30));
    EXPECT_LE(image->getFigures().nAhead, STRETCH);
    server.setRate(0);
    EXPECT_TRUE(readsRight(*image, zqf, 22));
    EXPECT_TRUE(hasComeAhead(4));
}

TEST_F(LikelyStretch, endsWithAStopAndWhereTooMuchIsUnused) {
    serve(200);
    ZqImageSource source(image);
    source.cancel(true);
    EXPECT_EQ(source.announce({0}, {STRETCH}, {STRETCH, 9 * STRETCH}).getSize(), 0);
    EXPECT_EQ(nAsked(), 0u);
    source.cancel(false);
    uint64 nBegun = 0;
    for (uint64 idx = 1; idx + 4 < 200; idx += 5)
        nBegun += announce(idx, {idx + 1, idx + 2, idx + 3, idx + 4}).size();
    EXPECT_GT(nBegun, 100u);
    EXPECT_LE(nBegun * STRETCH, 32u << 20);
}
