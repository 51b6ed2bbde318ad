#include "Builders.h"
#include "Failure.h"
#include "NetLab.h"
#include "RemoteImageReading.h"
#include "SxClock.h"
#include "SxException.h"
#include "SxTime.h"
#include "TempDir.h"
#include "ZqFileServer.h"
#include "ZqRemoteImage.h"

#include <algorithm>
#include <gmock/gmock.h>
#include <thread>

using testing::AllOf;
using testing::HasSubstr;

namespace {

using ImagePtr = SxPtr<ZqRemoteImage>;

int64 nowMs() {
    return SxClock::get().steadyNs() / 1'000'000;
}

class RemoteImage : public testing::Test {
protected:
    RemoteImage() {
        dir.write("img.zqf", zqf);
        server.start();
    }
    void pack(bool hasChecksums = true, const std::string& md5 = "") {
        dir.write("img.zqf.zst", PackedImage(zqf, hasChecksums, md5).bytes());
    }
    ImagePtr open(uint64 size = 0) { return imageAt(server.getUrl(), size == 0 ? zqf.size() : size); }
    /// Waits until the table is there, so that what follows is sure to take the packed form.
    static void awaitTable(ZqRemoteImage& image) {
        image.announce({}, {});
        ASSERT_TRUE(SxWait::pass(5000, [&] { return image.getFigures().isPacked; }));
    }

    TestRandom random;
    const std::string zqf = halfRandom(&random, 30 * STRETCH + 12'345);
    TempDir dir;
    ZqFileServer server{dir.prefix()};
};

} // namespace

TEST_F(RemoteImage, givesTheSameBytesInEachForm) {
    const struct {
        const char* name;
        bool isPacked, hasChecksums;
        std::string origin;
    } forms[] = {{"plain", false, false, ""},
                 {"packed", true, true, ""},
                 {"packed without checksums", true, false, ""},
                 {"packed with its origin", true, true, std::string(32, 'a')}};
    for (const auto& [name, isPacked, hasChecksums, origin] : forms) {
        SCOPED_TRACE(name);
        if (isPacked) pack(hasChecksums, origin);
        const uint64 nPlain = server.getNBytes("img.zqf");
        const ImagePtr image = open();
        EXPECT_TRUE(streamOf(*image) == zqf);
        // The stream needs no table, which may come after it.
        EXPECT_TRUE(SxWait::pass(
            5000, [&, isPackedForm = isPacked] { return image->getFigures().isPacked == isPackedForm; }));
        EXPECT_EQ(server.getNBytes("img.zqf") - nPlain, isPacked ? 0 : zqf.size());
        const std::pair<uint64, uint64> ranges[] = {
            {0, 1},           {STRETCH - 1, 2}, {3 * STRETCH, STRETCH}, {30 * STRETCH, 12'345},
            {5, 3 * STRETCH}, {zqf.size(), 0}};
        for (const auto& [offset, size] : ranges) {
            EXPECT_TRUE(readOf(*image, offset, size) == zqf.substr(offset, size)) << offset << "+" << size;
        }
        for (const uint64 offset : {uint64{1}, 7 * STRETCH, 7 * STRETCH + 4096, zqf.size() - 1, zqf.size()})
            EXPECT_TRUE(streamOf(*open(), offset) == zqf.substr(offset)) << "from " << offset;
        EXPECT_THAT(failureOf([&] { readOf(*image, zqf.size() - 1, 2); }), HasSubstr("lie beyond its end"));
    }
}

TEST_F(RemoteImage, takesNoFileOfAnotherSize) {
    EXPECT_THAT(failureOf([&] { streamOf(*open(zqf.size() + 1)); }),
                AllOf(HasSubstr("bytes instead of"), HasSubstr("/img.zqf'")));
    pack();
    // With such a size the table is of no use, and the plain form decides.
    for (const uint64 size : {zqf.size() + STRETCH, zqf.size() - STRETCH, zqf.size() + 1}) {
        const std::string failure = failureOf([&] { streamOf(*open(size), 2 * STRETCH); });
        EXPECT_THAT(failure, AllOf(HasSubstr("bytes instead of"), HasSubstr("/img.zqf'")));
    }
}

TEST_F(RemoteImage, leavesAFrameThatStaysDamagedToThePlainForm) {
    const PackedImage packed(zqf);
    std::string flipped = packed.frames[3], otherContent = PackedImage(random.bytes(STRETCH)).frames[0];
    flipped[flipped.size() / 2] = static_cast<char>(~flipped[flipped.size() / 2]);
    // The frame of other content is a whole one. That it isn't the right one only the table tells.
    std::string cut = packed.frames[3].substr(0, packed.frames[3].size() - 1);
    for (const std::string& bad : {flipped, otherContent, cut}) {
        PackedImage image = packed;
        image.frames[3] = bad + std::string(std::max(packed.frames[3].size(), bad.size()) - bad.size(), '\0');
        image.frames[3].resize(packed.frames[3].size());
        dir.write("img.zqf.zst", image.bytes());
        for (const bool withTable : {false, true}) {
            const ImagePtr remote = open();
            if (withTable) awaitTable(*remote);
            EXPECT_TRUE(streamOf(*remote) == zqf);
        }
        const ImagePtr remote = open();
        awaitTable(*remote);
        const uint64 nRequests = server.getNRequests("img.zqf.zst");
        EXPECT_TRUE(readOf(*remote, 3 * STRETCH, 10) == zqf.substr(3 * STRETCH, 10));
        EXPECT_GE(server.getNRequests("img.zqf.zst") - nRequests, 2u);
        EXPECT_TRUE(readOf(*remote, 4 * STRETCH, 10) == zqf.substr(4 * STRETCH, 10));
    }
}

TEST(RemoteImageFrame, isFetchedAgainOnce) {
    TestRandom random;
    const std::string zqf = halfRandom(&random, 5 * STRETCH), packed = PackedImage(zqf).bytes();
    const size_t tableSize = PackedImage(zqf).table.size();
    std::string damaged = packed;
    for (size_t i = 0; i + tableSize < damaged.size(); i += 5000)
        damaged[i] = static_cast<char>(~damaged[i]);
    std::atomic<int> nBad{1}, nBroken{0};
    const ScriptedServer server([&](const std::string& request) {
        if (request.find("img.zqf.zst") == std::string::npos) {
            return statusOnly("404 Not Found");
        }
        const uint64 tailAt = packed.size() - ZqSeekTable::maxTail(zqf.size());
        const bool isTable = request.find("bytes=" + std::to_string(tailAt) + "-") != std::string::npos;
        const bool isFront = request.find("bytes=0-43\r") != std::string::npos;
        if (isTable && nBroken-- > 0) return std::string();
        return ScriptedServer::ranged(request, !isTable && !isFront && nBad-- > 0 ? damaged : packed);
    });
    const auto link = SxPtr<ZqNetLink>::create(quickSettings());
    ZqRemoteImage streamed(link, SxString(server.url()), zqf.size());
    EXPECT_TRUE(streamOf(streamed) == zqf);
    EXPECT_LE(nBad, 0);
    ZqRemoteImage image(link, SxString(server.url()), zqf.size());
    image.announce({}, {});
    ASSERT_TRUE(SxWait::pass(5000, [&] { return image.getFigures().isPacked; }));
    nBad = 1;
    EXPECT_TRUE(readsRight(image, zqf, 1));
    EXPECT_LE(nBad, 0);
    // A stretch that somebody has found to be wrong comes anew.
    const size_t nRequests = server.requests().size();
    EXPECT_TRUE(readsRight(image, zqf, 1));
    EXPECT_EQ(server.requests().size(), nRequests);
    image.forget(STRETCH, STRETCH);
    EXPECT_TRUE(readsRight(image, zqf, 1));
    EXPECT_GT(server.requests().size(), nRequests);
    // The table comes late, but it comes, where more answers are broken than a range is tried for.
    nBroken = 2 * static_cast<int>(quickSettings().nRangeTries);
    ZqRemoteImage patient(link, SxString(server.url("game?token=a/b#c")), zqf.size());
    patient.announce({}, {});
    ASSERT_TRUE(SxWait::pass(5000, [&] { return patient.getFigures().isPacked; }));
    EXPECT_TRUE(readOf(patient, 0, STRETCH) == zqf.substr(0, STRETCH));
    EXPECT_THAT(server.requests().back(), HasSubstr("GET /game/img.zqf.zst?token=a/b HTTP"));
}

// The plain form of a server that damages it from stretch 5 on, beside a packed form that comes late.
class RemoteImagePlain : public testing::Test {
protected:
    std::string answer(const std::string& request) {
        const bool isPacked = request.find("img.zqf.zst HTTP") != std::string::npos;
        if (isPacked && isHeld) return statusOnly("503 Busy");
        if (!isPacked) ++nPlain;
        return ScriptedServer::ranged(request, isPacked ? (isPackedBad ? badPacked : packed) : badPlain);
    }
    static std::string damage(std::string bytes, size_t first, size_t end) {
        for (size_t i = first + 1000; i < end; i += 20'000)
            bytes[i] = static_cast<char>(~bytes[i]);
        return bytes;
    }
    std::string packBadly() const {
        const PackedImage parts(zqf);
        size_t first = 0;
        for (size_t i = 0; i < 5; ++i)
            first += parts.frames[i].size();
        return damage(packed, first, packed.size() - parts.table.size());
    }

    TestRandom random;
    const std::string zqf = halfRandom(&random, 12 * STRETCH + 345);
    const std::string badPlain = damage(zqf, 5 * STRETCH, zqf.size());
    const std::string packed = PackedImage(zqf).bytes(), badPacked = packBadly();
    std::atomic<int> nPlain{0};
    std::atomic<bool> isHeld{true}, isPackedBad{false};
    ScriptedServer server{[this](const std::string& request) { return answer(request); }};
    ImagePtr image = imageAt(SxString(server.url()), zqf.size());
};

TEST_F(RemoteImagePlain, aWrongRangeIsFetchedAgainAndNeverGiven) {
    for (const bool isHopeless : {true, false}) {
        isPackedBad = isHopeless;
        isHeld = true;
        nPlain = 0;
        image = imageAt(SxString(server.url()), zqf.size());
        // The stretch comes by the plain form, and the table after it.
        std::thread release([this] {
            SxWait::pass(10'000, [this] { return nPlain > 0; });
            isHeld = false;
        });
        std::string got;
        const std::string failure = failureOf([&] { got = readOf(*image, 6 * STRETCH + 5, STRETCH - 5); });
        release.join();
        EXPECT_THAT(failure, HasSubstr(isHopeless ? " 6 of " : ""));
        EXPECT_TRUE(got == (isHopeless ? "" : zqf.substr(6 * STRETCH + 5, STRETCH - 5))) << failure;
        EXPECT_EQ(server.requests().back().find("Cache-Control: no-cache") != std::string::npos, true);
    }
}

TEST_F(RemoteImagePlain, theStreamHandsOnNoWrongStretch) {
    for (const bool isHopeless : {true, false}) {
        isPackedBad = isHopeless;
        isHeld = true;
        image = imageAt(SxString(server.url()), zqf.size());
        std::string got;
        constexpr uint64 FROM = 3 * STRETCH + 100;
        const std::string failure = failureOf([&] {
            image->stream(FROM, [&](const char* bytes, int64 n) {
                isHeld = false;
                SxWait::pass(10'000, [this] { return image->getFigures().isPacked; });
                got.append(bytes, static_cast<size_t>(n));
                return true;
            });
        });
        // The stream didn't wait for the table, but it goes by it once it is there.
        EXPECT_GT(nPlain, 0);
        EXPECT_THAT(failure, HasSubstr(isHopeless ? " 5 of " : ""));
        EXPECT_TRUE(got == zqf.substr(FROM, isHopeless ? 5 * STRETCH - FROM : zqf.size())) << failure;
    }
}

TEST_F(RemoteImage, doesNotFetchTwiceWhatWasOnDemand) {
    for (const bool isPacked : {false, true}) {
        SCOPED_TRACE(isPacked ? "packed" : "plain");
        if (isPacked) pack();
        const char* name = isPacked ? "img.zqf.zst" : "img.zqf";
        const uint64 nBefore = server.getNBytes(name);
        const ImagePtr image = open();
        if (isPacked) awaitTable(*image);
        for (const uint64 idx : {4U, 5U, 6U, 11U, 29U, 30U})
            readOf(*image, idx * STRETCH, 1);
        readOf(*image, 5 * STRETCH, STRETCH);
        EXPECT_TRUE(streamOf(*image) == zqf);
        const ZqRemoteImage::Figures figures = image->getFigures();
        EXPECT_GE(figures.nTakenKept, 5 * STRETCH + 12'345);
        EXPECT_EQ(figures.nStreamed, zqf.size());
        EXPECT_EQ(figures.nTwice, 0u);
        const uint64 size = isPacked ? dir.read(name).size() : zqf.size();
        // What follows these ranges may still be on its way when the stream comes to it.
        EXPECT_LE(server.getNBytes(name) - nBefore, size + 3 * STRETCH);
    }
}

// Where a disk is slow or full what the stream has brought is in memory, and not yet in the file.
TEST_F(RemoteImage, whatWaitsForTheDiskIsntFetchedAgain) {
    const ImagePtr image = open();
    image->setWritten(0);
    EXPECT_TRUE(streamOf(*image) == zqf);
    const uint64 nBefore = server.getNBytes("img.zqf");
    EXPECT_TRUE(readsRight(*image, zqf, 1));
    // The writer has failed, and the next one goes on at the end of the file.
    image->setWritten(10 * STRETCH);
    EXPECT_TRUE(streamOf(*image, 10 * STRETCH + 5) == zqf.substr(10 * STRETCH + 5));
    EXPECT_EQ(server.getNBytes("img.zqf"), nBefore);
    EXPECT_EQ(image->getFigures().nTwice, 0U);
    // What is written is no longer in memory, so a range of it is fetched.
    EXPECT_TRUE(readsRight(*image, zqf, 9));
    EXPECT_EQ(server.getNBytes("img.zqf") - nBefore, STRETCH);
    EXPECT_EQ(image->getFigures().nTwice, STRETCH);
}

// A disk that is full ends the stream while a request still brings bytes, and what nobody has taken is lost.
TEST_F(RemoteImage, whatABrokenOffRequestHadBroughtCountsAsTwice) {
    for (const bool isPacked : {false, true}) {
        SCOPED_TRACE(isPacked ? "packed" : "plain");
        if (isPacked) pack();
        const ImagePtr image = open();
        if (isPacked) awaitTable(*image);
        const auto received = [&, nBefore = image->getLink()->getFigures().nBytes] {
            return image->getLink()->getFigures().nBytes - nBefore;
        };
        int64 nTaken = 0;
        const auto take = [&](const char*, int64 n) {
            nTaken += n;
            if (nTaken < static_cast<int64>(2 * STRETCH)) return true;
            EXPECT_TRUE(SxWait::pass(20'000, [&] { return received() > 2'500'000; }));
            return false;
        };
        EXPECT_FALSE(image->stream(0, take, nullptr));
        EXPECT_EQ(image->getFigures().nTwice, 0U) << "nothing has come again so far";
        EXPECT_TRUE(streamOf(*image, STRETCH + 5) == zqf.substr(STRETCH + 5));
        const PackedImage packed(zqf);
        const uint64 nNeeded = isPacked ? packed.bytes().size() - packed.table.size() : zqf.size();
        EXPECT_GT(image->getFigures().nTwice, 1'500'000U);
        EXPECT_NEAR(static_cast<double>(image->getFigures().nTwice),
                    static_cast<double>(received() - nNeeded), 100'000.);
    }
}

// Streams at 4 MB/s while the test asks for ranges.
class RemoteImageBusy : public RemoteImage {
protected:
    RemoteImageBusy() {
        server.setRate(4'000'000);
        server.setLatency(20);
        image = open();
    }
    ~RemoteImageBusy() override { join(); }
    void begin() {
        streamer = std::thread([this] {
            image->stream(0, [this](const char*, int64 n) {
                nStreamed += static_cast<uint64>(n);
                return !ending;
            });
        });
        SxWait::pass(5000, [this] { return nStreamed > 3 * STRETCH; });
    }
    void join() {
        ending = true;
        if (streamer.joinable()) streamer.join();
    }

    ImagePtr image;
    std::atomic<uint64> nStreamed{0};
    std::atomic<bool> ending{false};
    std::thread streamer;
};

TEST_F(RemoteImageBusy, putsRangesFirst) {
    server.setRate(1'500'000);
    begin();
    const uint64 nBefore = nStreamed;
    for (uint64 idx = 20; idx < 28; ++idx)
        ASSERT_TRUE(readsRight(*image, zqf, idx));
    // An equal share would be eight stretches; some passes before each hold.
    EXPECT_LT(nStreamed - nBefore, 5 * STRETCH);
    server.setRate(0);
    EXPECT_TRUE(SxWait::pass(5000, [&] { return nStreamed == zqf.size(); })) << "the stream didn't go on";
}

TEST_F(RemoteImageBusy, leavesToTheStreamWhatItIsAboutToReach) {
    begin();
    for (int i = 0; i < 5; ++i) {
        const uint64 idx = nStreamed / STRETCH;
        ASSERT_TRUE(readsRight(*image, zqf, idx));
    }
    EXPECT_GT(image->getFigures().nLeft, 0u);
    EXPECT_LE(image->getFigures().nOnDemand, STRETCH);
}

TEST_F(RemoteImageBusy, doesNotLeaveItToAStreamThatStalls) {
    std::atomic<bool> isHeld{true};
    std::thread held([&] {
        image->stream(0, [&](const char*, int64 n) {
            nStreamed += static_cast<uint64>(n);
            while (isHeld)
                SxTime::msleep(5);
            return false;
        });
    });
    SxWait::pass(5000, [this] { return nStreamed > 0; });
    const int64 start = nowMs();
    EXPECT_TRUE(readOf(*image, 0, STRETCH) == zqf.substr(0, STRETCH));
    EXPECT_LT(nowMs() - start, 2000);
    isHeld = false;
    held.join();
}

TEST_F(RemoteImage, fetchesWhatFollowsForWhoGoesThrough) {
    server.setRate(12'500'000);
    server.setLatency(20);
    const ImagePtr image = open();
    for (uint64 idx = 5; idx < 30; ++idx)
        ASSERT_TRUE(readsRight(*image, zqf, idx));
    EXPECT_GT(image->getFigures().nAhead, 0u);
    // Nothing has come twice.
    EXPECT_LE(server.getNBytes("img.zqf"), 25 * STRETCH + 12'345);
    EXPECT_LE(image->getFigures().nAhead + image->getFigures().nOnDemand, 25 * STRETCH + 12'345);
}

TEST_F(RemoteImage, whatFollowsComesWithTheSameRequest) {
    server.setRate(12'500'000);
    // Three round trips of this length carry the most that is fetched together.
    server.setLatency(60);
    const ImagePtr image = open();
    const auto expectRight = [&](uint64 idx) { ASSERT_TRUE(readsRight(*image, zqf, idx)) << idx; };
    const auto nAsked = [&] { return server.getNRequests("img.zqf"); };
    // The link has to be known first, by its best rate.
    for (const uint64 idx : {0U, 2U, 4U})
        expectRight(idx);
    ASSERT_TRUE(SxWait::pass(5000, [&] { return image->getFigures().nAhead >= 5 * STRETCH; }));
    const uint64 nBefore = nAsked();
    for (const uint64 idx : {16U, 17U})
        expectRight(idx);
    EXPECT_EQ(nAsked(), nBefore + 1);
    // Stretch 26 is announced, and nobody takes it. Who wants stretch 28, which comes with it, gets it all
    // the same.
    image->announce({26 * STRETCH}, {STRETCH});
    ASSERT_TRUE(SxWait::pass(5000, [&] { return nAsked() == nBefore + 2; }));
    expectRight(28);
    EXPECT_EQ(nAsked(), nBefore + 2);
    expectRight(26);
}

/// On a slow link, with stretches from 16 to 23 that take next to nothing of it.
class RemoteImageSlow : public RemoteImage {
protected:
    RemoteImageSlow() {
        std::fill(image.begin() + 16 * STRETCH, image.begin() + 24 * STRETCH, 'y');
        dir.write("img.zqf", image);
        dir.write("img.zqf.zst", PackedImage(image, true).bytes());
        server.setRate(1'000'000);
        server.setLatency(20);
        remote = open();
        awaitTable(*remote);
    }
    void expectRight(const std::vector<uint64>& stretches) {
        for (const uint64 idx : stretches)
            ASSERT_TRUE(readsRight(*remote, image, idx)) << idx;
    }
    /// Whether so many stretches come along, and so many were asked for.
    void expectCame(uint64 nAhead, uint64 nOnDemand) {
        ASSERT_TRUE(SxWait::pass(5000, [&] { return remote->getFigures().nAhead >= nAhead * STRETCH; }));
        EXPECT_EQ(remote->getFigures().nAhead, nAhead * STRETCH);
        EXPECT_EQ(remote->getFigures().nOnDemand, nOnDemand * STRETCH);
    }

    std::string image = zqf;
    ImagePtr remote;
};

TEST_F(RemoteImageSlow, onlyLittleComesAlong) {
    expectRight({1, 3, 17, 19, 26, 27});
    expectCame(6, 5); // 19 with 17, and nothing with the others
}

TEST_F(RemoteImageSlow, whatIsClaimedAlreadyMakesNoRoomForMore) {
    expectRight({1, 4});
    remote->announce({18 * STRETCH, 20 * STRETCH, 21 * STRETCH}, {STRETCH, STRETCH, STRETCH});
    // With 20, after 18, come 21 to 23. As 21 is there, that makes two.
    expectRight({21, 18, 20});
    expectCame(2, 5);
    expectRight({24});
    expectCame(2, 6);
}

TEST_F(RemoteImage, neighboursInAGroupAreFetchedOnce) {
    server.setRate(12'500'000);
    server.setLatency(60);
    const ImagePtr image = open();
    ASSERT_TRUE(readOf(*image, 0, STRETCH) == zqf.substr(0, STRETCH));
    const uint64 nBefore = server.getNBytes("img.zqf");
    image->announce({24 * STRETCH, 25 * STRETCH, 26 * STRETCH}, {STRETCH, STRETCH, STRETCH});
    for (const uint64 idx : {24U, 25U, 26U})
        EXPECT_TRUE(readsRight(*image, zqf, idx)) << idx;
    // What follows the last may come, too.
    EXPECT_LE(server.getNBytes("img.zqf") - nBefore, 6 * STRETCH + 12'345);
}

TEST_F(RemoteImage, fetchesAGroupTogether) {
    const auto image =
        ImagePtr::create(SxPtr<ZqNetLink>::create(ZqNetSettings()), server.getUrl(), zqf.size());
    // None lies so near to another that somebody would seem to go through the image.
    const SxArray<uint64> offsets{0, 3 * STRETCH, 6 * STRETCH, 9 * STRETCH, 12 * STRETCH, 15 * STRETCH};
    SxArray<uint64> sizes(6);
    sizes.set(STRETCH);
    // No answer comes to its end until all have been asked for.
    server.setFault(ZqFileServer::Stall);
    image->announce(offsets, sizes);
    EXPECT_TRUE(SxWait::pass(5000, [this] { return server.getNRequests("img.zqf") == 6; }));
    server.setFault(ZqFileServer::Stall, false);
    for (const uint64 offset : offsets)
        EXPECT_TRUE(readOf(*image, offset, STRETCH) == zqf.substr(offset, STRETCH));
    EXPECT_EQ(server.getNRequests("img.zqf"), 6u);
}
