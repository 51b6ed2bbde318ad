#include "FaultOs.h"
#include "SxLatch.h"
#include "TempDir.h"
#include "VirtualClock.h"
#include "ZqGameOutput.h"
#include "ZqLog.h"
#include "ZqOutputKeeper.h"
#include "ZqRunNotes.h"

#include <gmock/gmock.h>
#include <unistd.h>

namespace {

constexpr int64 TIME = 1'795'782'901'000;

/// A disk that answers no sync of a file until it is told to.
class StuckDisk : public testing::Test {
protected:
    void SetUp() override {
        os.setHook([this](int64, FaultOs::Op op, const std::string& path) {
            if (op != FaultOs::Op::Sync || path.find("/runs/") == std::string::npos) return;
            clock.waitBegins();
            while (!goesOn.isSetWithin(1000))
                continue;
            clock.waitEnds();
            isGoing.set();
        });
    }
    /// The disk answers again. The clock knows of the thread that was stuck when this returns.
    void letGo() {
        goesOn.set();
        ASSERT_TRUE(isGoing.isSetWithin(10'000));
    }

    TempDir dir{TempDir::inMemory()};
    FaultOs os{dir.path()};
    VirtualClock clock;
    SxLatch goesOn, isGoing;
};

} // namespace

TEST_F(StuckDisk, TheOutputHoldsUpNoEnd) {
    const auto output = std::make_shared<ZqGameOutput>(SxString(dir.path()), false);
    output->begin(TIME);
    std::string said(5 << 20, 'x');
    said += "\nlast\n";
    ASSERT_EQ(::write(output->getFd(), said.data(), said.size()), static_cast<ssize_t>(said.size()));
    ZqOutputKeeper keeper(output);
    EXPECT_TRUE(keeper.finish().isEmpty()) << "of an application that runs";
    keeper.letGo();
    EXPECT_TRUE(keeper.finish().isEmpty());
    EXPECT_GE(clock.elapsedMs(), ZqOutputKeeper::LIMIT_MS);
    letGo();
    ASSERT_FALSE(keeper.finish().isEmpty());
    EXPECT_EQ(keeper.finish().last(), "last");
    EXPECT_EQ(std::filesystem::file_size(output->getFile().str()) >> 20, 4u);
}

TEST_F(StuckDisk, ARecordHoldsUpNoEndAndALateOneIsNotTheLast) {
    SxList<SxException> failures;
    ZqRunRecord record;
    record.info.time0 = TIME;
    record.info.id = "01234567-0000-4000-8000-000000000000";
    {
        ZqRunNotes notes{SxString(dir.path())};
        notes.note(record);
        EXPECT_FALSE(notes.isDue());
        notes.finish(&record);
        EXPECT_GE(clock.elapsedMs(), ZqRunNotes::LIMIT_MS);
        letGo();
        record.write(SxString(dir.path()));
        EXPECT_TRUE(notes.hasComeLate(&record));
        record.rewrite();
    }
    const SxList<ZqRunRecord> records = ZqRunRecord::readLast(SxString(dir.path()), 9, &failures);
    EXPECT_TRUE(failures.isEmpty());
    ASSERT_EQ(records.getSize(), 1) << "one file";
    EXPECT_EQ(records.first().asOfMs, 0);
}
