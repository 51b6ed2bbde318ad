#include "DriveFile.h"
#include "FaultOs.h"
#include "SxClock.h"
#include "SxTime.h"
#include "TempDir.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <thread>

namespace {

/// The machine's clock, set forward by the test.
class LaterClock : public SxClock {
public:
    LaterClock() { SxClock::set(this); }
    ~LaterClock() override { SxClock::set(&machine); }
    LaterClock(const LaterClock&) = delete;
    LaterClock& operator=(const LaterClock&) = delete;
    int64 systemMs() override { return machine.systemMs() + aheadMs; }
    int64 steadyNs() override { return machine.steadyNs() + aheadMs * 1'000'000; }
    void sleepNs(int64 ns) override { machine.sleepNs(ns); }
    void advanceMs(int64 ms) { aheadMs += ms; }

private:
    SxClock& machine = SxClock::get();
    std::atomic<int64> aheadMs{0};
};

/// A disk whose sync waits until it is let go, and whose figures are a file of the test.
class BusyDiskOs : public FaultOs {
public:
    explicit BusyDiskOs(const TempDir& dir_) : FaultOs(dir_.prefix().str()), dir(dir_) {}
    int open(const std::string& path, unsigned flags, unsigned permissions) override {
        return FaultOs::open(path == figuresOf() ? dir.path("figures") : path, flags, permissions);
    }
    int sync(int fd) override {
        isSyncing = true;
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return isLetGo; });
        return FaultOs::sync(fd);
    }
    /// Waits, too: a file system may have to ask its server, which is as stuck as the sync is.
    int statFd(int fd, SxStat* info) override {
        std::unique_lock lock(mutex);
        changed.wait(lock, [this] { return isLetGo || !answersNothing; });
        return FaultOs::statFd(fd, info);
    }
    void letGo() {
        const std::lock_guard lock(mutex);
        isLetGo = true;
        changed.notify_all();
    }
    /// What any program has written, in KiB.
    void setWritten(int n) { dir.write("figures", "9 8 7 6 5 4 " + std::to_string(2 * n) + " 3 2 1 0\n"); }

    std::atomic<bool> isSyncing{false}, answersNothing{false};

private:
    std::string figuresOf() const {
        struct stat info = {};
        ::stat(dir.prefix().ascii(), &info);
        return "/sys/dev/block/" + std::to_string(major(info.st_dev)) + ":" +
               std::to_string(minor(info.st_dev)) + "/stat";
    }

    const TempDir& dir;
    std::mutex mutex;
    std::condition_variable changed;
    bool isLetGo = false;
};

} // namespace

TEST(DriveFile, aSyncThatWaitsForOtherProgramsDataGoesOn) {
    LaterClock clock;
    const TempDir dir;
    BusyDiskOs os(dir);
    os.setWritten(100'000);
    DriveFile file;
    file.open(dir.path("file"), SxOs::Read | SxOs::Write | SxOs::Create);
    ASSERT_EQ(file.writeAt("data", 4, 0), 0);
    os.setWritten(200'000);
    EXPECT_EQ(file.getProgress(), file.getProgress()) << "nothing of ours is under way";
    std::thread syncing([&] { EXPECT_EQ(file.sync(), 0); });
    EXPECT_TRUE(SxWait::pass(10'000, [&] { return os.isSyncing.load(); }));
    uint64 before = file.getProgress();
    EXPECT_EQ(file.getProgress(), before) << "the disk stands still";
    os.setWritten(200'900);
    EXPECT_EQ(file.getProgress(), before) << "what any system writes now and then is no copy";
    for (const int nWritten : {201'024, 300'000}) {
        os.setWritten(nWritten);
        const uint64 now = file.getProgress();
        EXPECT_GT(now, before);
        EXPECT_EQ(file.getProgress(), now);
        before = now;
    }
    clock.advanceMs(601'000);
    os.setWritten(400'000);
    EXPECT_EQ(file.getProgress(), before) << "ten minutes are enough for theirs";
    std::filesystem::remove(dir.path("figures")); // a file system without a device of its own
    EXPECT_EQ(file.getProgress(), before);
    os.letGo();
    syncing.join();
    before = file.getProgress();
    os.setWritten(500'000);
    EXPECT_EQ(file.getProgress(), before) << "the rest is no sync of ours";
}

TEST(DriveFile, aDiskThatAnswersNothingHoldsUpNobodyWhoAsksForItsProgress) {
    const TempDir dir;
    BusyDiskOs os(dir);
    os.setWritten(100'000);
    DriveFile file;
    file.open(dir.path("file"), SxOs::Read | SxOs::Write | SxOs::Create);
    std::thread syncing([&] { EXPECT_EQ(file.sync(), 0); });
    EXPECT_TRUE(SxWait::pass(10'000, [&] { return os.isSyncing.load(); }));
    os.answersNothing = true;
    std::atomic<bool> hasSeen{false};
    std::thread asking([&] {
        file.getProgress();
        hasSeen = true;
    });
    EXPECT_TRUE(SxWait::pass(5'000, [&] { return hasSeen.load(); }));
    os.letGo();
    asking.join();
    syncing.join();
}
