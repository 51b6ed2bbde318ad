#include "DriveRun.h"
#include "SxException.h"
#include "zqdevctl.h"

#include <cerrno>
#include <cstdio>
#include <fstream>

// Names of a drive that have private copies.

namespace {

/// Saves a file as editors do: writes a new one beside it, and renames that over it.
void saveAtomically(const string& path, const string& text) {
    std::ofstream(path + ".new", std::ios::binary) << text;
    ASSERT_EQ(std::rename((path + ".new").c_str(), path.c_str()), 0) << "errno " << errno;
}

class Redirected : public DriveRun {
protected:
    /// `maps`: the part of app.json that names what is redirected.
    string buildRedirected(const string& name, const string& fileSystem, const string& maps,
                           const string& guid = "") {
        dir.write("template.json", R"({"version": 2, "zqfVersion": 1, "guid": ")" + guid + R"(",
            "app": {"cmd": ""}, "disk": {"mountMode": "ro"}, "underflow": {"suspendDrive": false,
            "suspendProc": false, "minOnDemand": 1, "maxOnDemand": 2}, )" +
                                       maps + "}");
        return build(name, fileSystem, {"--app", dir.path("template.json")});
    }
};

class RedirectedOnEach : public Redirected, public testing::WithParamInterface<const char*> {};
INSTANTIATE_TEST_SUITE_P(Drive, RedirectedOnEach, testing::Values("erofs", "ext4"),
                         [](const auto& each) { return string(each.param); });

TEST_P(RedirectedOnEach, redirectedNamesOutliveTheMount) {
    const string image = buildRedirected("image", GetParam(),
                                         R"("dirmap": [{"from": "app/textures"}, {"from": "app\\saves"}],
           "filemap": [{"from": "app/START.cfg"}, {"from": "app/new/scores.dat"}])");
    const auto imageFiles = [&] {
        TreeSnapshot files = TempDir::snapshotOf(image);
        files.erase("image.lock");
        return files;
    };
    const TreeSnapshot before = imageFiles();
    const string scores = "/new/scores.dat";
    {
        const string app = mount(image, {"--mode", "ro"});
        EXPECT_EQ(TempDir::readFile(app + "/start.cfg"), "volume=3\n");
        saveAtomically(app + "/start.cfg", "volume=11\n");
        saveAtomically(app + "/textures/deep/7", "new texture");
        saveAtomically(app + scores, "100");
        EXPECT_EQ(TempDir::readFile(app + "/maps/one.map"), TempDir::readFile(source + "/maps/one.map"));
        done({"umount", image});
    }
    const string app = mount(image);
    EXPECT_EQ(TempDir::readFile(app + "/start.cfg"), "volume=11\n");
    EXPECT_EQ(TempDir::readFile(app + "/textures/deep/7"), "new texture");
    EXPECT_EQ(TempDir::readFile(app + scores), "100");
    done({"umount", image});
    EXPECT_EQ(imageFiles(), before) << "something was written into the image";
}

TEST_F(Redirected, aPrivateFolderHasOneUser) {
    for (const char* maps :
         {R"("dirmap": [{"from": "app/textures"}])", R"("filemap": [{"from": "app/start.cfg"}])"}) {
        SCOPED_TRACE(maps);
        const string first = buildRedirected("first", "erofs", maps, "G1");
        const string second = buildRedirected("second", "erofs", maps, "G1");
        const string other = buildRedirected("other", "erofs", maps, "G2");
        const string side = dir.path("root/drive_c/ProgramData/TAVRIN/G1/TAVRIN-protected");
        const string words = "The private folder '" + side + "' is in use by another drive";
        mount(first);
        mount(other);
        EXPECT_THAT(run({"mount", second}).err, HasSubstr(words));
        EXPECT_FALSE(ZqMountMgr().isMounted(SxString(second)));
        // Another machine root with the same disk C: has a service of its own.
        fs::create_directories(dir.path("user/dosdevices"));
        fs::create_directory_symlink(dir.path("root/drive_c"), dir.path("user/drive_c"));
        fs::create_directory_symlink(dir.path("root/drive_c"), dir.path("user/dosdevices/c:"));
        useRoot("user");
        EXPECT_THAT(run({"mount", second}).err, HasSubstr(words));
        useRoot("root");
        try {
            ZqMountMgr().reparse(SxString(first), "app/textures", "C:/ProgramData/TAVRIN/G1");
            ADD_FAILURE() << "redirected twice";
        } catch (const SxException& e) {
            EXPECT_THAT(e.what(), HasSubstr("are redirected already"));
        }
        done({"umount", first});
        mount(second);
        done({"umount", second});
        done({"umount", other});
        for (const char* each : {"first", "second", "other", "user"})
            fs::remove_all(dir.path(each));
    }
}

TEST_F(Redirected, thePrivateSideMayLieOnAnotherDisk) {
    const string image = buildRedirected("image", "erofs",
                                         R"("dirmap": [{"from": "app/textures"}],
                                            "filemap": [{"from": "app/start.cfg"}])",
                                         "G1");
    const TempDir disk("/dev/shm");
    fs::create_directories(disk.path("saves"));
    const string side = dir.path("root/drive_c/ProgramData/TAVRIN/G1");
    fs::create_directories(side);
    fs::create_directory_symlink(disk.path("saves"), side + "/TAVRIN-protected");
    saveAtomically(mount(image) + "/start.cfg", "volume=11\n");
    done({"umount", image});
    EXPECT_EQ(disk.read("saves/app/start.cfg"), "volume=11\n");
    EXPECT_EQ(TempDir::readFile(mount(image) + "/start.cfg"), "volume=11\n");
    done({"umount", image});
}

TEST_F(Redirected, aRedirectionThatFailsInTheMiddleIsUndone) {
    const string image = build("image", "erofs");
    const string app = mount(image);
    const string side = "root/drive_c/ProgramData/TAVRIN/G1/";
    dir.write(side + "TAVRIN-protected/app/maps/one.map", "mine");
    dir.write(side + "TAVRIN-protected/app/textures/deep/0", "mine");
    const string blocker = dir.write(side + ".TAVRIN-protected.tavrin-work/1", "no folder");
    const auto redirect = [&] {
        ZqMountMgr().reparse(SxString(image), "app/maps/one.map,app/textures/deep/0",
                             "C:/ProgramData/TAVRIN/G1");
    };
    EXPECT_THROW(redirect(), SxException);
    EXPECT_EQ(TempDir::readFile(app + "/maps/one.map"), TempDir::readFile(source + "/maps/one.map"));
    fs::remove(blocker);
    redirect();
    EXPECT_EQ(TempDir::readFile(app + "/maps/one.map"), "mine");
    EXPECT_EQ(TempDir::readFile(app + "/textures/deep/0"), "mine");
    done({"umount", image});
}

TEST_F(Redirected, linksAreNotRedirected) {
    fs::create_symlink("start.cfg", dir.path("game/link.cfg"));
    const string image = buildRedirected("image", "erofs", R"("filemap": [{"from": "app/link.cfg"}])");
    EXPECT_THAT(run({"mount", image}).err, HasSubstr("app/link.cfg' is a link, which can't be redirected"));
    EXPECT_THAT(leftovers(), testing::IsEmpty());
}

} // namespace

TEST_F(Redirected, aStoredTableBringsNothingUpThatLooksWhole) {
    const string redirected =
        buildRedirected("redirected", "ext4", R"("dirmap": [{"from": "app/textures"}], "filemap": [])");
    const string gone = build("gone", "erofs"), plain = build("plain", "erofs"), trace = dir.path("trace");
    TempDir::readFile(mount(redirected, {"--trace", trace}) + "/big.pak");
    mount(gone);
    mount(plain);
    EXPECT_EQ(zqDriveStoreDisks(), 0);
    for (const string& image : {redirected, gone, plain})
        done({"umount", image});
    const string recorded = TempDir::readFile(trace + "/img.trc");
    EXPECT_NE(recorded, "");
    fs::remove_all(gone);
    EXPECT_NE(zqDriveLoadDisks(), 0);
    EXPECT_THAT(ZqVolume::getLastFailure().str(), HasSubstr(gone));
    EXPECT_TRUE(eventually(
        [&] { return !statusOf(plain).drive.isEmpty() && !statusOf(redirected).drive.isEmpty(); }));
    EXPECT_THAT(done({"mount", plain}), HasSubstr("Mounted already as"));
    EXPECT_THAT(done({"mount", redirected}), HasSubstr("Mounted as"));
    saveAtomically(statusOf(redirected).mountPath.str() + "/TAVRIN-protected/app/textures/deep/7",
                   "new texture");
    done({"umount", redirected});
    EXPECT_TRUE(TempDir::readFile(mount(redirected) + "/textures/deep/7") == "new texture");
    for (const string& image : {redirected, plain})
        done({"umount", image});
    EXPECT_TRUE(TempDir::readFile(trace + "/img.trc") == recorded) << "the trace was begun anew";
}
