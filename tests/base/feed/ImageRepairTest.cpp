#include "BaseTest.h"
#include "Builders.h"
#include "NetLab.h"
#include "SxTime.h"
#include "ZqBlocks.h"
#include "ZqFailurePolicy.h"
#include "ZqFileServer.h"
#include "ZqImageRepair.h"

namespace {

constexpr uint64 STRETCH = ZqBlocks::STRETCH;

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
    std::string mend(const std::string& bytes, const SxString& url) {
        const SxString file(dir.write("img.zqf", bytes));
        image = SxPtr<ZqRemoteImage>::create(SxPtr<ZqNetLink>::create(quickSettings()), url, zqf.size());
        uint64 nMended = 0;
        nCompared = 0;
        const std::string failure = failureOf([&] {
            ZqImageRepair repair(file, image);
            repair.setPlayer(player);
            nMended = repair.mend([&](uint64 nDone) { nCompared = nDone; }, stop);
        });
        return failure.empty() ? std::to_string(nMended) : failure;
    }
    std::string mend(const std::string& bytes) { return mend(bytes, server.getUrl()); }
    std::string now() const { return dir.read("img.zqf"); }

    TestRandom random{17};
    const std::string zqf = random.bytes(7 * STRETCH + 4096);
    TempDir dir;
    ZqFileServer server{(fs::create_directories(dir.path("served")), dir.path("served"))};
    SxPtr<ZqRemoteImage> image;
    ZqStopTest stop;
    ZqImageRepair::Player player;
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

TEST_F(ImageRepair, ChangesNoFileThatALinkLeadsTo) {
    const std::string wrong = damaged({7});
    dir.write("elsewhere/img.zqf", wrong);
    fs::create_symlink("elsewhere/img.zqf", dir.path("img.zqf"));
    EXPECT_THAT(mend(wrong), HasSubstr("is a link"));
    EXPECT_TRUE(dir.read("elsewhere/img.zqf") == wrong);
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
    EXPECT_TRUE(now() == damaged({3 * STRETCH})) << "what is right is kept, and the others come";
}

// What a game may read meanwhile is put right as soon as that can be.
TEST_F(ImageRepair, OneThatCantBeHadHoldsUpNoOther) {
    const std::string wrong = damaged({STRETCH, 5 * STRETCH}), packed = PackedImage(zqf).bytes();
    const uint64 first =
        ZqSeekTable(packed.data(), packed.size(), packed.size(), zqf.size()).getFrame(1).offset;
    // Of these the second is asked for again and again.
    for (const std::string refusal : {"403 No", "500 Error"}) {
        SCOPED_TRACE(refusal);
        fs::remove(dir.path("img.zqf"));
        std::atomic<bool> isRefusing{true};
        const ScriptedServer refuser([&](const std::string& request) {
            const bool isPacked = request.find(".zst") != std::string::npos;
            const std::string at = "bytes=" + std::to_string(isPacked ? first : STRETCH) + "-";
            if (isRefusing && request.find(at) != std::string::npos)
                return "HTTP/1.1 " + refusal + "\r\nContent-Length: 0\r\n\r\n";
            return ScriptedServer::ranged(request, isPacked ? packed : zqf);
        });
        player.settle = [](const SxException&) { return true; };
        player.requireSame = [](const ZqStopTest&) {};
        std::thread mending([&] { EXPECT_EQ(mend(wrong, SxString(refuser.url())), "2"); });
        EXPECT_TRUE(
            SxWait::pass(20'000, [&] { return dir.exists("img.zqf") && now() == damaged({STRETCH}); }));
        isRefusing = false;
        mending.join();
        EXPECT_TRUE(now() == zqf);
    }
}

TEST_F(ImageRepair, WaitsForWhateverAServerAnswersWhileSomebodyPlays) {
    const std::string wrong = damaged({7, 3 * STRETCH}), packed = PackedImage(zqf).bytes();
    const std::string page = "HTTP/1.1 200 OK\r\nContent-Length: 5\r\n\r\nlogin";
    const std::string refusal = "HTTP/1.1 403 No\r\nContent-Length: 0\r\n\r\n";
    const std::string none = "HTTP/1.1 404 None\r\nContent-Length: 0\r\n\r\n";
    for (const std::string& answer : {page, refusal, none}) {
        SCOPED_TRACE(answer.substr(9, 3));
        std::atomic<int> nWrong{6};
        std::atomic<bool> isServing{true};
        const ScriptedServer portal([&](const std::string& request) {
            const bool isPacked = request.find(".zst") != std::string::npos;
            if (isServing) return ScriptedServer::ranged(request, isPacked ? packed : zqf);
            if (--nWrong <= 0) isServing = true;
            return answer;
        });
        std::vector<SxString> told;
        player.settle = [&](const SxException& why) {
            told.push_back(ZqFailurePolicy::waitingLine(why));
            if (ZqFailurePolicy::decide(why, true) == ZqFailurePolicy::End) throw SxException(why);
            return true;
        };
        player.requireSame = [&](const ZqStopTest&) {
            if (!isServing) throw SxException(ZqNetLink::WRONG, "not app.json", "", 0);
        };
        bool hasBegun = false;
        stop = [&] {
            if (nCompared == zqf.size() && !hasBegun) isServing = false;
            hasBegun = hasBegun || nCompared == zqf.size();
            return false;
        };
        EXPECT_EQ(mend(wrong, SxString(portal.url())), "2");
        EXPECT_TRUE(now() == zqf);
        ASSERT_FALSE(told.empty());
        EXPECT_THAT(told[0].str(), testing::StartsWith("waiting for the server: "));
    }
}

TEST_F(ImageRepair, EndsAtWhatTheRightServerHasWrong) {
    const std::string wrong = damaged({3 * STRETCH});
    PackedImage packed(zqf);
    packed.frames[3][100'000] ^= 1;
    serve(packed.bytes());
    dir.write("served/img.zqf", wrong);
    int nAsked = 0;
    player.settle = [](const SxException&) { return true; };
    player.requireSame = [&](const ZqStopTest&) { ++nAsked; };
    EXPECT_THAT(mend(wrong), HasSubstr("Stretch 3 of"));
    EXPECT_GE(nAsked, 2);
    player.requireSame = [](const ZqStopTest&) {
        throw SxException(ZqFailurePolicy::OTHER_VERSION, "another version", "", 0);
    };
    player.settle = [](const SxException& why) {
        if (why.hasTag(ZqFailurePolicy::OTHER_VERSION)) throw SxException(why);
        return true;
    };
    EXPECT_THAT(mend(wrong), HasSubstr("another version"));
}

TEST_F(ImageRepair, TakesARefusalForNoTableWhereTheServerIsRight) {
    const std::string wrong = damaged({7});
    const ScriptedServer store([&](const std::string& request) {
        const bool isPacked = request.find(".zst") != std::string::npos;
        return isPacked ? std::string("HTTP/1.1 403 No\r\nContent-Length: 0\r\n\r\n")
                        : ScriptedServer::ranged(request, zqf);
    });
    int nSettled = 0;
    player.settle = [&](const SxException&) { return ++nSettled > 0; };
    player.requireSame = [](const ZqStopTest&) {};
    EXPECT_EQ(mend(wrong, SxString(store.url())), "0");
    EXPECT_GE(nSettled, 2);
}

TEST_F(ImageRepair, TakesATableThatAnotherJobHasAskedForInVain) {
    server.stop();
    int nSettled = 0;
    player.settle = [&](const SxException&) {
        if (++nSettled == 3) server.start();
        return true;
    };
    EXPECT_EQ(mend(damaged({7})), "1");
    EXPECT_TRUE(now() == zqf);
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
