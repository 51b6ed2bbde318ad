#include "FuseFront.h"
#include "DriveImage.h"
#include "SxTime.h"

#include <atomic>
#include <cstdlib>
#include <fcntl.h>
#include <future>
#include <unistd.h>

namespace {

constexpr uint64 BLOCK = DriveImage::BLOCK;

/// Lets what reads or syncs a file run out of memory, once it is told to.
class ScarceOs : public FaultOs {
public:
    using FaultOs::FaultOs;
    int64 readAt(int fd, void* buffer, int64 n, int64 offset) override {
        take(&nReads);
        return FaultOs::readAt(fd, buffer, n, offset);
    }
    int64 readCachedAt(int fd, void* buffer, int64 n, int64 offset) override {
        take(&nReads);
        return FaultOs::readCachedAt(fd, buffer, n, offset);
    }
    int64 writeAt(int fd, const void* buffer, int64 n, int64 offset) override {
        take(&nWrites);
        return FaultOs::writeAt(fd, buffer, n, offset);
    }
    int sync(int fd) override {
        take(&nSyncs);
        return FaultOs::sync(fd);
    }

    std::atomic<int> nReads{0}, nWrites{0}, nSyncs{0}; ///< that are to fail

private:
    static void take(std::atomic<int>* n) {
        if (n->load() > 0 && n->fetch_sub(1) > 0) throw std::bad_alloc();
    }
};

/// A disk that is served as a file, with all of its blocks stored and none present.
class FuseFrontTest : public testing::Test {
protected:
    void SetUp() override {
        const int fuse = ::open("/dev/fuse", O_RDWR | O_CLOEXEC);
        if (fuse < 0 || ::geteuid() != 0) GTEST_SKIP() << "mounting needs root and /dev/fuse";
        ::close(fuse);
        std::filesystem::create_directories(at.path("mnt"));
        image.put(0, image.nZqf, false);
        front.mount(at.path("mnt"), "tavrin-test");
        fd = ::open(at.path("mnt/disk").c_str(), O_RDWR | O_CLOEXEC);
        ASSERT_GE(fd, 0);
    }
    void TearDown() override {
        if (fd >= 0) ::close(fd);
        front.end();
    }
    /// What `operation` gives: 0 or an errno value. One that isn't answered is ended.
    std::future<int> begin(std::function<int64()> operation) {
        return std::async(std::launch::async, [operation] { return operation() < 0 ? errno : 0; });
    }
    std::future<int> beginRead(std::string* to) {
        to->assign(BLOCK, '?');
        return begin([this, to] { return ::pread(fd, to->data(), BLOCK, 0); });
    }
    int end(std::future<int> operation) {
        if (operation.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
            ADD_FAILURE() << "not answered";
            front.abort();
        }
        return operation.get();
    }

    TestRandom random{17};
    const TempDir at;
    DriveImage image{random, 32, 1.0};
    ScarceOs os{image.prefix.str()};
    VirtualDisk disk{image.config(Mode::Rtw, 0), [this](uint64 token) { front.wake(token); }};
    FuseFront front{&disk};
    int fd = -1;
};

} // namespace

TEST_F(FuseFrontTest, whatFindsNoMemoryIsAnsweredAndTheNextIsServed) {
    std::string block;
    std::future<int> held = beginRead(&block);
    ASSERT_TRUE(SxWait::pass(10'000, [this] { return disk.nHeld() == 1; }));
    os.nReads = 1;
    disk.setCursor(image.nZqf);
    EXPECT_EQ(end(std::move(held)), ENOMEM) << "a held read";
    os.nReads = 1;
    EXPECT_EQ(end(beginRead(&block)), ENOMEM) << "a read";
    EXPECT_EQ(front.getWriteError(), 0) << "nothing was written";
    const std::string written(BLOCK, 'w');
    const auto write = [&] { return ::pwrite(fd, written.data(), BLOCK, 0); };
    os.nWrites = 1;
    EXPECT_EQ(end(begin(write)), ENOMEM) << "a write";
    EXPECT_EQ(front.getWriteError(), ENOMEM);
    EXPECT_EQ(end(begin(write)), 0);
    os.nSyncs = 1;
    EXPECT_EQ(end(begin([this] { return ::fsync(fd); })), ENOMEM) << "a sync";

    EXPECT_EQ(end(begin([this] { return ::fsync(fd); })), 0);
    EXPECT_GT(std::filesystem::file_size((image.prefix + "img.tix").str()), 32U) << "no more than a header";
    EXPECT_EQ(end(beginRead(&block)), 0);
    EXPECT_TRUE(block == written);
    // All threads still serve: one that has ended would leave its share unanswered.
    disk.suspend();
    std::string others[4];
    std::vector<std::future<int>> reads;
    for (std::string& other : others)
        reads.push_back(beginRead(&other));
    EXPECT_TRUE(SxWait::pass(10'000, [this] { return disk.nHeld() == 4; }));
    disk.resume();
    for (std::future<int>& read : reads)
        EXPECT_EQ(end(std::move(read)), 0);
}
