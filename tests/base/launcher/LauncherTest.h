#pragma once

#include "../mount/MountTest.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqLaunchers.h"
#include "ZqStreamRecord.h"

#include <sys/stat.h>

constexpr const char* APP_CONFIG = R"({
  "client_language": 1, "client_run_at_startup": false, "formatVersion": 3,
  "gameOrders": [7, 1], "hide_ticker": true, "hours_mined": "1.5", "iron_balance": "0",
  "last_login": {"password": "secret", "remember_password": true, "username": "somebody", "token": "kept"},
  "libraries": ["D:/Games"], "miner_id": "m", "miningRewardSetConfigurationId": "c",
  "mining_configs": {"cpuLiftOff": false, "cpu_mining_state": false, "first_time_mining": true,
                     "liftOff": false, "gpu_mining_state": false},
  "mining_reward_fromdate": "a", "mining_reward_todate": "b", "selected_server": 2,
  "window": {"close_behaviour": 0, "hight": 600, "width": 800}, "unknown": [1, {"x": null}]
})";

inline std::string manifest(const std::string& guid, const std::string& folder,
                            const std::string& more = "") {
    return R"({"LaunchCommand": "-go", "LaunchExecutable": "Bin\\Win64/Alpha.exe", "InstallationGuid": ")" +
           guid + R"(", "MandatoryAppFolderName": ")" + folder +
           R"(", "MainWindowProcessName": "", "AppName": "Fern", "MainGameAppName": "Fern")" + more + "}";
}

/// A machine on which all launchers are installed and the player owns titles, and an image of a title that
/// all of them can start.
class LauncherMachine : public Machine {
public:
    LauncherMachine() {
        set("HKLM/SOFTWARE/WOW6432Node/Valve/Steam", "InstallPath", "C:\\Program Files (x86)\\Steam");
        set("HKLM/SOFTWARE/WOW6432Node/Ubisoft/Launcher", "InstallDir", "C:\\Ubisoft");
        set("HKCR/com.epicgames.launcher/shell/open/command", "", "\"C:\\Epic\\Launcher.exe\" %1 -x");
        set("HKCR/RobotCache/shell/open/command", "", "\"C:\\RC\\RobotCache.exe\" \"%1\"");
        // The player owns the title, too.
        set("HKLM/SOFTWARE/Valve/Steam/Apps/1234", "Installed", "the player's");
        ZqRegistry::setVal("HKCU/Software/Game", "Level", ZqRegistry::RegBinary, "0badf00d");
        dir.write(DATA + "Manifests/GUID-1.item", "the player's own");
        dir.write(DATA + "Manifests/other.item", "another title");
        dir.write(DATA + "Manifests/Pending/x.item", "a download");
        fs::permissions(dir.path(DATA + "Manifests"), fs::perms(0750));
        fs::permissions(dir.path(DATA + "Manifests/other.item"), fs::perms(0600));
        dir.write(DATA + "egstore/Other/.egstore/x.mancpn", "other");
        dir.write(ORIGIN + "Other/other.mfst", "other");
        dir.write(CONFIG, APP_CONFIG);
        fs::permissions(dir.path(CONFIG), fs::perms(0640));

        const std::string drive = "volume/TAVRIN-protected/app/";
        dir.write(drive + "epicitems/epic.item", manifest("GUID-1", "Fern", R"(, "FormatVersion": 0)"));
        dir.write(drive + "epicitems/more.item", "\xEF\xBB\xBF" + manifest("GUID-2", "Fern"));
        dir.write(drive + "Fern/.egstore/GUID-1.mancpn", "of the store");
        dir.write(drive + "Origin/LocalContent/Fern Title/fern.mfst", "of Origin");
        app.access = {"Steam", "Epic Games", "Unheard of", "Ubisoft", "Origin", "RobotCache"};
        app.cmd = "{{ZQDRIVE}}/alpha.exe";
        app.args = {"-own"};
        app.name = "alpha";
        app.registry = {{"HKLM\\SOFTWARE\\Valve\\Steam\\Apps\\1234", "Installed", ZqRegistry::RegDword, "1"},
                        {"HKLM/SOFTWARE/Valve/Steam/Apps/99", "", ZqRegistry::RegSz, "{{ZQDRIVE}}/"},
                        {"HKLM/Software/Uplay Install 55", "x", ZqRegistry::RegSz, "y"},
                        {"HKCU/Software/Game/Deep/Deeper", "Path", ZqRegistry::RegSz, "{{ZQDRIVE}}/game"},
                        {"HKCU/Software/Game", "Level", ZqRegistry::RegSz, "high"}};
    }

    /// All that is the player's: the drive C: without our own folder, with modes, and the registry.
    std::map<std::string, std::string> state() const {
        std::map<std::string, std::string> all;
        for (const auto& [path, mark] : dir.snapshot("root")) {
            if (path.starts_with("drive_c/ProgramData/TAVRIN") || path.ends_with(".lock") ||
                path.starts_with("dosdevices"))
                continue;
            struct stat info = {};
            ::lstat(dir.path("root/" + path).c_str(), &info);
            std::ostringstream text;
            text << mark << " mode " << std::oct << info.st_mode << " owner " << info.st_uid;
            all[path] = text.str();
        }
        for (const char* file : {"system.reg", "user.reg"}) {
            // All keys, also those that only stand above others, with their values.
            std::istringstream lines(
                dir.exists(SxString("root/").str() + file) ? dir.read(SxString("root/").str() + file) : "");
            std::string key = file;
            all.erase(file);
            for (std::string line; std::getline(lines, line);) {
                if (line.starts_with("[")) {
                    key = file + ("\\" + line.substr(1, line.find(']') - 1));
                    for (size_t end = key.size(); end != std::string::npos; end = key.rfind('\\', end - 1))
                        all[key.substr(0, end)];
                } else if (!line.empty() && !line.starts_with("#time")) {
                    all[key] += line + "\n";
                }
            }
        }
        return all;
    }
    /// What differs from a former state.
    std::string changesSince(const std::map<std::string, std::string>& before) const {
        std::string changes;
        const auto now = state();
        for (const auto& [path, mark] : before) {
            const auto found = now.find(path);
            if (found == now.end())
                changes += path + " is gone\n";
            else if (found->second != mark)
                changes += path + " is " + found->second + ", was " + mark + "\n";
        }
        for (const auto& [path, mark] : now) {
            if (!before.contains(path)) changes += path + " is new\n";
        }
        return changes;
    }
    /// The client is gone, and the drive with its service.
    void loseDrive() { driver.mounted = false; }
    std::string registry(const char* key, const char* value) const {
        return ZqRegistry::isVal(key, value) ? ZqRegistry::getVal(key, value).str() : "none";
    }
    static void set(const char* key, const char* value, const char* text) {
        ZqRegistry::setVal(key, value, ZqRegistry::RegSz, text);
    }
    std::string launchersFile() const {
        const std::string file = "root/drive_c/ProgramData/TAVRIN/launchers.json";
        return dir.exists(file) ? dir.read(file) : "";
    }

    inline static const std::string PROGRAM_DATA = "root/drive_c/ProgramData/",
                                    DATA = PROGRAM_DATA + "Epic/EpicGamesLauncher/Data/",
                                    SAVED = PROGRAM_DATA + "VOLM/EpicGamesLauncher/Manifests/",
                                    ORIGIN = PROGRAM_DATA + "Origin/LocalContent/",
                                    CONFIG =
                                        PROGRAM_DATA + "RobotCache/RobotCacheClient/config/appConfig.json";
};
