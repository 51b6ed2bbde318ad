#include "../base/BaseTest.h"
#include "Builders.h"
#include "SxTime.h"
#include "VirtualClock.h"
#include "ZqAppParams.h"
#include "ZqFWriter.h"
#include "ZqSyncedSize.h"

namespace {

constexpr size_t TOTAL = 3'000'000;
constexpr size_t CHUNK = 50'000;

/// A download into "watched/image" that is cut off again and again.
class GrowthCrash : public testing::TestWithParam<uint64> {
protected:
    GrowthCrash() {
        ZqAppParams app;
        app.sizeZqf = TOTAL;
        app.write(folder);
        os = std::make_unique<FaultOs>(dir.path("watched"));
    }
    std::string image() const { return dir.exists(IMAGE) ? dir.read(IMAGE) : std::string(); }
    uint64 noted() const { return dir.exists(NOTE) ? std::stoull(dir.read(NOTE)) : 0; }
    /// Goes on writing until the end, or until the power fails or the writer is killed.
    void download(bool isKilled) {
        ZqFWriter writer(folder, "img.zqf");
        const std::string believed = image();
        ASSERT_TRUE(content.starts_with(believed)) << believed.size() << " bytes";
        writer.setUnpaced();
        writer.start();
        for (size_t at = believed.size(); at < TOTAL && !os->isCut() && writer.isRunning(); at += CHUNK) {
            const std::string bytes = content.substr(at, CHUNK);
            SxArray<char> chunk(static_cast<int64>(bytes.size()));
            std::copy(bytes.begin(), bytes.end(), chunk.begin());
            writer.pushChunk(at, std::move(chunk));
            SxTime::msleep(static_cast<int64>(random.below(1500)));
            if (isKilled && random.chance(0.02)) break;
        }
        // A kill has no time for a last sync.
        if (isKilled) os->failNth(Op::Sync, 1, EINTR, "", true);
        if (isKilled || os->isCut()) writer.stop();
        writer.wait();
        os->failNth(Op::Sync, 1, 0, "nothing");
    }

    static constexpr const char* IMAGE = "watched/image/img.zqf";
    static constexpr const char* NOTE = "watched/image/img.zqf.synced";
    TestRandom random{GetParam()};
    const std::string content = random.bytes(TOTAL);
    const TempDir dir;
    const SxString folder = dir.prefix() + "watched/image/";
    VirtualClock clock;
    std::unique_ptr<FaultOs> os;
};

} // namespace

TEST_P(GrowthCrash, NoByteIsBelievedThatHadntReachedTheDevice) {
    std::mt19937_64 chance(GetParam());
    size_t nCut = 0;
    for (int i = 0; image().size() < TOTAL; ++i) {
        ASSERT_LT(i, 200);
        const bool isKilled = random.chance(0.3);
        if (!isKilled) os->cutPowerAt(os->getNSteps() + 1 + static_cast<int64>(random.below(16)));
        // Power that fails in the constructor ends it.
        failureOf([&] { download(isKilled); });
        if (HasFatalFailure()) return;
        const std::string written = image();
        if (isKilled) continue;
        os->crash(&chance);
        const uint64 sure = noted();
        ZqSyncedSize(SxString(dir.path(IMAGE))).cutBack();
        EXPECT_TRUE(content.starts_with(image()));
        EXPECT_GE(image().size(), sure);
        nCut += written.size() > image().size();
    }
    EXPECT_TRUE(image() == content);
    RecordProperty("cut", static_cast<int>(nCut));
}

INSTANTIATE_TEST_SUITE_P(Seeds, GrowthCrash, testing::Range<uint64>(1, 13));
