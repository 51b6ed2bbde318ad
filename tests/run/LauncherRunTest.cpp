#include "DriveRun.h"
#include "SxFileIO.h"
#include "SxJSONParser.h"
#include "ZqRegistry.h"
#include "ZqSysEnv.h"

#include <csignal>
#include <fstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using testing::AllOf;
using testing::Not;

constexpr unsigned NOBODY = 65534;

/// Whole runs and mounts of titles for Windows and of launchers.
class LauncherRun : public DriveRun {
protected:
    void SetUp() override {
        DriveRun::SetUp();
        if (IsSkipped()) return;
        const string data = "root/drive_c/ProgramData/Epic/EpicGamesLauncher/Data/";
        dir.write(data + "Manifests/GUID.item", "the player's own");
        dir.write("game/epic.item",
                  R"({"LaunchCommand": "", "LaunchExecutable": "alpha.exe", "InstallationGuid": "GUID",
                      "MandatoryAppFolderName": "Fern", "MainWindowProcessName": "", "AppName": "Fern",
                      "MainGameAppName": "Fern"})");
        dir.write("game/Fern/.egstore/GUID.mancpn", "of the store");
        dir.write("game/Origin/LocalContent/Fern/fern.mfst", "of Origin");
        dir.write("game/alpha.exe", "no program at all");
        ZqRegistry::setVal("HKCR/com.epicgames.launcher/shell/open/command", "", ZqRegistry::RegSz,
                           "\"C:\\Epic\\Launcher.exe\" %1");
    }
    /// Builds an image whose record `change` changes.
    string title(const std::function<void(ZqAppParams* app)>& change) {
        const string image = build("title", "erofs");
        ZqAppParams app{SxString(image + "/")};
        change(&app);
        app.write(SxString(image + "/"));
        return image;
    }
    static void asLauncherTitle(ZqAppParams* app) {
        app->access = {"Epic Games", "Origin"};
        app->registry = {{"HKLM/Software/Lab/Fern", "Path", ZqRegistry::RegSz, "{{ZQDRIVE}}/fern"}};
    }
    /// The machine root without our own folder and the letters of drives.
    std::map<string, string> rootState() const {
        std::map<string, string> all;
        for (const auto& [path, mark] : dir.snapshot("root")) {
            if (path.starts_with("drive_c/ProgramData/TAVRIN") || path.starts_with("dosdevices") ||
                path.ends_with(".reg") || path.ends_with(".lock"))
                continue;
            struct stat info = {};
            ::lstat(dir.path("root/" + path).c_str(), &info);
            std::ostringstream text;
            text << mark << std::oct << " " << info.st_mode << " " << info.st_uid;
            all[path] = text.str();
        }
        return all;
    }
    string report() const { return dir.read("report.json"); }
};

} // namespace

TEST_F(LauncherRun, AMountThatIsKilledIsTakenBackByTheNextCommand) {
    const string image = title(asLauncherTitle);
    // An empty folder of Origin stays after a mount.
    fs::create_directories(dir.path("root/drive_c/ProgramData/Origin/LocalContent"));
    const auto before = rootState();
    const string app = mount(image);
    EXPECT_NE(rootState(), before);
    std::ofstream(app + "/written") << "to the layer";
    EXPECT_THAT(done({"launcher", "list"}), AllOf(HasSubstr("title, mounted:"), HasSubstr("GUID.item")));
    EXPECT_THAT(done({"launcher", "restore"}), HasSubstr("stays as long as that is mounted"));
    done({"umount", image});
    EXPECT_EQ(rootState(), before);
    EXPECT_FALSE(ZqRegistry::isVal("HKLM/Software/Lab/Fern", "Path"));
    EXPECT_FALSE(ZqRegistry::contains("HKLM/Software", "Lab"));

    for (const string command : {"launcher", "umount", "mount"}) {
        SCOPED_TRACE(command);
        mount(image);
        EXPECT_EQ(ZqRegistry::getVal("HKLM/Software/Lab/Fern", "Path"), "D:/fern");
        ::kill(static_cast<pid_t>(statusOf(image).servicePid), SIGKILL);
        ASSERT_TRUE(eventually([&] { return !ZqVolume::getLeftovers().isEmpty(); }));
        EXPECT_THAT(run({"launcher", "list", "--json"}).out, HasSubstr("\"mounted\": false"));
        if (command == "launcher") done({"launcher", "restore"});
        // What was written and not synced may be lost, which is told.
        if (command == "umount") run({"umount", image});
        if (command == "mount") mount(image, {"--no-launchers"});
        EXPECT_EQ(rootState(), before);
        EXPECT_EQ(run({"umount", image}).code, 0);
        EXPECT_EQ(rootState(), before);
        EXPECT_FALSE(ZqRegistry::contains("HKLM/Software", "Lab"));
    }
    mount(image);
    done({"umount", image, "--hard"});
    EXPECT_NE(rootState(), before);
    done({"umount", image});
    EXPECT_EQ(rootState(), before);
}

TEST_F(LauncherRun, AnotherUsersPrefixStaysTheirs) {
    const string image = title([](ZqAppParams* app) {
        asLauncherTitle(app);
        app->filemap = {"app/saved.cfg"};
    });
    for (const auto& entry : fs::recursive_directory_iterator(dir.path("root")))
        ASSERT_EQ(::lchown(entry.path().c_str(), NOBODY, NOBODY), 0);
    ASSERT_EQ(::chown(dir.path("root").c_str(), NOBODY, NOBODY), 0);
    fs::permissions(dir.path("root/system.reg"), fs::perms(0600));
    const auto expectTheirs = [&] {
        for (const auto& entry : fs::recursive_directory_iterator(dir.path("root"))) {
            struct stat info = {};
            ::lstat(entry.path().c_str(), &info);
            // The kernel makes the innermost folder of an overlay's work itself.
            const bool isKernels = entry.path().filename() == "work";
            EXPECT_EQ(info.st_uid, isKernels ? 0 : NOBODY) << entry.path();
        }
        struct stat info = {};
        ::stat(dir.path("root/system.reg").c_str(), &info);
        EXPECT_EQ(info.st_mode & 07777U, 0600U);
    };
    mount(image);
    expectTheirs();
    done({"umount", image});
    expectTheirs();
    const Outcome outcome = run({"run", image});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("belongs to " + ZqSysEnv::getUserName(NOBODY).str()),
                                   HasSubstr("Wine refuses it")));
}

TEST_F(LauncherRun, ATitleWithoutItsLauncher) {
    dir.write("game/alpha.sh", "#!/bin/bash\necho \"$@\" >\"$TITLE_OUT\"\nexit 5\n");
    fs::permissions(dir.path("game/alpha.sh"), fs::perms(0755));
    const string image = title([](ZqAppParams* app) {
        app->access = {"Steam"};
        app->cmd = "{{ZQDRIVE}}/TAVRIN-protected/app/alpha.sh";
        app->args = {"own"};
        app->registry = {{"HKLM/Software/Valve/Steam/Apps/7", "Name", ZqRegistry::RegSz, "Fern"}};
    });
    ::setenv("TITLE_OUT", dir.path("title.out").c_str(), 1);
    EXPECT_THAT(run({"run", image}).err,
                AllOf(HasSubstr("starts through the launcher 'Steam'"), HasSubstr("--no-launchers")));
    Outcome outcome = run({"mount", image});
    EXPECT_EQ(outcome.code, 1);
    EXPECT_THAT(outcome.err, AllOf(HasSubstr("--no-launchers"), HasSubstr("Steam not installed")));
    // A former mount has written the launcher's command.
    ZqRegistry::setVal("HKLM/SOFTWARE/WOW6432Node/Valve/Steam", "InstallPath", ZqRegistry::RegSz, "C:/Steam");
    mount(image);
    done({"umount", image});
    EXPECT_EQ(ZqAppParams(SxString(image + "/")).cmd, "C:/Steam/steam.exe");
    done({"run", image, "--no-launchers", "--report", dir.path("report.json")});
    EXPECT_EQ(dir.read("title.out"), "own\n");
    EXPECT_THAT(report(), HasSubstr("\"exitCode\": 5"));
}

TEST_F(LauncherRun, ARunnerIsToldOfTheDrive) {
    const string runner = dir.write("runner", R"(#!/bin/bash
printf '%s\n' "$@" >"$RUNNER_OUT"
env | grep -E '^(WINEPREFIX|STEAM_COMPAT_MOUNTS|PRESSURE_VESSEL_[A-Z_]*)=' >>"$RUNNER_OUT"
for ((i = 0; i < $(cat "$RUNNER_TAKES"); ++i)); do
    ln -sfn /nowhere "$WINEPREFIX/dosdevices/d:"
    for ((k = 0; k < 100; ++k)); do
        [[ $(readlink "$WINEPREFIX/dosdevices/d:") == /nowhere ]] || break
        sleep 0.05
    done
done
readlink "$WINEPREFIX/dosdevices/d:" >>"$RUNNER_OUT"
exit 9
)");
    fs::permissions(runner, fs::perms(0755));
    const string image = title([](ZqAppParams* app) {
        app->cmd = "{{ZQDRIVE}}/TAVRIN-protected/app/alpha.exe";
        app->args = {"-map", "a b"};
    });
    ::setenv("RUNNER_OUT", dir.path("runner.out").c_str(), 1);
    ::setenv("RUNNER_TAKES", dir.path("takes").c_str(), 1);
    ::setenv("PRESSURE_VESSEL_FILESYSTEMS_RO", "/opt/x", 1);
    for (const int nTakes : {0, 2, 6}) {
        dir.write("takes", std::to_string(nTakes));
        const Outcome outcome =
            run({"run", image, "--runner", runner, "--report", dir.path("report.json"), "--no-trace"});
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        EXPECT_THAT(report(), HasSubstr("\"exitCode\": 9"));
        const SxList<SxString> lines = SxFileIO::readLines(SxString(dir.path("runner.out")), 0);
        ASSERT_EQ(lines.getSize(), 7);
        const string drive = lines(0).str().substr(0, lines(0).str().find("/TAVRIN-protected"));
        EXPECT_THAT(drive, AllOf(HasSubstr("/mnt/"), Not(HasSubstr(":"))));
        EXPECT_EQ(lines(2), "a b");
        const std::set<string> settings = {lines(3).str(), lines(4).str(), lines(5).str()};
        EXPECT_TRUE(settings.contains("WINEPREFIX=" + dir.path("root")));
        EXPECT_TRUE(settings.contains("STEAM_COMPAT_MOUNTS=" + drive));
        EXPECT_TRUE(settings.contains("PRESSURE_VESSEL_FILESYSTEMS_RO=/opt/x:" + drive));
        EXPECT_EQ(lines(6).str(), nTakes > 5 ? "/nowhere" : drive);
        EXPECT_EQ(report().find("\"lostLetter\": \"D:\"") != string::npos, nTakes > 5);
        fs::remove(dir.path("root/dosdevices/d:"));
    }
    ::unsetenv("PRESSURE_VESSEL_FILESYSTEMS_RO");
    EXPECT_THAT(run({"run", image, "--runner", dir.path("none")}).err, HasSubstr("there is no program '"));
}

TEST_F(LauncherRun, WineSeesTheEntriesForTheTimeOfARun) {
    if (!ZqSysEnv::isProgram("wine")) GTEST_SKIP() << "wine isn't installed";
    const fs::path own = "/usr/lib/x86_64-linux-gnu/wine/x86_64-windows/cmd.exe";
    if (!fs::exists(own)) GTEST_SKIP() << own << " isn't there";
    fs::copy_file(own, dir.path("game/cmd.exe"));
    const string image = title([](ZqAppParams* app) {
        app->cmd = "{{ZQDRIVE}}/TAVRIN-protected/app/cmd.exe";
        app->args = {"/c", "reg query HKLM\\Software\\Lab\\Fern /v Path >C:\\seen.txt & exit 7"};
        app->registry = {{"HKLM/Software/Lab/Fern", "Path", ZqRegistry::RegSz, "{{ZQDRIVE}}/fern"}};
    });
    for (const auto& [name, value] : {std::pair<const char*, string>{"HOME", dir.path()},
                                      {"WINEDEBUG", "-all"},
                                      {"WINEDLLOVERRIDES", "mscoree,mshtml="}})
        ::setenv(name, value.c_str(), 1);
    const auto endServer = [] {
        SxProcess("wineserver", {"-k"}, SxProcess::Silent).run();
        SxProcess("wineserver", {"-w"}, SxProcess::Silent).run();
    };
    // Its programs would go on for ever where the test ends early.
    struct Server {
        ~Server() { SxProcess("wineserver", {"-k9"}, SxProcess::Silent).run(); }
    } const server;
    for (const bool serves : {false, true}) {
        SCOPED_TRACE(serves ? "a server lives" : "no server");
        // One that stays for a while.
        if (serves) SxProcess("wineserver", {"-p60"}, SxProcess::Silent).run();
        if (serves) SxProcess("wine", {"cmd", "/c", "exit"}, SxProcess::Silent).run();
        const Outcome outcome = run({"run", image, "--report", dir.path("report.json"), "--no-trace"});
        EXPECT_EQ(outcome.code, 0) << outcome.err;
        EXPECT_THAT(report(), HasSubstr("\"exitCode\": 7"));
        EXPECT_THAT(dir.read("root/drive_c/seen.txt"), HasSubstr("REG_SZ"));
        EXPECT_FALSE(ZqRegistry::contains("HKLM/Software", "Lab")) << "nor the key above it";
        EXPECT_EQ(SxProcess("wine", {"reg", "query", "HKLM\\Software\\Lab"}, SxProcess::Silent).run(), 1);
        endServer();
        EXPECT_FALSE(ZqRegistry::contains("HKLM/Software", "Lab"));
    }
}
