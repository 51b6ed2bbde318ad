#include "FaultOs.h"
#include "NetLab.h"
#include "RemoteImageReading.h"
#include "SxTime.h"
#include "TempDir.h"
#include "ZqStretchCache.h"

#include <fstream>
#include <gmock/gmock.h>

using testing::ElementsAre;

namespace {

using Bytes = ZqStretchCache::Bytes;
using Table = ZqStretchCache::Table;

class StretchCache : public testing::Test {
protected:
    static constexpr uint64 N_KEPT = 4, N_HELD = 6;

    StretchCache() { reopen(); }
    void reopen(const ZqDiskReserve& reserve = ZqDiskReserve(), bool hasStore = false) {
        cache = nullptr;
        cache = std::make_unique<ZqStretchCache>(ZqStretchLayout(zqf.size()), N_KEPT * STRETCH,
                                                 N_HELD * STRETCH, [this](uint64 idx) {
                                                     EXPECT_TRUE(cache->has(idx)) << "not dropped yet";
                                                     wrong.push_back(idx);
                                                 });
        if (hasStore) {
            cache->setStore(std::make_unique<ZqStretchStore>(own.prefix(), SxString("key"), zqf.size(),
                                                             STRETCH, 0, reserve));
        }
    }
    static Bytes stretchOf(const std::string& image, uint64 idx) {
        const std::string part = image.substr(idx * STRETCH, STRETCH);
        auto bytes = Bytes::create(static_cast<int64>(part.size()));
        std::copy(part.begin(), part.end(), bytes->data());
        return bytes;
    }
    static Table tableOf(const std::string& image) {
        const std::string packed = PackedImage(image).bytes();
        return Table::create(packed.data(), packed.size(), packed.size(), image.size());
    }
    bool keep(uint64 idx, bool isUnasked = false) {
        return cache->keep(idx, stretchOf(zqf, idx), nullptr, isUnasked);
    }
    bool isThere(uint64 idx) {
        const Bytes bytes = cache->get(idx, nullptr);
        return bytes && *bytes == *stretchOf(zqf, idx);
    }

    TestRandom random;
    const std::string zqf = random.bytes(12 * STRETCH + 345);
    const TempDir own;
    std::vector<uint64> wrong;
    std::unique_ptr<ZqStretchCache> cache;
};

/// Calls back after each write to `img.ahead`, on the thread that has written.
class WatchedWrites : public FaultOs {
public:
    WatchedWrites(const std::string& watched, std::function<void(int64 offset)> call_)
        : FaultOs(watched),
          call(std::move(call_)) {}
    int64 writeAt(int fd, const void* buffer, int64 n, int64 offset) override {
        const int64 nWritten = FaultOs::writeAt(fd, buffer, n, offset);
        if (n >= 100'000) call(offset);
        return nWritten;
    }

private:
    const std::function<void(int64 offset)> call;
};

} // namespace

TEST_F(StretchCache, keepsNoMoreThanItMay) {
    for (const uint64 idx : {2U, 3U, 5U, 7U, 8U})
        EXPECT_TRUE(keep(idx));
    EXPECT_TRUE(isThere(7) && !cache->has(8));
    EXPECT_FALSE(cache->hasRoomFor(1));
    cache->forget(2, 4);
    EXPECT_TRUE(cache->hasRoomFor(2) && !cache->hasRoomFor(3) && !cache->has(3) && cache->has(5));
    // What comes unasked is bounded, too, until somebody asks for it.
    const ZqStretchLayout large(1000 * STRETCH);
    ZqStretchCache roomy(large, 1000 * STRETCH, 0, nullptr);
    uint64 n = 0;
    for (; roomy.hasRoomFor(1) && n < 1000; ++n)
        roomy.keep(n, stretchOf(zqf, 0), nullptr, true);
    EXPECT_EQ(n, (32 << 20) / STRETCH);
    EXPECT_TRUE(roomy.noteUse(3) && !roomy.noteUse(3) && roomy.hasRoomFor(1));
}

TEST_F(StretchCache, theStreamTakesThePlaceOfWhatItHasPassed) {
    for (const uint64 idx : {3U, 5U, 6U})
        keep(idx);
    EXPECT_EQ(cache->countRun(5), 2U);
    EXPECT_EQ(cache->findRun(1, 9, 1), 3U);
    EXPECT_EQ(cache->findRun(1, 9, 2), 5U);
    EXPECT_EQ(cache->findRun(1, 5, 2), 5U);
    EXPECT_EQ(cache->findRun(1, 9, 3), 9U);
    EXPECT_FALSE(cache->takeStreamed(4, stretchOf(zqf, 4)));
    EXPECT_TRUE(!cache->has(3) && cache->has(4) && cache->has(5));
    EXPECT_TRUE(cache->takeStreamed(5, nullptr));
    EXPECT_FALSE(keep(5)) << "it came after the stream";
    // It begins once more, within stretch 3.
    cache->beginStream(3 * STRETCH + 1);
    EXPECT_FALSE(keep(3));
    EXPECT_TRUE(keep(4) && isThere(4));
}

TEST_F(StretchCache, holdsWhatTheStreamHasBroughtUntilItIsWritten) {
    const auto held = [this] {
        std::vector<uint64> all;
        for (uint64 idx = 0; idx <= 12; ++idx) {
            if (cache->findStreamed(idx)) all.push_back(idx);
        }
        return all;
    };
    const auto stream = [this](uint64 first, uint64 end) {
        for (; first < end; ++first)
            cache->takeStreamed(first, stretchOf(zqf, first));
    };
    stream(0, 6);
    EXPECT_THAT(held(), ElementsAre(2, 3, 4, 5)) << "nobody says what is written";
    cache->setWritten(0);
    stream(6, 8);
    EXPECT_THAT(held(), ElementsAre(2, 3, 4, 5, 6, 7));
    stream(8, 9);
    EXPECT_THAT(held(), ElementsAre(3, 4, 5, 6, 7, 8)) << "no more than that";
    cache->setWritten(5 * STRETCH - 1);
    EXPECT_THAT(held(), ElementsAre(4, 5, 6, 7, 8));
    cache->setWritten(zqf.size());
    EXPECT_THAT(held(), ElementsAre(5, 6, 7, 8));
    cache->dropStreamed();
    EXPECT_THAT(held(), ElementsAre());
}

TEST_F(StretchCache, comparesWhatIsKeptWithOtherChecksums) {
    const Table right = tableOf(zqf), anew = tableOf(zqf), other = tableOf(random.bytes(zqf.size()));
    keep(2);
    EXPECT_TRUE(cache->get(2, right) && cache->get(2, anew) && wrong.empty());
    EXPECT_FALSE(cache->get(2, other)) << "that another table has told it is right is of no matter";
    EXPECT_THAT(wrong, ElementsAre(2));
    EXPECT_FALSE(cache->has(2));
    // What these checksums have told when it came isn't asked again.
    cache->keep(3, stretchOf(zqf, 4), right, false);
    EXPECT_TRUE(cache->get(3, right) && cache->get(3, anew));
    EXPECT_FALSE(cache->get(3, other));
    EXPECT_THAT(wrong, ElementsAre(2, 3));
}

TEST_F(StretchCache, theNextRunHasWhatIsStored) {
    reopen({}, true);
    keep(4);
    keep(7);
    reopen({}, true);
    EXPECT_EQ(cache->getStored(), 2 * STRETCH);
    EXPECT_TRUE(isThere(4));
    std::fstream(own.path("img.ahead"), std::ios::in | std::ios::out).seekp(7 * STRETCH) << "evil";
    EXPECT_FALSE(cache->get(7, nullptr) || cache->has(7));
    cache->setWritten(zqf.size());
    EXPECT_TRUE(SxWait::pass(5000, [&] { return ZqStretchStore::sizeIn(own.prefix()) == 0; }));
}

TEST_F(StretchCache, whatIsForgottenWhileItIsStoredStaysForgotten) {
    std::atomic<int> nStored{0};
    const WatchedWrites watched(own.path(), [&](int64 offset) {
        if (offset == static_cast<int64>(7 * STRETCH)) cache->forget(7, 8);
        ++nStored;
    });
    reopen({}, true);
    keep(7);
    keep(9);
    EXPECT_TRUE(SxWait::pass(5000, [&] { return nStored == 2; }));
    reopen({}, true);
    EXPECT_TRUE(!cache->has(7) && isThere(9));
    EXPECT_EQ(cache->getStored(), STRETCH);
}

TEST_F(StretchCache, whatTheDiskHadNoRoomForIsStoredLater) {
    FaultOs full(own.path());
    reopen({}, true);
    full.failNth(FaultOs::Op::Write, 1, ENOSPC, "img.ahead", true);
    keep(7);
    EXPECT_TRUE(SxWait::pass(5000, [&] { return full.getNFailed() > 0; }));
    EXPECT_EQ(cache->getStored(), 0U) << "it is in memory alone";
    EXPECT_TRUE(isThere(7));
    full.failNth(FaultOs::Op::Write, 1, 0, "nothing");
    EXPECT_TRUE(SxWait::pass(5000, [&] { return cache->getStored() == STRETCH; }));
}
