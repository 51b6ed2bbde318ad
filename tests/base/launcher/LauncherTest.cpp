#include "LauncherTest.h"

#include "ScriptedDesktop.h"
#include "SxJSONParser.h"
#include "SxProcess.h"
#include "SxTime.h"
#include "ZqEpicLibrary.h"
#include "ZqEpicParams.h"
#include "ZqLauncherRecord.h"
#include "ZqOriginLibrary.h"
#include "ZqRCParams.h"
#include "ZqRegistryChanges.h"
#include "ZqRobotLibrary.h"
#include "ZqSysEnv.h"

namespace {

using testing::Not;
using M = LauncherMachine;

/// The messages below the mount's own.
std::string causeOf(M& machine) {
    const std::string outer = "Cannot mount ZqF image " + machine.name + ": ";
    const std::string failure = failureOf([&] { machine.mount(); });
    return failure.starts_with(outer) ? failure.substr(outer.size()) : failure;
}

ZqAppParams appOf(const M& machine) {
    return ZqAppParams(machine.dir.prefix() + "image/");
}

} // namespace

TEST(Launchers, ATitleIsThereForTheTimeOfItsMount) {
    M machine;
    const TempDir& dir = machine.dir;
    const auto before = machine.state();
    EXPECT_EQ(machine.mount(), "E:");
    EXPECT_THAT(machine.driver.notes.front(), HasSubstr("SetCacheSize 0"));
    EXPECT_EQ(machine.nLogged("Prepare ROBOT Cache library modifications"), 1);
    EXPECT_EQ(machine.nLogged("Moving C:/ProgramData/Epic/EpicGamesLauncher/Data/Manifests to "), 1);
    // What the launcher sees.
    EXPECT_EQ(dir.snapshot(M::DATA + "Manifests").size(), 2U);
    const SxString item(dir.read(M::DATA + "Manifests/GUID-1.item"));
    SxJSONParser parser;
    parser.readString(item, "item");
    const auto& root = parser.getRootSymbol();
    EXPECT_EQ(root.getElem("InstallLocation").toString(), "E:/TAVRIN-protected/app/Fern");
    EXPECT_EQ(root.getElem("StagingLocation").toString(),
              "C:/ProgramData/Epic/EpicGamesLauncher/Data/egstore/Fern/.egstore/bps");
    EXPECT_EQ(root.getElem("FormatVersion").toInt(), 0);
    EXPECT_EQ(dir.read(M::DATA + "egstore/Fern/.egstore/GUID-1.mancpn"), "of the store");
    EXPECT_EQ(dir.read(M::SAVED + "GUID-1.item"), "the player's own");
    EXPECT_EQ(dir.read(M::ORIGIN + "Fern Title/fern.mfst"), "of Origin");
    const ZqRCParams config("", "");
    EXPECT_THAT(config.libraries, ElementsAre("D:/Games", "E:/TAVRIN-protected/RobotCacheLibrary"));
    EXPECT_THAT(dir.read(M::CONFIG), AllOf(HasSubstr("\"token\": \"kept\""), HasSubstr("\"unknown\"")));
    EXPECT_EQ(machine.registry("HKLM/SOFTWARE/Valve/Steam/Apps/1234", "Installed"), "1");
    EXPECT_EQ(machine.registry("HKCU/Software/Game/Deep/Deeper", "Path"), "E:/game");
    // The last step's command, and what the others have left.
    const ZqAppParams app = appOf(machine);
    EXPECT_EQ(app.cmd, "C:/RC/RobotCache.exe");
    EXPECT_THAT(app.args, ElementsAre("uplay://launch/55/0"));
    EXPECT_EQ(app.name, "Alpha.exe");
    EXPECT_EQ(app.delay, 15);
    const auto changes = ZqLaunchers::getChanges();
    ASSERT_EQ(changes.getSize(), 1);
    EXPECT_TRUE(changes.first().isMounted);
    EXPECT_EQ(changes.first().made.getSize(), 4);
    EXPECT_EQ(ZqLaunchers::restore().images.getSize(), 0) << "a mounted title is left alone";

    // What the launcher adds meanwhile is the player's, but doesn't replace what the player had.
    dir.write(M::DATA + "Manifests/new.item", "came meanwhile");
    dir.write(M::DATA + "Manifests/OTHER.item", "not this one");
    machine.mgr.umountImage(machine.image, false);
    auto expected = before;
    EXPECT_EQ(dir.read(M::DATA + "Manifests/new.item"), "came meanwhile");
    fs::remove(dir.path(M::DATA + "Manifests/new.item"));
    EXPECT_EQ(machine.changesSince(expected), "");
    EXPECT_EQ(machine.launchersFile(), "");
    EXPECT_EQ(machine.registry("HKCU/Software/Game", "Level"), "0badf00d");
    EXPECT_EQ(machine.driver.notes.back(), "ejectMedia E:");
    EXPECT_EQ(std::count(machine.driver.notes.begin(), machine.driver.notes.end(), "GuardOff"), 2);
}

TEST(Launchers, AreLeftAloneWhereTheMountDoesSo) {
    M machine;
    machine.mount();
    machine.mgr.umountImage(machine.image, false);
    const auto before = machine.state();
    ZqMountMgr mgr;
    ZqMountMgr::MountRequest request{
        ZqMountMgr::ReadOnly, ZqMountMgr::Removable, machine.image, "", Machine::SIZE_RAW, 4096,
        machine.cursor};
    request.noLaunchers = true;
    mgr.mountImageZQF(request, "");
    EXPECT_EQ(mgr.getLaunch().cmd, "{{ZQDRIVE}}/alpha.exe") << "not what the first mount has written";
    EXPECT_THAT(mgr.getLaunch().args, ElementsAre("-own"));
    EXPECT_EQ(mgr.getLaunch().delay, 5);
    mgr.umountImage(machine.image, false);
    EXPECT_EQ(machine.changesSince(before), "");
    // A record that came anew counts, and not what is kept of a former one.
    machine.app.args = {"-new"};
    machine.app.write(machine.dir.prefix() + "image/");
    ZqMountMgr second;
    second.mountImageZQF(request, "");
    EXPECT_THAT(second.getLaunch().args, ElementsAre("-new"));
    second.umountImage(machine.image, false);
}

TEST(Launchers, OnlyTheLaunchValuesOfTheRecordChange) {
    M machine;
    machine.app.access = {"Steam"};
    machine.app.write(machine.dir.prefix() + "image/");
    std::string text = machine.dir.read("image/app.json");
    text.insert(text.find("\"cmd\""), "\"future\": {\"a\": [1]}, ");
    text.insert(1, "\"more\": 12345678901234567890123,");
    machine.dir.write("image/app.json", text);
    ZqMountMgr mgr;
    mgr.mountImageZQF(ZqMountMgr::ReadOnly, ZqMountMgr::Removable, machine.image, Machine::SIZE_RAW, 4096,
                      machine.cursor, false, "", "");
    EXPECT_THAT(machine.dir.read("image/app.json"),
                AllOf(HasSubstr("\"future\""), HasSubstr("12345678901234567890123"),
                      HasSubstr("C:/Program Files (x86)/Steam/steam.exe"),
                      HasSubstr("steam://rungameid/1234"), Not(HasSubstr("-own"))));
    ZqStreamRecord record;
    record.read(machine.image);
    ASSERT_TRUE(record.launch);
    EXPECT_EQ(record.launch->written.getSize(), 1);
    EXPECT_EQ(record.launch->original.cmd, "{{ZQDRIVE}}/alpha.exe");
    mgr.umountImage(machine.image, false);
}

TEST(Launchers, EveryFailureHasItsWordsAndChangesNothing) {
    struct Case {
        const char* access;
        std::string cause;
        std::function<void(M&)> damage;
    };
    const std::string drive = "volume/TAVRIN-protected/app/";
    const std::string epic = "Updating Epic Game library failed: ";
    const std::string unread = epic + "Cannot read epic library entry file ";
    const std::string robot = "Updating RC Game library failed: ", config = "C:/ProgramData/RobotCache/";
    const auto unset = [](const char* key, const char* name) {
        return [=](M&) { ZqRegistry::removeRegEntriesAsAdmin({{key, name, ZqRegistry::RegSz, ""}}); };
    };
    const auto item = [&](const std::string& text) {
        return [=](M& m) { m.dir.write(drive + "epicitems/more.item", text); };
    };
    const auto command = [](const char* key, const char* text) { return [=](M&) { M::set(key, "", text); }; };
    const auto link = [&](const std::string& place) {
        return [=](M& m) {
            fs::remove_all(m.dir.path(place));
            fs::create_directories(fs::path(m.dir.path(place)).parent_path());
            fs::create_symlink(m.dir.path(place == M::CONFIG ? "image/app.json" : "image"),
                               m.dir.path(place));
        };
    };
    const Case cases[] = {
        {"Steam", "Updating Steam library failed: Steam not installed",
         unset("HKLM/SOFTWARE/WOW6432Node/Valve/Steam", "InstallPath")},
        {"Steam", "Updating Steam library failed: Steam App ID not found",
         [](M& m) { m.app.registry.removeAll(); }},
        {"Steam", "Updating Steam library failed: Steam App ID not found",
         [](M& m) { m.app.registry.first().key = "HKLM/SOFTWARE/Valve/Steam/Apps/"; }},
        {"Steam", "Updating Steam library failed: The id '1 \"' behind 'Steam/Apps/'",
         [](M& m) { m.app.registry.first().key = "HKLM/SOFTWARE/Valve/Steam/Apps/1 \""; }},
        {"Ubisoft", "Updating Uplay command failed: UPlay not installed",
         unset("HKLM/SOFTWARE/WOW6432Node/Ubisoft/Launcher", "InstallDir")},
        {"Ubisoft", "Updating Uplay command failed: UPlay App ID not found",
         [](M& m) { m.app.registry = {m.app.registry.first()}; }},
        {"Epic Games", epic + "Epic Games Launcher not installed",
         unset("HKCR/com.epicgames.launcher/shell/open/command", "")},
        {"Epic Games", epic + "The command 'C:/x.exe %1' of the registry key",
         command("HKCR/com.epicgames.launcher/shell/open/command", "C:/x.exe %1")},
        {"Epic Games",
         epic + "No Epic library entry file E:/TAVRIN-protected/app/epic.item or library entry "
                "directory E:/TAVRIN-protected/app/epicitems found",
         [=](M& m) { fs::remove_all(m.dir.path(drive + "epicitems")); }},
        {"Epic Games", epic + "Cannot create Epic Games Store Manifest: No epic.item found.",
         [=](M& m) { fs::remove(m.dir.path(drive + "epicitems/epic.item")); }},
        {"Epic Games", epic + "Cannot create Epic Games Store Manifest C:/ProgramData/Epic/",
         [=](M& m) { fs::remove_all(m.dir.path(drive + "Fern/.egstore")); }},
        {"Epic Games", epic + "Cannot create Epic Games Store Manifest C:/ProgramData/Epic/",
         link(drive + "Fern/.egstore/way out")},
        {"Epic Games", epic + "Two entries of the Epic library have the InstallationGuid 'guid-1'",
         item(manifest("guid-1", "Fern"))},
        {"Epic Games", unread, item("{\"LaunchCommand\": 1}")},
        {"Epic Games", unread, item(std::string(17 << 20, ' '))},
        {"Epic Games", unread, item(manifest("G", ""))},
        {"Epic Games", unread, item(manifest("G", ".."))},
        {"Epic Games", unread, item(manifest("../../x", "Fern"))},
        {"Epic Games", unread, item(manifest("c:x", "Fern"))},
        {"Epic Games", unread, link(drive + "epicitems/more.item")},
        {"Epic Games", epic + "'C:/ProgramData/Epic/EpicGamesLauncher/Data/Manifests' is a link",
         link(M::DATA + "Manifests")},
        {"Epic Games", epic + "'C:/ProgramData/VOLM/EpicGamesLauncher/Manifests' is a link",
         link(M::PROGRAM_DATA + "VOLM/EpicGamesLauncher/Manifests")},
        {"Epic Games", epic + "'C:/ProgramData/Epic/EpicGamesLauncher/Data/egstore/Fern' is a link",
         link(M::DATA + "egstore/Fern")},
        {"Origin",
         "Updating EA Game library failed: EA Origin library entry directory "
         "E:/TAVRIN-protected/app/Origin/LocalContent not found",
         [=](M& m) { fs::remove_all(m.dir.path(drive + "Origin")); }},
        {"Origin",
         "Updating EA Game library failed: Cannot write EA Origin library entry file: Expected one EA "
         "store directory, found 2",
         [=](M& m) { fs::create_directory(m.dir.path(drive + "Origin/LocalContent/b")); }},
        {"Origin",
         "Updating EA Game library failed: Cannot write EA Origin library entry file: "
         "'C:/ProgramData/Origin/LocalContent/Fern Title' is a link",
         link(M::ORIGIN + "Fern Title")},
        {"RobotCache",
         robot + "File C:/ProgramData/RobotCache/RobotCacheClient/config/appConfig.json not found.",
         [](M& m) { fs::remove(m.dir.path(M::CONFIG)); }},
        {"RobotCache", robot + "Failed to read file " + config,
         [](M& m) {
             m.dir.write(M::CONFIG, SxString(APP_CONFIG).substitute("\"window\"", "\"windows\"").str());
         }},
        {"RobotCache", robot + "Failed to read file " + config, link(M::CONFIG)},
        {"RobotCache", robot + "RC Games Launcher not installed",
         unset("HKCR/RobotCache/shell/open/command", "")},
        {"RobotCache", robot + "The command 'robot' of the registry key",
         command("HKCR/RobotCache/shell/open/command", "robot")},
        {"Steam", "Failed to mount ",
         [](M& m) { m.dir.write(M::PROGRAM_DATA + "TAVRIN/launchers.json", "{\"version\": 2}"); }},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(&c - cases) + ": " + c.cause);
        M machine;
        machine.app.access = {c.access};
        c.damage(machine);
        const auto before = machine.state();
        EXPECT_THAT(causeOf(machine), StartsWith(c.cause));
        EXPECT_FALSE(machine.driver.mounted);
        EXPECT_EQ(machine.changesSince(before), "");
        EXPECT_EQ(appOf(machine).cmd, machine.app.cmd);
    }
}

TEST(Launchers, TwoTitlesOnALauncherThatNeverRan) {
    M machine;
    fs::remove_all(machine.dir.path(M::PROGRAM_DATA + "Epic"));
    const auto before = machine.state();
    ZqLauncherRecord record;
    for (const char* image : {"/a", "/b"}) {
        machine.dir.write("volume/TAVRIN-protected/app/epicitems/more.item",
                          manifest(image == std::string("/a") ? "GA" : "GB", "Fern"));
        ZqEpicLibrary(&record).make(image, "E:");
    }
    for (const char* image : {"/b", "/a"}) {
        ZqEpicLibrary(&record).undo(image);
        record.save();
    }
    EXPECT_EQ(machine.changesSince(before), "");
}

TEST(Launchers, ALinkInThePlaceOfAnOwnedTitleIsThePlayers) {
    M machine;
    const auto before = machine.state();
    machine.mount();
    // Both the title's and the player's manifest are called so.
    const std::string item = machine.dir.path(M::DATA + "Manifests/GUID-1.item");
    fs::remove(item);
    fs::create_symlink(machine.dir.path("image/app.json"), item);
    machine.mgr.umountImage(machine.image, false);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(machine.changesSince(before), "");
        EXPECT_TRUE(ZqLaunchers::restore().failures.isEmpty());
    }
    EXPECT_TRUE(machine.dir.exists("image/app.json"));
}

TEST(Launchers, TwoImagesAtATime) {
    M machine;
    const auto before = machine.state();
    const SxList<ZqRegistry::Item> first = {{"HKCU/Software/Game", "Level", ZqRegistry::RegSz, "1"},
                                            {"HKCU/Software/New/Deep", "a", ZqRegistry::RegSz, "1"}};
    const SxList<ZqRegistry::Item> second = {{"HKCU/software\\GAME", "level", ZqRegistry::RegDword, "2"},
                                             {"HKCU/Software/New/Deep", "b", ZqRegistry::RegSz, "2"}};
    for (const bool inOrder : {true, false}) {
        SCOPED_TRACE(inOrder);
        ZqLauncherRecord record;
        const SxString images[] = {"/a", "/b"};
        for (const SxString& image : images) {
            const bool isFirst = image == "/a";
            machine.dir.write("volume/TAVRIN-protected/app/epicitems/more.item",
                              manifest(isFirst ? "GUID-2" : "GUID-3", "Fern"));
            ZqRegistryChanges(&record).make(image, isFirst ? first : second, "E:");
            ZqEpicLibrary(&record).make(image, "E:");
            ZqOriginLibrary(&record).make(image, "E:");
            ZqRobotLibrary(&record).make(image, isFirst ? "E:" : "F:");
            machine.dir.write(M::DATA + "Manifests/late.item", "came between");
        }
        const SxString &out = images[inOrder ? 0 : 1], &stays = images[inOrder ? 1 : 0];
        const auto undo = [&](const SxString& image) {
            ZqRegistryChanges(&record).undo(image);
            ZqEpicLibrary(&record).undo(image);
            ZqOriginLibrary(&record).undo(image);
            ZqRobotLibrary(&record).undo(image);
            record.save();
        };
        undo(out);
        EXPECT_EQ(machine.registry("HKCU/Software/Game", "Level"), inOrder ? "2" : "1");
        EXPECT_TRUE(machine.dir.exists(M::DATA + "Manifests/GUID-1.item")) << "both have it";
        EXPECT_NE(machine.dir.exists(M::DATA + "Manifests/GUID-2.item"), inOrder);
        EXPECT_TRUE(machine.dir.exists(M::DATA + "egstore/Fern/.egstore"));
        EXPECT_TRUE(machine.dir.exists(M::ORIGIN + "Fern Title"));
        EXPECT_TRUE(machine.dir.exists(M::SAVED + "GUID-1.item"));
        EXPECT_EQ(ZqRCParams("", "").libraries.getSize(), 2);
        undo(stays);
        EXPECT_EQ(machine.dir.read(M::DATA + "Manifests/late.item"), "came between");
        fs::remove(machine.dir.path(M::DATA + "Manifests/late.item"));
        EXPECT_EQ(machine.changesSince(before), "");
    }
}

TEST(Launchers, APlayersOwnFoldersAreNeitherOverwrittenNorRemoved) {
    M machine;
    machine.dir.write(M::DATA + "egstore/Fern/.egstore/GUID-1.mancpn", "the player's");
    machine.dir.write(M::ORIGIN + "Fern Title/fern.mfst", "the player's");
    machine.dir.write(
        M::CONFIG,
        SxString(APP_CONFIG).substitute("D:/Games", "E:/TAVRIN-protected/RobotCacheLibrary").str());
    const auto before = machine.state();
    for (const bool isCutOff : {false, true}) {
        machine.mount();
        EXPECT_EQ(machine.dir.read(M::DATA + "egstore/Fern/.egstore/GUID-1.mancpn"), "the player's");
        EXPECT_EQ(machine.dir.read(M::ORIGIN + "Fern Title/fern.mfst"), "the player's");
        EXPECT_EQ(ZqRCParams("", "").libraries.getSize(), 1) << "it stands once";
        if (isCutOff) {
            machine.loseDrive();
            EXPECT_EQ(ZqLaunchers::restore().images.getSize(), 1);
        } else {
            machine.mgr.umountImage(machine.image, false);
        }
        EXPECT_EQ(machine.changesSince(before), "");
    }
    // A store folder without the part of the launcher's own.
    fs::rename(machine.dir.path(M::DATA + "egstore/Fern/.egstore"),
               machine.dir.path(M::DATA + "egstore/Fern/pictures"));
    const auto without = machine.state();
    machine.mount();
    EXPECT_TRUE(machine.dir.exists(M::DATA + "egstore/Fern/.egstore/GUID-1.mancpn"));
    machine.mgr.umountImage(machine.image, false);
    EXPECT_EQ(machine.changesSince(without), "");
}

TEST(Launchers, ALauncherThatNeverRanGetsItsFoldersAndLosesThem) {
    M machine;
    fs::remove_all(machine.dir.path(M::PROGRAM_DATA + "Epic"));
    fs::remove_all(machine.dir.path(M::PROGRAM_DATA + "Origin"));
    machine.app.access = {"Epic Games", "Origin"};
    const auto before = machine.state();
    machine.mount();
    EXPECT_TRUE(machine.dir.exists(M::DATA + "Manifests/GUID-1.item"));
    EXPECT_FALSE(machine.dir.exists(M::PROGRAM_DATA + "VOLM"));
    machine.mgr.umountImage(machine.image, false);
    EXPECT_TRUE(fs::remove(machine.dir.path(M::ORIGIN))) << "an empty one stays";
    fs::remove(machine.dir.path(M::PROGRAM_DATA + "Origin"));
    EXPECT_EQ(machine.changesSince(before), "");
}

TEST(Launchers, APartThatCantBeTakenBackStaysAndIsNamed) {
    M machine;
    const auto before = machine.state();
    machine.mount();
    const std::string item = machine.dir.path(M::DATA + "Manifests/GUID-2.item");
    fs::remove(item);
    fs::create_symlink(machine.dir.path("image"), item);
    machine.loseDrive();
    const auto restored = ZqLaunchers::restore();
    ASSERT_EQ(restored.failures.getSize(), 1);
    EXPECT_THAT(restored.failures.first().what(),
                AllOf(HasSubstr(machine.name), HasSubstr("GUID-2.item' is a link")));
    EXPECT_EQ(machine.dir.read(M::DATA + "Manifests/other.item"), "another title") << "the rest went on";
    EXPECT_FALSE(machine.dir.exists(M::ORIGIN + "Fern Title"));
    fs::remove(item);
    EXPECT_TRUE(ZqLaunchers::restore().failures.isEmpty());
    EXPECT_EQ(machine.changesSince(before), "");
    EXPECT_EQ(machine.launchersFile(), "");
    EXPECT_TRUE(machine.dir.exists("image/img.zqf")) << "no link is followed";
}

TEST(Launchers, AreFailuresOfTheUnmountOnlyInTheLog) {
    M machine;
    machine.app.access = {"Epic Games", "Origin"};
    const auto before = machine.state();
    machine.mount();
    fs::remove_all(machine.dir.path("volume/TAVRIN-protected/app"));
    EXPECT_TRUE(machine.mgr.umountImage(machine.image, false));
    EXPECT_EQ(machine.nLogged("No Epic library entry file E:/"), 1);
    EXPECT_EQ(machine.nLogged("EA Origin library entry directory E:/"), 1);
    EXPECT_EQ(machine.changesSince(before), "") << "what was made is known without the drive";
    for (const auto& operation :
         {&ZqMountMgr::cleanEpicLibrary, &ZqMountMgr::writeEALibEntries, &ZqMountMgr::delEALibEntries})
        EXPECT_EQ(failureOf([&] { (machine.mgr.*operation)(); }), "Tavrin drive not mounted");
    EXPECT_EQ(failureOf([&] { machine.mgr.genEpicLibrary(); }), "Tavrin drive not mounted");
}

TEST(Launchers, AHardUnmountLeavesThemToTheNext) {
    M machine;
    const auto before = machine.state();
    machine.mount();
    EXPECT_TRUE(machine.mgr.umountImage(machine.image, true));
    EXPECT_NE(machine.changesSince(before), "");
    bool written = false;
    machine.mgr.removeLeftovers(machine.image, &written);
    EXPECT_EQ(machine.changesSince(before), "");
}

TEST(Launchers, OnlyTheLauncherOfThisMachineRootIsClosed) {
    M machine;
    ScriptedDesktop desktop;
    const auto start = [&](const std::string& prefix) {
        auto process = std::make_unique<SxProcess>(
            "env", SxList<SxString>{SxString("WINEPREFIX=" + prefix), "bash", "-c",
                                    "exec -a 'C:\\Epic\\EpicGamesLauncher.exe' sleep 60"});
        process->start();
        return process;
    };
    const auto ours = start(machine.dir.path("root")), others = start(machine.dir.path("image"));
    SxList<int> ids;
    SxWait::pass(5000,
                 [&] { return (ids = ZqSysEnv::getProcessIDs("EpicGamesLauncher.exe")).getSize() == 2; });
    ASSERT_EQ(ids.getSize(), 2);
    const bool firstIsOurs = ZqSysEnv::isInMachineRoot(ids(0));
    desktop.windows[1] = {"Epic Games Launcher", "", ids(firstIsOurs ? 0 : 1)};
    desktop.windows[2] = {"Epic Games Launcher", "", ids(firstIsOurs ? 1 : 0)};
    desktop.windows[3] = {"Friends", "", ids(firstIsOurs ? 0 : 1)};
    machine.mgr.closeEpicGamesLauncher();
    EXPECT_THAT(desktop.notes, ElementsAre("close 1"));
    EXPECT_EQ(machine.nLogged("Closing Epic Games Launcher Window"), 1);
    EXPECT_EQ(machine.nLogged("Closing Epic Games Launcher Process"), 1);
    EXPECT_EQ(ours->wait(), 128 + SIGKILL);
    EXPECT_TRUE(others->isRunning());
    others->kill();
    others->wait();
}

TEST(Launchers, StoringAndRestoringManifestsAlone) {
    M machine;
    const auto before = machine.state();
    ZqEpicParams::restoreManifests();
    EXPECT_EQ(machine.changesSince(before), "");
    ZqEpicParams::storeManifests();
    EXPECT_TRUE(machine.dir.exists(M::SAVED + "GUID-1.item"));
    EXPECT_TRUE(fs::is_empty(machine.dir.path(M::DATA + "Manifests")));
    machine.dir.write(M::DATA + "Manifests/new.item", "x");
    ZqEpicParams::storeManifests();
    EXPECT_TRUE(machine.dir.exists(M::SAVED + "new.item")) << "the set that is saved stays";
    fs::remove(machine.dir.path(M::SAVED + "new.item"));
    ZqEpicParams::restoreManifests();
    EXPECT_EQ(machine.changesSince(before), "");
    EXPECT_EQ(machine.launchersFile(), "");
    fs::remove_all(machine.dir.path(M::DATA));
    const auto without = machine.state();
    ZqEpicParams::storeManifests();
    ZqEpicParams::restoreManifests();
    EXPECT_EQ(machine.changesSince(without), "");
}

TEST(Launchers, TheRecordsReadAndWriteWhatTheyDontKnow) {
    M machine;
    const SxString folder = machine.dir.prefix();
    machine.dir.write("a.item", manifest("", "Fern", R"(, "Extra": {"deep": [1.5]})"));
    ZqEpicParams item("a.item", folder);
    EXPECT_EQ(item.exeName, "Alpha.exe");
    EXPECT_EQ(item.getFileName(), "epic.item");
    item.InstallationGuid = "G";
    item.write("b.item", folder + "new/");
    EXPECT_THAT(machine.dir.read("new/b.item"), AllOf(HasSubstr("\"deep\""), HasSubstr("\"G\"")));
    item.write("", folder + "new/");
    EXPECT_TRUE(machine.dir.exists("new/G.item"));
    machine.dir.write("plain.item", SxString(manifest("", "Fern")).substitute("Bin\\\\Win64/", "").str());
    EXPECT_EQ(ZqEpicParams("plain.item", folder).exeName, "Alpha.exe");
    EXPECT_THAT(failureOf([&] { ZqEpicParams("none.item", folder); }),
                AllOf(StartsWith("File "), HasSubstr("none.item not found.")));

    ZqRCParams config("", "");
    EXPECT_EQ(config.gameSortAlgorithm, "");
    config.gameSortAlgorithm = "by name";
    config.write("copy.json", folder);
    EXPECT_EQ(ZqRCParams("copy.json", folder).gameSortAlgorithm, "by name");
    config.print();
    EXPECT_EQ(machine.nLogged("secret") + machine.nLogged("somebody"), 0);
    EXPECT_EQ(machine.nLogged("password: "), 2) << "this one and whether to remember it";
    EXPECT_EQ(machine.nLogged("ZqRCParams Content"), 1);
}

TEST(Launchers, InA32BitPrefix) {
    M machine;
    machine.app.access = {"Steam"};
    ZqRegistry::removeRegEntriesAsAdmin(
        {{"HKLM/SOFTWARE/WOW6432Node/Valve/Steam", "InstallPath", ZqRegistry::RegSz, ""}});
    M::set("HKLM/SOFTWARE/Valve/Steam", "InstallPath", "C:\\Steam32");
    EXPECT_THAT(causeOf(machine), HasSubstr("Steam not installed"));
    const std::string file = "root/system.reg";
    machine.dir.write(file, SxString(machine.dir.read(file)).substitute("win64", "win32").str());
    EXPECT_EQ(causeOf(machine), "");
    EXPECT_EQ(appOf(machine).cmd, "C:/Steam32/steam.exe");
}
