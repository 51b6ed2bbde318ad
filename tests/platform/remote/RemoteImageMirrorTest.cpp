#include "Builders.h"
#include "Failure.h"
#include "NetLab.h"
#include "RemoteImageReading.h"
#include "SxClock.h"
#include "SxMd5.h"
#include "SxTime.h"
#include "ZqRemoteImage.h"

#include <gtest/gtest.h>
#include <thread>
#include <vector>

// Images whose servers answer each request in another way than the one before.

namespace {

/// Whether a request is the first or last one of a seek table.
bool isOfTable(const std::string& request, const std::string& packed, uint64 sizeZqf) {
    const std::string tailAt = std::to_string(packed.size() - ZqSeekTable::maxTail(sizeZqf));
    return request.find("bytes=0-43\r") != std::string::npos ||
           request.find("bytes=" + tailAt + "-") != std::string::npos;
}

/// An image whose server has a pack of another one at first, which doesn't say so.
struct StalePack {
    TestRandom random;
    const std::string zqf = random.bytes(8 * STRETCH + 678), other = random.bytes(zqf.size());
    const SxString digest = SxMd5::get(SxString(zqf));
    const std::string stale = PackedImage(other).bytes();
    const std::string right = PackedImage(zqf, true, digest.str()).bytes();
};

} // namespace

// The first request for the packed form is made without a table, and breaks off after the table has arrived.
TEST(RemoteImageTable, whoseArrivalMeetsABreakEndsNoStream) {
    TestRandom random;
    const std::string zqf = random.bytes(12 * STRETCH + 345), packed = PackedImage(zqf).bytes();
    std::atomic<int> nFrames{0};
    const ScriptedServer server([&](const std::string& request) {
        if (request.find("img.zqf.zst") == std::string::npos) return ScriptedServer::ranged(request, zqf);
        const bool isTable = isOfTable(request, packed, zqf.size());
        if (isTable && nFrames == 0) return statusOnly("503 Busy");
        std::string answer = ScriptedServer::ranged(request, packed);
        if (!isTable && nFrames++ == 0) answer.resize(answer.size() / 2);
        return answer;
    });
    ZqRemoteImage image(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url()), zqf.size());
    std::string got;
    const std::string failure = failureOf([&] {
        image.stream(0, [&](const char* bytes, int64 n) {
            SxWait::pass(10'000, [&] { return image.getFigures().isPacked; });
            got.append(bytes, static_cast<size_t>(n));
            return true;
        });
    });
    EXPECT_EQ(failure, "");
    EXPECT_TRUE(got == zqf);
    EXPECT_GE(nFrames, 2) << "the packed form goes on";
}

// Each answer is of another version and a part of what was asked for, so no stretch is of one version.
TEST(RemoteImageMirrors, giveStretchesTogetherWhereATableChecksThem) {
    TestRandom random;
    const std::string zqf = random.bytes(5 * STRETCH), packed = PackedImage(zqf).bytes();
    for (const bool isPacked : {true, false}) {
        SCOPED_TRACE(isPacked ? "packed" : "plain");
        std::atomic<int> nAnswers{0};
        std::atomic<bool> hasTable{true};
        const ScriptedServer server([&](const std::string& request) {
            const bool isFrames = request.find("img.zqf.zst") != std::string::npos;
            const bool isTable = isOfTable(request, packed, zqf.size());
            if (isFrames && isTable && hasTable) return ScriptedServer::ranged(request, packed);
            if (isFrames && !isPacked) {
                hasTable = false;
                return statusOnly("403 Forbidden");
            }
            const std::string& file = isFrames ? packed : zqf;
            const uint64 first = std::stoull(request.substr(request.find("bytes=") + 6));
            return ScriptedServer::partial(file, first, std::min<uint64>(first + 29'999, file.size() - 1),
                                           "ETag: \"" + std::to_string(nAnswers++) + "\"\r\n");
        });
        ZqRemoteImage image(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url()), zqf.size());
        image.setSameTest([](const ZqStopTest&) { return true; });
        image.announce({}, {});
        ASSERT_TRUE(SxWait::pass(5000, [&] { return image.getFigures().isPacked; }));
        for (const uint64 idx : {3U, 1U}) {
            std::string got;
            const std::string failure = failureOf([&] { got = readOf(image, idx * STRETCH, STRETCH); });
            EXPECT_TRUE(got == zqf.substr(idx * STRETCH, STRETCH)) << failure;
        }
        EXPECT_LE(nAnswers, 32) << "each version is doubted once";
    }
}

// A server is being set up anew: for a moment nothing is there, or all but the packed form.
TEST(RemoteImageTable, thatWasAbsentIsAskedForAgain) {
    TestRandom random;
    const std::string zqf = random.bytes(5 * STRETCH), packed = PackedImage(zqf).bytes();
    enum { Forgotten, AskedFor, LeftAlone };
    for (const auto what : {Forgotten, AskedFor, LeftAlone}) {
        SCOPED_TRACE(what);
        const bool isPlainThere = what != Forgotten;
        std::atomic<bool> isThere{false};
        std::atomic<int> nPacked{0};
        const ScriptedServer server([&](const std::string& request) {
            const bool isPacked = request.find("img.zqf.zst") != std::string::npos;
            if (isPacked) ++nPacked;
            if (!isThere && (isPacked || !isPlainThere)) return statusOnly("404 None");
            return ScriptedServer::ranged(request, isPacked ? packed : zqf);
        });
        ZqRemoteImage image(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url()), zqf.size());
        const std::string failure = failureOf([&] { readOf(image, STRETCH, STRETCH); });
        EXPECT_EQ(failure.empty(), isPlainThere) << failure;
        ASSERT_TRUE(SxWait::pass(5000, [&] { return nPacked > 0; }));
        EXPECT_FALSE(image.awaitTable());
        const int nBefore = nPacked;
        isThere = true;
        if (what == AskedFor) {
            // Whoever has to mend the image asks for it.
            EXPECT_TRUE(image.awaitTable());
        } else {
            if (what == Forgotten) image.forgetServer();
            EXPECT_TRUE(SxWait::pass(5000, [&] { return image.getFigures().isPacked; }));
        }
        EXPECT_TRUE(readsRight(image, zqf, 3));
        EXPECT_TRUE(image.getFigures().isPacked);
        EXPECT_GT(nPacked, nBefore);
    }
}

// Each look for the table ends as another begins, so that some ask again at the moment in which the answer is
// noted.
TEST(RemoteImageTable, thatIsAbsentIsAskedForByMany) {
    const ScriptedServer server([&](const std::string&) { return statusOnly("404 None"); });
    ZqRemoteImage image(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url()), 5 * STRETCH);
    std::atomic<int> nStuck{0};
    std::vector<std::thread> askers;
    for (int i = 0; i < 4; ++i) {
        askers.emplace_back([&] {
            const int64 endNs = SxClock::get().steadyNs() + 20'000'000'000;
            for (int n = 0; n < 300 && nStuck == 0; ++n) {
                const std::string failure =
                    failureOf([&] { image.awaitTable([&] { return SxClock::get().steadyNs() > endNs; }); });
                if (!failure.empty()) ++nStuck;
            }
        });
    }
    for (auto& asker : askers)
        asker.join();
    EXPECT_EQ(nStuck, 0);
}

// As where files are replaced in place, or a cache still has slices of those before, under the old records.
TEST(RemoteImageTable, thatIsKnownTellsOfAnotherVersionToTheEnd) {
    TestRandom random;
    const uint64 size = 8 * STRETCH + 678;
    const std::string zqf = random.bytes(size), other = random.bytes(size);
    const auto digestOf = [](const std::string& bytes) { return SxMd5::get(SxString(bytes)); };
    for (const bool hasDigest : {true, false}) {
        SCOPED_TRACE(hasDigest ? "the pack says of what it is" : "its table alone tells");
        const auto pack = [&](const std::string& bytes) {
            return PackedImage(bytes, true, hasDigest ? digestOf(bytes).str() : "").bytes();
        };
        const std::string packs[] = {pack(zqf), pack(other), PackedImage(zqf).bytes()};
        std::atomic<int> version{0}, nLooks{0};
        const ScriptedServer server([&](const std::string& request) {
            const bool isOfPack = request.find("img.zqf.zst") != std::string::npos;
            if (version == 1 && request.find("bytes=0-43\r") != std::string::npos) ++nLooks;
            return ScriptedServer::ranged(request, isOfPack ? packs[version] : version == 1 ? other : zqf);
        });
        ZqRemoteImage image(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url()), size, {},
                            ZqRemoteImage::MAX_KEPT, hasDigest ? digestOf(zqf) : SxString());
        EXPECT_TRUE(readsRight(image, zqf, 1));
        ASSERT_TRUE(SxWait::pass(5000, [&] { return image.getFigures().isPacked; }));
        version = 1;
        // The pack is refused at its next look, and both forms of the other version are asked for after it.
        const auto reads = [&](uint64 idx) {
            std::string got;
            const std::string failure = failureOf([&] { got = readOf(image, idx * STRETCH, STRETCH); });
            EXPECT_NE(failure, "") << idx;
            return failure.empty();
        };
        uint64 idx = 0;
        SxWait::pass(10'000, [&] { return reads(idx++ % 5 + 3) || nLooks > 0; });
        EXPECT_GT(nLooks, 0);
        for (const int64 endNs = SxClock::get().steadyNs() + 300'000'000;
             SxClock::get().steadyNs() < endNs;) {
            if (reads(idx++ % 5 + 3)) break;
        }
        std::string got;
        const auto sink = [&](const char* bytes, int64 n) {
            got.append(bytes, static_cast<size_t>(n));
            return true;
        };
        EXPECT_NE(failureOf([&] { image.stream(STRETCH, sink); }), "");
        EXPECT_TRUE(got == zqf.substr(STRETCH, got.size())) << "what is handed on is right";
        // The same image, packed anew, is in use at once.
        version = 2;
        image.forgetServer();
        EXPECT_TRUE(SxWait::pass(5000, [&] { return image.getFigures().isPacked; }));
        EXPECT_TRUE(readsRight(image, zqf, 5));
    }
}

// Old packs didn't say of which image they are. Here such a one is still there beside the records of a new
// version. Its table has told that some stretches are right, which were kept for the stream or brought by it.
TEST(RemoteImageTable, thatReplacesAnotherLeavesNothingAsChecked) {
    const StalePack given;
    const std::string &zqf = given.zqf, &stale = given.stale, &right = given.right;
    const uint64 size = zqf.size();
    std::atomic<bool> isReplaced{false};
    const ScriptedServer server([&](const std::string& request) {
        const bool isPacked = request.find("img.zqf.zst") != std::string::npos;
        return ScriptedServer::ranged(request, !isPacked ? zqf : isReplaced ? right : stale);
    });
    ZqRemoteImage image(SxPtr<ZqNetLink>::create(quickSettings()), SxString(server.url()), size, {},
                        ZqRemoteImage::MAX_KEPT, given.digest);
    ASSERT_TRUE(image.awaitTable());
    image.stream(0, [&](const char*, int64) { return false; });
    for (const uint64 idx : {uint64{0}, uint64{4}})
        EXPECT_TRUE(readOf(image, idx * STRETCH, STRETCH) == given.other.substr(idx * STRETCH, STRETCH));
    isReplaced = true;
    // What is of neither table leads to a look at the file.
    EXPECT_TRUE(SxWait::pass(
        5'000, [&] { return failureOf([&] { image.fetchAnew(6); }).empty() && readsRight(image, zqf, 6); }));
    for (const uint64 idx : {uint64{0}, uint64{4}})
        EXPECT_TRUE(readsRight(image, zqf, idx)) << idx;
}
