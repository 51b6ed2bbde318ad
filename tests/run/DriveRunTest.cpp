#include "DriveRun.h"
#include "SmallDisk.h"
#include "SxException.h"
#include "ZqDriveWire.h"
#include "ZqFileServer.h"
#include "ZqImageLock.h"
#include "ZqServiceFolder.h"
#include "zqdevctl.h"

#include <barrier>
#include <csignal>
#include <fstream>
#include <linux/fs.h>
#include <random>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// A child process of the test, killed at its end whatever happens.
class Child {
public:
    template<class Body>
    explicit Child(Body&& body) : pid(::fork()) {
        if (pid != 0) return;
        ::alarm(60);
        body();
        ::_exit(0);
    }
    ~Child() {
        if (pid > 0 && !ended) ::kill(pid, SIGKILL);
        wait();
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    void kill() const { ::kill(pid, SIGKILL); }
    bool hasEnded() {
        if (!ended) ended = ::waitpid(pid, &status, WNOHANG) == pid;
        return ended;
    }
    int wait() {
        if (!ended) ::waitpid(pid, &status, 0);
        ended = true;
        return status;
    }

private:
    pid_t pid;
    bool ended = false;
    int status = -1;
};

/// Reads one block of a file; gives 0 or an errno value.
int readAt(const string& path, off_t offset) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    char bytes[4096];
    const ssize_t n = ::pread(fd, bytes, sizeof bytes, offset);
    const int error = n < 0 ? errno : 0;
    ::close(fd);
    return error;
}

void dropCache(const string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    ::posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
    ::close(fd);
}

void write(const string& path, const string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

TreeSnapshot treeOf(const string& folder) {
    return TempDir::snapshotOf(folder);
}

class Drive : public DriveRun {
protected:
    /// Checks an ext4 volume whose journal a mount has replayed.
    void expectConsistent(const string& image) {
        mount(image, {"--mode", "rtw"});
        done({"umount", image});
        mount(image, {"--mode", "ro"});
        const fs::path volume = statusOf(image).mountPath.str();
        SxProcess check("e2fsck", {"-fn", (volume.parent_path() / "front/disk").string()}, SxProcess::Silent);
        EXPECT_EQ(check.run(), 0) << "the file system is damaged";
        done({"umount", image});
    }
};

class EachFileSystem : public Drive, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Drive, EachFileSystem, testing::Values("erofs", "ext4"),
                         [](const auto& each) { return string(each.param); });

TEST_P(EachFileSystem, readsEqualTheSourceAndNothingStays) {
    const string image = build("image", GetParam());
    const string app = mount(image + "/");
    EXPECT_EQ(treeOf(app), treeOf(source));
    fs::create_symlink(image, dir.path("link"));
    EXPECT_THAT(done({"mount", dir.path("link")}), HasSubstr("Mounted already as D:"));
    EXPECT_TRUE(fs::exists(dir.path("root/dosdevices/d:/gxprefetch.info")));
    const int64 pid = statusOf(image).servicePid;
    EXPECT_EQ(done({"umount", dir.path("link") + "/"}), "Unmounted\n");
    EXPECT_THAT(leftovers(), testing::IsEmpty());
    EXPECT_FALSE(fs::exists(fs::symlink_status(dir.path("root/dosdevices/d:"))));
    EXPECT_EQ(done({"umount", image}), "Not mounted\n");
    EXPECT_EQ(run({"status", image}).code, 1);
    EXPECT_TRUE(eventually([&] { return !isRunning(pid); })) << "the service doesn't end";
    done({"image", "verify", image});
}

TEST_P(EachFileSystem, missingBlocksAreWaitedFor) {
    const string image = build("image", GetParam());
    Feeder feeder(image);
    const string app = mount(image, {"--trace", dir.path("trace")});
    feeder.start();
    TreeSnapshot seen;
    std::thread reader([&] { seen = treeOf(app); });
    for (int i = 0; i < 40; ++i) {
        feeder.grow(20);
        SxTime::msleep(5);
    }
    reader.join();
    feeder.stop();
    EXPECT_EQ(seen, treeOf(source));
    EXPECT_TRUE(statusOf(image).monitored);
    done({"umount", image});
    EXPECT_THAT(done({"trace", "info", dir.path("trace"), "--json"}),
                AllOf(HasSubstr("\"method\": \"monitoring\""), HasSubstr("\"matches\": true")));
    const auto size = fs::file_size(dir.path("trace/img.trc"));
    EXPECT_EQ(size % 16, 0);
    fs::resize_file(dir.path("trace/img.trc"), size - 16);
    EXPECT_THAT(done({"trace", "info", dir.path("trace"), "--json"}), HasSubstr("\"matches\": false"));
}

TEST_P(EachFileSystem, heldReadsLetOthersThroughAndTheirReadersCanBeKilled) {
    const string image = build("image", GetParam());
    Feeder feeder(image);
    const string app = mount(image);
    const int nReaders = string(GetParam()) == "erofs" ? 200 : 100;
    std::vector<std::unique_ptr<Child>> readers;
    for (int i = 0; i < nReaders; ++i) {
        readers.push_back(std::make_unique<Child>([&, i] { readAt(app + "/big.pak", off_t{i} * 81'920); }));
    }
    EXPECT_TRUE(eventually([&] { return statusOf(image).nHeld >= static_cast<uint64>(nReaders) - 5; }))
        << statusOf(image).nHeld;
    // What is present is read again from the drive, not from the kernel's cache.
    dropCache(app + "/../../gxprefetch.info");
    EXPECT_EQ(readAt(app + "/../../gxprefetch.info", 0), 0);
    for (const auto& reader : readers)
        reader->kill();
    EXPECT_TRUE(eventually([&] {
        return std::all_of(readers.begin(), readers.end(),
                           [](const auto& reader) { return reader->hasEnded(); });
    })) << "readers can't be killed";
    done({"umount", image});
}

TEST_P(EachFileSystem, aKilledServiceLeavesErrorsAndIsTidiedUpAfter) {
    const string image = build("image", GetParam());
    string app;
    for (const bool umountFirst : {true, false}) {
        Feeder* feeder = nullptr;
        const auto full = std::make_unique<TempDir>();
        fs::copy_file(image + "/img.zqf", full->path("img.zqf"));
        Feeder partial(image);
        feeder = &partial;
        app = mount(image);
        Child held([&] { ::_exit(readAt(app + "/big.pak", 8 << 20) == EIO ? 0 : 1); });
        EXPECT_TRUE(eventually([&] { return statusOf(image).nHeld > 0; }));
        const int64 pid = statusOf(image).servicePid;
        ::kill(static_cast<pid_t>(pid), SIGKILL);
        EXPECT_TRUE(eventually([&] { return held.hasEnded(); }));
        EXPECT_EQ(held.wait(), 0) << "the reader got no I/O error";
        EXPECT_EQ(readAt(app + "/maps/one.map", 1 << 20), EIO);
        EXPECT_EQ(feeder->nPresent(), fs::file_size(image + "/img.zqf") / 4096);
        fs::copy_file(full->path("img.zqf"), image + "/img.zqf", fs::copy_options::overwrite_existing);
        if (umountFirst) {
            // As a service leaves it that is killed while it writes a file.
            write(fs::path(app).parent_path().parent_path().parent_path() / "identity.tmp", "");
            EXPECT_THAT(done({"status"}), HasSubstr("to remove it: tavrin umount " + image));
            EXPECT_THAT(run({"status", image}).err, HasSubstr("is not mounted"));
            const Outcome ended = run({"umount", image});
            EXPECT_THAT(ended.out + ended.err, HasSubstr("left behind"));
            // What programs wrote to a drive that can be written to isn't known.
            EXPECT_EQ(ended.code, GetParam() == string("ext4") ? 1 : 0);
            EXPECT_EQ(done({"status"}), "Nothing is mounted\n");
            EXPECT_THAT(leftovers(), testing::IsEmpty());
        }
        app = mount(image);
        EXPECT_EQ(treeOf(app), treeOf(source));
        done({"umount", image});
    }
}

TEST_P(EachFileSystem, umountEndsWhateverTheDriveIsBusyWith) {
    const string image = build("image", GetParam());
    const Feeder feeder(image);
    struct Case {
        const char* name;
        std::function<void(const string& app)> use; ///< in a child, which then stays
        bool busy;
    };
    const std::vector<Case> cases = {
        {"held reads", [](const string& app) { readAt(app + "/big.pak", 9 << 20); }, false},
        {"an open file",
         [](const string& app) {
             const int fd = ::open((app + "/big.pak").c_str(), O_RDONLY);
             ::pause();
             ::close(fd);
         },
         true},
        {"a working folder",
         [](const string& app) {
             if (::chdir((app + "/textures").c_str()) == 0) ::pause();
         },
         true}};
    for (const Case& each : cases) {
        for (const auto& [suspended, hard] : {std::pair{false, false}, {true, false}, {false, true}}) {
            SCOPED_TRACE(each.name + string(suspended ? ", suspended" : "") + (hard ? ", hard" : ""));
            const string app = mount(image);
            Child user([&] { each.use(app); });
            SxTime::msleep(100);
            if (suspended) ZqMountMgr().suspend(SxString(image));
            const Outcome outcome = run({"umount", image, hard ? "--hard" : "--quiet"});
            EXPECT_EQ(outcome.code, 0) << outcome.err;
            if (each.busy) {
                EXPECT_THAT(outcome.out, HasSubstr("was in use"));
            }
            EXPECT_THAT(leftovers(), testing::IsEmpty());
        }
    }
}

TEST_P(EachFileSystem, aServiceKilledInTheMiddleLeavesNothingStuck) {
    const string image = build("image", GetParam());
    const std::vector<std::vector<string>> verbs = {{"mount", image, "--quiet"},
                                                    {"umount", image, "--quiet"}};
    TestRandom random(11);
    TRACE_SEED(random);
    for (int round = 0; round < 24; ++round) {
        const std::vector<string>& words = verbs[static_cast<size_t>(round) % 2];
        SCOPED_TRACE(words[0]);
        if (words[0] == "umount") mount(image);
        Child verb([&] { ::_exit(run(words).code); });
        SxTime::msleep(static_cast<int64>(random.below(120)));
        for (const pid_t pid : processesOf(false))
            ::kill(pid, SIGKILL);
        EXPECT_TRUE(eventually([&] { return verb.hasEnded(); })) << "the client hangs";
        EXPECT_TRUE(eventually([&] { return processesOf(true).empty(); })) << "a helper hangs";
        const Outcome ended = run({"umount", image});
        if (ended.code != 0 || GetParam() == string("erofs")) {
            EXPECT_EQ(ended.code, GetParam() == string("ext4") ? 1 : 0) << ended.err;
            EXPECT_THAT(ended.err, HasSubstr(ended.code != 0 ? "may be lost" : ""));
        }
        EXPECT_THAT(leftovers(), testing::IsEmpty());
    }
    EXPECT_EQ(treeOf(mount(image)), treeOf(source));
}

TEST_F(Drive, syncedWritesOutliveAKilledService) {
    const string image = build("image", "ext4");
    const uint64 digest = std::hash<string>()(TempDir::readFile(image + "/img.zqf"));
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE(round);
        const string app = mount(image, {"--mode", "rtw"});
        for (int i = 0; i < round; ++i)
            EXPECT_EQ(TempDir::readFile(app + "/save" + std::to_string(i)),
                      string(100'000, static_cast<char>('a' + i)));
        const string file = app + "/save" + std::to_string(round);
        write(file, string(100'000, static_cast<char>('a' + round)));
        const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
        ASSERT_EQ(::fsync(fd), 0);
        ::close(fd);
        // What is being written when the service is killed may be lost, and does no harm.
        Child writer([&] {
            for (int i = 0;; ++i)
                write(app + "/other" + std::to_string(i % 50), string(50'000, 'x'));
        });
        SxTime::msleep(20 + 37 * round);
        ::kill(static_cast<pid_t>(statusOf(image).servicePid), SIGKILL);
        writer.kill();
        writer.wait();
        expectConsistent(image);
    }
    mount(image, {"--mode", "rtw"});
    EXPECT_EQ(std::hash<string>()(TempDir::readFile(image + "/img.zqf")), digest);
    ZqMountMgr().flushTW(SxString(image));
    EXPECT_NE(std::hash<string>()(TempDir::readFile(image + "/img.zqf")), digest);
    done({"umount", image});
}

TEST_F(Drive, aWrittenDriveTakesManyFilesAndGivesTheirRoomBack) {
    if (::geteuid() != 0) GTEST_SKIP() << "only root may have unused room discarded";
    const string image = build("image", "ext4", {"--free", "50000000"});
    const string app = mount(image, {"--mode", "rtw"});
    const auto allocated = [&] {
        struct stat info = {};
        EXPECT_EQ(::stat((image + "/img.tmp").c_str(), &info), 0);
        return static_cast<uint64>(info.st_blocks) * 512;
    };
    std::filesystem::create_directory(app + "/many");
    for (int i = 0; i < 3000; ++i)
        write(app + "/many/" + std::to_string(i), string(8192, 'x'));
    const int fd = ::open(app.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    ASSERT_EQ(::syncfs(fd), 0);
    EXPECT_GE(allocated(), 3000U * 8192);
    std::filesystem::remove_all(app + "/many");
    write(app + "/stays", string(100'000, 's'));
    ASSERT_EQ(::syncfs(fd), 0);
    fstrim_range all = {0, ~0ULL, 0};
    EXPECT_EQ(::ioctl(fd, FITRIM, &all), 0);
    ASSERT_EQ(::syncfs(fd), 0);
    ::close(fd);
    // The room goes back a little at a time, and no sync waits for it.
    EXPECT_TRUE(SxWait::pass(20'000, [&] { return allocated() <= 5'000'000U; })) << allocated();
    ::kill(static_cast<pid_t>(statusOf(image).servicePid), SIGKILL);
    expectConsistent(image);
    const string again = mount(image, {"--mode", "rtw"});
    EXPECT_EQ(TempDir::readFile(again + "/stays"), string(100'000, 's'));
    EXPECT_FALSE(std::filesystem::exists(again + "/many"));
    done({"umount", image});
}

TEST_F(Drive, twoImagesDontKnowOfEachOtherAndOneHasOneHolder) {
    const string first = build("first", "erofs"), second = build("second", "ext4");
    const string one = mount(first), two = mount(second);
    EXPECT_NE(one, two);
    EXPECT_EQ(treeOf(two), treeOf(one));
    useRoot("other");
    const Outcome refused = run({"mount", first});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, HasSubstr("is in use by process " + std::to_string(statusOf(first).servicePid)));
    EXPECT_EQ(done({"status"}), "Nothing is mounted\n");
    useRoot("root");
    EXPECT_THAT(run({"image", "split", first, "--part-size", "100000"}).err,
                HasSubstr("is in use by process"));
    done({"umount", first});
    EXPECT_EQ(treeOf(two), treeOf(source));
    done({"umount", second});
}

TEST_F(Drive, anEndingServiceLosesNoRequest) {
    constexpr int N_ROUNDS = 1000;
    ::setenv("TAVRIN_ZQDD_IDLE_MS", "5", 1);
    const string socket = ZqServiceFolder::of(ZqMachineRoot::get().str()) + ZqServiceFolder::SOCKET;
    TestRandom random(5);
    TRACE_SEED(random);
    std::atomic<int> nFailed{0}, nEnded{0};
    // In each round both clients come at about the time when the service ends.
    std::barrier round(2);
    std::vector<std::thread> clients;
    for (int i = 0; i < 2; ++i) {
        clients.emplace_back([&, i, seed = random.below(1000)] {
            std::mt19937_64 own(seed);
            for (int n = 0; n < N_ROUNDS; ++n) {
                SxTime::msleep(static_cast<int64>(5 + own() % 8));
                nEnded += i == 0 && !fs::exists(socket);
                if (!ZqMountMgr::drivePing()) ++nFailed;
                round.arrive_and_wait();
            }
        });
    }
    for (std::thread& each : clients)
        each.join();
    EXPECT_EQ(nFailed, 0);
    EXPECT_GT(nEnded, N_ROUNDS / 4) << "the services hardly ever ended";
}

TEST_F(Drive, aChangedDriveLetterDoesntKeepADrive) {
    const string image = build("image", "ext4");
    const fs::path letter = dir.path("root/dosdevices/d:");
    const string says = "The drive letter D: had been changed or removed; it is left as it is\nUnmounted\n";
    for (const bool isChanged : {false, true}) {
        write(mount(image) + "/saved", "yes");
        fs::remove(letter);
        if (isChanged) fs::create_directory_symlink(source, letter);
        EXPECT_EQ(done({"umount", image}), says);
        EXPECT_THAT(leftovers(), testing::IsEmpty());
    }
    EXPECT_EQ(fs::read_symlink(letter), source);
    EXPECT_EQ(TempDir::readFile(mount(image) + "/saved"), "yes");
    EXPECT_EQ(statusOf(image).drive, "E:");
    done({"umount", image});
}

TEST_F(Drive, anImageInThePlaceOfAMountedOneIsAnother) {
    const string image = build("image", "erofs");
    mount(image);
    fs::remove_all(image);
    EXPECT_TRUE(eventually([&] { return statusOf(image).replaced; }));
    EXPECT_THAT(done({"status", image}), HasSubstr("was removed or replaced since"));
    build("image", "ext4");
    EXPECT_THAT(run({"mount", image}).err, HasSubstr("take that away first, with: tavrin umount " + image));
    done({"umount", image});
    EXPECT_EQ(treeOf(mount(image)), treeOf(source));
    done({"umount", image});
}

TEST_F(Drive, aKilledClientLeavesADriveThatCanBeSeenAndRemoved) {
    const string image = build("image", "erofs");
    for (int delay = 0; delay < 200; delay += 20) {
        SCOPED_TRACE(delay);
        Child mounting(
            [&] { ::execl(client.c_str(), "tavrin", "mount", image.c_str(), "--quiet", nullptr); });
        SxTime::msleep(delay);
        mounting.kill();
        mounting.wait();
        const Outcome status = run({"status", image, "--json"});
        EXPECT_TRUE(status.code == 0 || status.err.find("is not mounted") != string::npos) << status.err;
        // What the killed mount has left half made isn't taken for a drive to play from.
        done({"mount", image, "--quiet"});
        EXPECT_TRUE(statusOf(image).ready);
        done({"umount", image});
        EXPECT_THAT(leftovers(), testing::IsEmpty());
    }
}

TEST_F(Drive, aStoppedServiceIsNotTakenForOneThatIsGone) {
    const string image = build("image", "erofs");
    mount(image);
    const int64 pid = statusOf(image).servicePid;
    ::kill(static_cast<pid_t>(pid), SIGSTOP);
    const int64 beginNs = SxClock::get().steadyNs();
    Child all([&] { ::execl(client.c_str(), "tavrin", "status", "--quiet", nullptr); });
    const string says = "The drive service (process " + std::to_string(pid) + ") doesn't answer";
    EXPECT_THAT(run({"status", image}).err, HasSubstr(says));
    EXPECT_EQ(WEXITSTATUS(all.wait()), 1);
    EXPECT_LT(SxClock::get().steadyNs() - beginNs, 8'000'000'000) << "of which 3 s are the limit";
    ::kill(static_cast<pid_t>(pid), SIGCONT);
    EXPECT_EQ(done({"umount", image}), "Unmounted\n");
}

TEST_F(Drive, severalClientsMountAnImageOnce) {
    const string image = build("image", "erofs");
    std::vector<std::unique_ptr<Child>> clients;
    for (int i = 0; i < 4; ++i) {
        clients.push_back(std::make_unique<Child>(
            [&] { ::execl(client.c_str(), "tavrin", "mount", image.c_str(), "--quiet", nullptr); }));
    }
    for (const auto& each : clients)
        EXPECT_EQ(each->wait(), 0);
    EXPECT_EQ(treeOf(dir.path("root/dosdevices/d:/TAVRIN-protected/app")), treeOf(source));
    done({"umount", image});
    // Of two clients that unmount at once the second one finds the drive gone in the middle of its unmount.
    EXPECT_NO_THROW(ZqVolume::ejectMedia("D:"));
}

TEST_F(Drive, aNameThatSaysSomethingElseMisleadsNobody) {
    const string image = build("is mounted already", "erofs");
    write(image + "/img.idx.md5", "wrong");
    EXPECT_THAT(run({"mount", image}).err, HasSubstr("Corrupt mapping information detected"));
}

TEST_F(Drive, whatAFullDiskCantKeepIsToldOf) {
    const string image = build("image", "ext4");
    const string disk = dir.path("disk");
    const SmallDisk small(disk, "32m");
    fs::copy(image, disk + "/image");
    const string app = mount(disk + "/image");
    write(app + "/large", string(12 << 20, 'x'));
    const Outcome outcome = run({"umount", disk + "/image"});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(outcome.err, HasSubstr("is lost: No space left on device"));
    EXPECT_THAT(leftovers(), testing::IsEmpty());
}

TEST_F(Drive, oneThatWasOnlyReadIsUnmountedOnAFullDisk) {
    const string disk = dir.path("disk"), image = disk + "/image";
    const SmallDisk small(disk, "32m");
    fs::copy(build("built", "ext4"), image);
    for (const char* mode : {"ro", "rtw", "rw"}) {
        SCOPED_TRACE(mode);
        EXPECT_EQ(treeOf(mount(image, {"--mode", mode})), treeOf(source));
        small.fill();
        EXPECT_EQ(run({"umount", image}).code, 0);
        small.free();
    }
}

TEST_F(Drive, oneThatWroteMoreThanItsDiskTakesIsRefusedUntilItIsTakenAway) {
    const string disk = dir.path("disk"), image = disk + "/image";
    const SmallDisk small(disk, "32m");
    fs::copy(build("built", "ext4"), image);
    const string app = mount(image, {"--mode", "rtw"});
    write(app + "/large", string(12 << 20, 'x'));
    const int fd = ::open(app.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    EXPECT_NE(::syncfs(fd), 0);
    ::close(fd);
    const Outcome refused = run({"mount", image});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, testing::AllOf(HasSubstr("has failed: "), HasSubstr("No space left on device"),
                                            HasSubstr("take it away, with: tavrin umount " + image)));
    const Outcome ended = run({"umount", image});
    EXPECT_EQ(ended.code, 1);
    EXPECT_THAT(ended.err, HasSubstr("is lost: No space left on device"));
}

TEST_F(Drive, whatProgramsHaveWrittenIntoAnImageIsNotPutRight) {
    const string served = build("served", "ext4"), image = dir.path("image");
    done({"image", "pack", served});
    fs::copy(served, image);
    {
        const auto repair =
            ZqImageLock::take(SxString(image), ZqImageLock::Blocks, ZqImageLock::Exclusive, "fetch");
        EXPECT_THAT(run({"mount", image, "--mode", "rw"}).err, HasSubstr("(fetch)"));
        done({"mount", image, "--mode", "rtw"});
        done({"umount", image});
    }
    write(mount(image, {"--mode", "rw"}) + "/save", "what was played");
    EXPECT_THROW(ZqImageLock::take(SxString(image), ZqImageLock::Blocks, ZqImageLock::Exclusive, "fetch"),
                 SxException);
    done({"umount", image});
    ZqFileServer server{served};
    server.start();
    done({"fetch", image, "--url", server.getUrl().str()});
    std::ifstream save(mount(image) + "/save");
    EXPECT_EQ(string(std::istreambuf_iterator<char>(save), {}), "what was played");
}

TEST_F(Drive, aReplacementThatWasCutOffIsBroughtToItsEnd) {
    const string image = build("image", "erofs");
    fs::create_directory(image + "/image.new");
    fs::rename(image + "/app.json", image + "/image.new/app.json");
    write(image + "/image.new/ready", "");
    EXPECT_EQ(treeOf(mount(image)), treeOf(source));
    EXPECT_FALSE(fs::exists(image + "/image.new"));
}

TEST_F(Drive, aClientOfAnotherVersionIsToldSo) {
    mount(build("image", "erofs"));
    const string path = ZqServiceFolder::of(ZqMachineRoot::get().str()) + ZqServiceFolder::SOCKET;
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = {AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    using ZqDriveWire::Call;
    for (const auto& [call, isServed] :
         {std::pair{Call::Ping, true}, {Call::Version, false}, {Call::Progress, true}, {Call::Ping, true}}) {
        const auto kind = static_cast<char>(call);
        const string body = call == Call::Progress ? string(12, '\0') : string(); // no image, no device
        const string message =
            string{static_cast<char>(body.size()), 0, 0, 0, kind, 0, 99, 0} + body; // length, kind, version
        ASSERT_EQ(::send(fd, message.data(), message.size(), 0), static_cast<ssize_t>(message.size()));
        const auto answer = ZqDriveWire::receive(fd);
        ASSERT_TRUE(answer) << "it is cut off";
        EXPECT_EQ(answer->kind == ZqDriveWire::SUCCESS, isServed);
        if (!isServed) {
            EXPECT_THAT(answer->body, HasSubstr("is of another version than this program"));
        }
    }
    ::close(fd);
}

TEST_F(Drive, aDamagedRecordDoesntKeepADrive) {
    const string image = build("image", "erofs");
    mount(image);
    dir.write("image/app.json", "{");
    EXPECT_THAT(done({"umount", image}), HasSubstr("taken back without the record"));
    EXPECT_THAT(leftovers(), testing::IsEmpty());
    EXPECT_EQ(run({"mount", image, "--trace", source}).code, 1);
    EXPECT_TRUE(fs::exists(source + "/big.pak"));
}

} // namespace

TEST_F(Drive, theControlLibraryTellsWhatAStatusTells) {
    const string image = build("image", "ext4");
    mount(image, {"--mode", "rtw"});
    const ZqDiskStatus status = statusOf(image);
    const SxArray<unsigned short> key = SxString(image).utf16();
    const auto flagOf = [&](ZqStatus (*ask)(ZqWide, ZqFlag*)) {
        ZqFlag flag = 2;
        EXPECT_EQ(ask(key.data(), &flag), 0);
        return flag == 1;
    };
    const auto numberOf = [&](ZqStatus (*ask)(ZqWide, uint64*)) {
        uint64 number = ~uint64{0};
        EXPECT_EQ(ask(key.data(), &number), 0);
        return number;
    };
    EXPECT_TRUE(flagOf(zqDriveIsMounted));
    EXPECT_FALSE(flagOf(zqDriveIsSuspended) || flagOf(zqDriveIsUnderflow) || flagOf(zqDriveIsMonitored));
    EXPECT_EQ(zqDriveSuspend(key.data()), 0);
    EXPECT_TRUE(flagOf(zqDriveIsSuspended));
    EXPECT_EQ(zqDriveResume(key.data()), 0);
    EXPECT_EQ(numberOf(zqDriveGetDeviceID), status.deviceId);
    EXPECT_EQ(numberOf(zqDriveGetSectorSize), status.sectorSize);
    EXPECT_EQ(numberOf(zqDriveGetCursor), status.cursor);
    EXPECT_EQ(numberOf(zqDriveGetOnDemandQueueLen), 0U);
    done({"umount", image});
    ZqFlag flag = 1;
    EXPECT_TRUE(zqDriveIsMounted(key.data(), &flag) == 0 && flag == 0);
}
