#include "DriveRun.h"
#include "SmallDisk.h"

#include <csignal>
#include <fstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

// An image on a real drive becomes a plain installation.

namespace {

/// What a copy keeps beside bytes: mode, time of change and number of names of each thing in a folder.
std::map<string, std::tuple<mode_t, int64, nlink_t>> marksOf(const string& folder) {
    std::map<string, std::tuple<mode_t, int64, nlink_t>> marks;
    for (const auto& entry : fs::recursive_directory_iterator(folder)) {
        struct stat info {};
        EXPECT_EQ(::lstat(entry.path().c_str(), &info), 0);
        const int64 time = info.st_mtim.tv_sec * 1'000'000'000 + info.st_mtim.tv_nsec;
        const bool isFile = S_ISREG(info.st_mode);
        const mode_t setId = S_ISUID | S_ISGID;
        marks[entry.path().lexically_relative(folder)] = {info.st_mode & ~setId, time,
                                                          isFile ? info.st_nlink : 0};
    }
    return marks;
}

class Extracted : public DriveRun {
protected:
    void SetUp() override {
        DriveRun::SetUp();
        if (!IsSkipped()) out = dir.path("games/out");
    }
    string app() const { return out + "/TAVRIN-protected/app"; }
    /// Makes the application so large that its copy lasts, on any machine, until the signal of `cutOff`.
    void makeLarge() {
        std::ofstream(source + "/movie");
        fs::resize_file(source + "/movie", 256 << 20);
    }
    /// Starts an extraction, and gives it the signal when its drive is there, which is
    /// before its copy has its name. Gives its status.
    int cutOff(const string& image, int signal) {
        const pid_t pid = ::fork();
        if (pid == 0) {
            ::execl(client.c_str(), "tavrin", "content", "extract", image.c_str(), out.c_str(), "--quiet",
                    nullptr);
            ::_exit(99);
        }
        const string note = image + "/extract.json";
        EXPECT_TRUE(eventually([&] { return fs::exists(note) || ::kill(pid, 0) != 0; }));
        ::kill(pid, signal);
        int status = -1;
        ::waitpid(pid, &status, 0);
        return status;
    }
    void expectAsBefore(const string& image, const TreeSnapshot& before) {
        TreeSnapshot now = TempDir::snapshotOf(image);
        for (const char* name : {"extract.json", "image.lock"})
            now.erase(name);
        EXPECT_EQ(now, before);
        EXPECT_FALSE(fs::exists(out));
    }

    string out;
};

class ExtractedOnEach : public Extracted, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Drive, ExtractedOnEach, testing::Values("erofs", "ext4"),
                         [](const auto& each) { return string(each.param); });

TEST_P(ExtractedOnEach, theInstallationIsWhatTheDriveShows) {
    fs::create_symlink("big.pak", source + "/link");
    fs::create_directory(source + "/nothing");
    const string image = build("image", GetParam());
    const bool isWritable = GetParam() == string("ext4");
    TreeSnapshot tree;
    if (isWritable) {
        // In the write layer.
        const string drive = mount(image, {"--mode", "rtw"});
        std::ofstream(drive + "/start.cfg") << "volume=11\n";
        std::ofstream(drive + "/tool") << "new";
        fs::create_hard_link(drive + "/tool", drive + "/maps/other name");
        fs::create_symlink("/nowhere", drive + "/textures/dangling");
        ::chmod((drive + "/tool").c_str(), 04751);
        ::chmod((drive + "/maps").c_str(), 0555);
        fs::last_write_time(drive + "/maps/one.map", fs::file_time_type());
        fs::last_write_time(drive + "/maps", fs::file_time_type());
        tree = TempDir::snapshotOf(drive); // which would wait for the other end of a pipe
        ASSERT_EQ(::mkfifo((drive + "/pipe").c_str(), 0600), 0);
        done({"umount", image});
    }
    const string drive = mount(image, {"--mode", "ro"});
    if (!isWritable) tree = TempDir::snapshotOf(drive);
    auto marks = marksOf(drive);
    marks.erase("pipe");
    const Outcome refused = run({"content", "extract", image, out});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, HasSubstr(image + "/ is already mounted."));
    EXPECT_EQ(TempDir::readFile(drive + "/empty"), "") << "the drive is gone";
    done({"umount", image});
    EXPECT_THAT(
        done({"content", "extract", image, out, "--keep", "--json"}),
        AllOf(HasSubstr("\"resumed\": false"), HasSubstr(isWritable ? "\"skipped\": 1" : "\"skipped\": 0")));
    EXPECT_EQ(TempDir::snapshotOf(app()), tree);
    EXPECT_EQ(marksOf(app()), marks);
    done({"mount", image});
    done({"umount", image});
    EXPECT_FALSE(fs::exists(image + "/extract.json"));
    fs::remove_all(out);
    done({"content", "extract", image + "/", out + "/"});
    EXPECT_EQ(TempDir::snapshotOf(app()), tree);
    EXPECT_FALSE(fs::exists(image));
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path("games")), {}), 1) << "something is left";
}

TEST_F(Extracted, whatAKilledOneLeavesIsTakenAwayByTheNext) {
    makeLarge();
    const string image = build("image", "erofs");
    TreeSnapshot before = TempDir::snapshotOf(image);
    before.erase("image.lock");
    EXPECT_TRUE(WIFSIGNALED(cutOff(image, SIGKILL)));
    EXPECT_TRUE(statusOf(image).ready) << "its drive is gone";
    expectAsBefore(image, before);
    done({"content", "extract", image, out});
    EXPECT_EQ(TempDir::snapshotOf(app()), TempDir::snapshotOf(source));
    EXPECT_FALSE(fs::exists(image));
}

TEST_F(Extracted, aStoppedOneLeavesAllAsItWas) {
    makeLarge();
    const string image = build("image", "erofs");
    TreeSnapshot before = TempDir::snapshotOf(image);
    before.erase("image.lock");
    EXPECT_EQ(WEXITSTATUS(cutOff(image, SIGINT)), 1);
    EXPECT_THAT(leftovers(), testing::IsEmpty());
    expectAsBefore(image, before);
    EXPECT_FALSE(fs::exists(dir.path("games")));
    EXPECT_FALSE(fs::exists(image + "/extract.json"));
}

TEST_F(Extracted, anImageAndPrivateFilesOfOtherFileSystems) {
    const string image = dir.path("image");
    const SmallDisk disk(image, "64m");
    dir.write("template.json", R"({"version": 2, "zqfVersion": 1, "guid": "G1", "app": {"cmd": ""},
        "disk": {"mountMode": "ro"}, "underflow": {"suspendDrive": false, "suspendProc": false,
        "minOnDemand": 1, "maxOnDemand": 2}, "filemap": [{"from": "app/START.cfg"}],
        "dirmap": [{"from": "app/textures"}]})");
    build("image", "erofs", {"--app", dir.path("template.json")});
    const SmallDisk saves(dir.path("root/drive_c/ProgramData/TAVRIN/G1"), "16m");
    const string drive = mount(image);
    std::ofstream(drive + "/start.cfg") << "volume=11\n";
    fs::remove_all(drive + "/textures/deep");
    fs::create_symlink("new", drive + "/textures/link");
    const TreeSnapshot tree = TempDir::snapshotOf(drive);
    done({"umount", image});
    done({"content", "extract", image, out});
    TreeSnapshot installed = TempDir::snapshotOf(app());
    EXPECT_EQ(TempDir::readFile(app() + "/start.cfg"), "volume=11\n");
    TreeSnapshot shown = tree;
    shown.erase("START.cfg"); // the mount's first copy beside it
    EXPECT_EQ(installed, shown);
    EXPECT_TRUE(fs::is_empty(image)) << "the place of a file system stays";
    EXPECT_TRUE(fs::is_empty(dir.path("root/drive_c/ProgramData/TAVRIN/G1/TAVRIN-protected")));
}

TEST_F(Extracted, needsRoomForAllFiles) {
    const string image = build("image", "erofs");
    const SmallDisk disk(dir.path("games"), "21m");
    const Outcome refused = run({"content", "extract", image, out});
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.err, HasSubstr("Insufficient space for directory " + out + "/ : "));
    EXPECT_TRUE(fs::is_empty(dir.path("games")));
    EXPECT_TRUE(fs::exists(image));
}

} // namespace
