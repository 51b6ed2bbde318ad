#include "FaultOs.h"
#include "SmallDisk.h"
#include "StreamRun.h"

#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

bool saysSoon(const Client& player, const string& words) {
    return SxWait::pass(20'000, [&] { return player.says().find(words) != string::npos; });
}

/// Whether a process still holds room of the disk by a file of that name that was removed.
bool holdsRoomOf(int64 pid, const string& name) {
    std::error_code closed; // descriptors come and go
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(pid) + "/fd", closed)) {
        struct stat info = {};
        if (fs::read_symlink(entry.path(), closed).filename() == name + " (deleted)" &&
            ::stat(entry.path().c_str(), &info) == 0 && info.st_blocks > 0) {
            return true;
        }
    }
    return false;
}

} // namespace

TEST_F(StreamRun, AFullDiskEndsNothing) {
    const SmallDisk disk(got, "128m");
    // At first the record can't be written, then the image, and at the end nothing.
    dir.write("got/stream.json", "{\"version\": 2, \"url\": \"" + server->getUrl().str() + "\"}");
    const string record = got + "/stream.json";
    // Nothing can be renamed over the root of a mount.
    ASSERT_EQ(::mount(record.c_str(), record.c_str(), nullptr, MS_BIND, nullptr), 0);
    server->setRate(1'000'000);
    hold();
    const auto player = start();
    ASSERT_TRUE(SxWait::pass(20'000, [&] { return hasStarted(); })) << player->says();
    EXPECT_TRUE(saysSoon(*player, "the application can't be noted yet")) << player->says();
    ASSERT_EQ(::umount2(record.c_str(), 0), 0);
    EXPECT_TRUE(
        eventually([&] { return dir.read("got/stream.json").find("\"application\"") != string::npos; }));
    EXPECT_THAT(dir.read("got/stream.json"), HasSubstr("\"nStarts\": 1"));
    disk.fill();
    EXPECT_TRUE(saysSoon(*player, "waiting for room on the disk")) << player->says();
    EXPECT_LT(fs::file_size(got + "/img.zqf"), fs::file_size(served + "/img.zqf"));
    server->setRate(0);
    disk.free();
    EXPECT_TRUE(SxWait::pass(20'000, [&] {
        return fs::file_size(got + "/img.zqf") == fs::file_size(served + "/img.zqf");
    })) << player->says();
    EXPECT_TRUE(SxWait::pass(20'000, [&] { return hasPlayed(); })) << player->says();
    // These files go when the image is compared; if they went later, they would make room again.
    EXPECT_TRUE(eventually([&] { return !fs::exists(got + "/img.ahead"); }));
    EXPECT_TRUE(eventually([&] { return !holdsRoomOf(player->getId(), "img.ahead"); }));
    // So would the note of the comparison, which takes the place of the one before.
    EXPECT_TRUE(eventually([&] { return dir.read("got/stream.json").find("\"verified\"") != string::npos; }));
    disk.fill();
    release();
    EXPECT_EQ(player->end(), 0);
    EXPECT_THAT(player->says(), HasSubstr("The application has ended with code 7"));
    EXPECT_THAT(player->says(), HasSubstr("got/runtime.json"));
    expectPlayed();
    expectComplete();
    // A complete image needs no more room. The disk is filled again, since the run before has removed what it
    // held beside the image.
    disk.fill();
    const auto next = start();
    EXPECT_EQ(next->end(), 0) << next->says();
    EXPECT_THAT(next->says(), HasSubstr("this run has left no trace"));
    expectPlayed();
}

TEST_F(StreamRun, ADownloadLeavesItsReserve) {
    const uint64 nTotal = fs::file_size(served + "/img.zqf");
    // The disk is too small for the image: the game plays from what fits, and memory takes what comes on
    // demand.
    const uint64 nDisk = nTotal * 3 / 4 / 4096 * 4096;
    const SmallDisk disk(got, std::to_string(nDisk));
    hold();
    server->setRate(6'000'000);
    const auto player = start();
    EXPECT_TRUE(saysSoon(*player, " MB more on the disk")) << player->says();
    EXPECT_TRUE(saysSoon(*player, "waiting for room on the disk of '" + got + "': ")) << player->says();
    EXPECT_THAT(player->says(), HasSubstr(" MB are "));
    EXPECT_TRUE(SxWait::pass(20'000, [&] { return hasPlayed(); })) << player->says();
    EXPECT_GE(fs::space(got).available, nDisk / 10 * 8 / 10) << "but for the records, a tenth stays free";
    EXPECT_LT(fs::file_size(got + "/img.zqf"), nTotal);
    // The download goes on when there is room.
    disk.grow("256m");
    EXPECT_TRUE(SxWait::pass(20'000, [&] { return fs::file_size(got + "/img.zqf") == nTotal; }))
        << player->says();
    release();
    EXPECT_EQ(player->end(), 0) << player->says();
    expectPlayed();
    expectComplete();
}

TEST_F(StreamRun, ADownloadThatLacksRoomNotesItsAddress) {
    const SmallDisk disk(got, "1m");
    const Outcome first = run({"fetch", got, "--url", server->getUrl().str()});
    EXPECT_EQ(first.code, 1);
    EXPECT_THAT(first.out + first.err,
                testing::AllOf(HasSubstr(" more on the disk of"), HasSubstr("the disk has no room for"),
                               HasSubstr("make room there, then `tavrin fetch " + got + "`")));
    disk.grow("256m");
    done({"fetch", got});
    expectComplete();
}

TEST_F(StreamRun, AFileThatMayGrowNoFurtherIsAFailureLikeAnother) {
    rlimit former = {};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &former), 0);
    const rlimit small = {2'000'000, former.rlim_max};
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    const Outcome outcome = run({"fetch", got, "--url", server->getUrl().str()});
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &former), 0);
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(outcome.out + outcome.err, HasSubstr("File too large"));
}

TEST_F(StreamRun, WhatAPowerCutMayHaveTakenIsFetchedAgain) {
    const size_t nTotal = fs::file_size(served + "/img.zqf");
    const string zqf = dir.read("served/img.zqf");
    // In the middle of the download, and after its end, where nothing was missing.
    for (const size_t nThere : {nTotal / 2 + 7, nTotal}) {
        SCOPED_TRACE(nThere);
        fs::remove_all(got);
        fs::copy(served, got);
        const size_t nSynced = nThere - 300'001;
        dir.write("got/img.zqf", zqf.substr(0, nSynced) + string(nThere - nSynced, '\0'));
        dir.write("got/img.zqf.synced", std::to_string(nSynced) + " 00000000-another-start\n");
        // A drive without a download takes only that for there.
        done({"mount", got});
        EXPECT_EQ(statusOf(got).cursor, nSynced / 4096);
        done({"umount", got});
        EXPECT_EQ(start()->end(), 0);
        expectPlayed();
        expectComplete();
    }
}

namespace {

/// A disk that takes the last bytes of `img.zqf`, and from then on none of the writer's log.
class FullAtTheEnd : public FaultOs {
public:
    FullAtTheEnd(const string& folder_, uintmax_t size_)
        : FaultOs(folder_),
          image(folder_ + "/img.zqf"),
          size(size_) {}
    int open(const string& path, unsigned flags, unsigned permissions) override {
        const int fd = FaultOs::open(path, flags, permissions);
        if (fd >= 0 && path.ends_with("write.log")) log = fd;
        return fd;
    }
    int64 writeAt(int fd, const void* buffer, int64 n, int64 offset) override {
        std::error_code none;
        const bool isFull = fd == log && fs::file_size(image, none) >= size;
        nRefused += isFull;
        return isFull ? -ENOSPC : FaultOs::writeAt(fd, buffer, n, offset);
    }
    std::atomic<int> nRefused{0};

private:
    const string image;
    const uintmax_t size;
    std::atomic<int> log{-1};
};

} // namespace

TEST_F(StreamRun, AnImageThatIsThereNeedsNoWriter) {
    fs::create_directories(got);
    FullAtTheEnd disk(got, fs::file_size(served + "/img.zqf"));
    ZqImageFeed::Settings settings = feedSettings();
    settings.isDownloadOnly = true;
    ZqImageFeed feed(settings);
    feed.open(nullptr);
    feed.start();
    feed.fetchRecords(nullptr);
    EXPECT_TRUE(SxWait::pass(20'000, [&] { return feed.isVerified() || feed.hasFailed(); }));
    EXPECT_NO_THROW(feed.requireAlive());
    EXPECT_EQ(disk.nRefused, 1);
    EXPECT_EQ(feed.getStatus().waiting, "");
    feed.stop();
    expectComplete();
}
