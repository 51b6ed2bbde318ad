#include "ZqLaunchCommand.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqAppParams.h"
#include "ZqEpicParams.h"
#include "ZqLauncherFiles.h"
#include "ZqSysEnv.h"

namespace {

constexpr const char* UNIT = "src/base/ZqLaunchCommand";
constexpr const char* WOW_NODE = "WOW6432Node/";
constexpr const char* EPIC_COMMAND = "HKCR/com.epicgames.launcher/shell/open/command";
constexpr const char* ROBOT_COMMAND = "HKCR/RobotCache/shell/open/command";
/// How long the Epic launcher may take to start the title, in seconds.
constexpr int64 EPIC_DELAY = 15;

/// A launcher that is known by its folder, and a title by a number in the image's registry entries.
struct ByNumber {
    const char *key, *value, *program;
    const char* marker; ///< the number follows it in the key of an entry
    const char *begin, *end;
    const char *notInstalled, *notFound;
};
constexpr ByNumber STEAM_TITLE = {"HKLM/SOFTWARE/WOW6432Node/Valve/Steam",
                                  "InstallPath",
                                  "/steam.exe",
                                  "Steam/Apps/",
                                  "steam://rungameid/",
                                  "",
                                  "Steam not installed",
                                  "Steam App ID not found"};
constexpr ByNumber UBISOFT_TITLE = {"HKLM/SOFTWARE/WOW6432Node/Ubisoft/Launcher",
                                    "InstallDir",
                                    "/upc.exe",
                                    "Uplay Install ",
                                    "uplay://launch/",
                                    "/0",
                                    "UPlay not installed",
                                    "UPlay App ID not found"};

[[noreturn]] void raiseMissing(const char* text, int line) {
    throw SxException(ZqLaunchCommand::NOT_INSTALLED, text, UNIT, line);
}

SxString programOf(const ByNumber& launcher) {
    SxString key = launcher.key;
    // A prefix for 32-bit programs alone has no node of their own.
    if (!ZqRegistry::isVal(key, launcher.value) && ZqRegistry::isWin32()) key = key.substitute(WOW_NODE, "");
    if (!ZqRegistry::isVal(key, launcher.value)) raiseMissing(launcher.notInstalled, __LINE__);
    return ZqSysEnv::unifySlashes(ZqRegistry::getVal(key, launcher.value) + launcher.program);
}

/// The title's number becomes part of a command line.
void requireNumber(const SxString& number, const char* marker) {
    for (const char c : number.str()) {
        if (static_cast<unsigned char>(c) > ' ' && c != '"' && c != '\'' && c != '\x7F') continue;
        throw SxException("The id '" + number.makeVisible() + "' behind '" + marker +
                              "' in the registry entries of app.json holds a blank, a quote or a control "
                              "character",
                          UNIT, __LINE__);
    }
}

void setByNumber(const ByNumber& launcher, ZqAppParams* app) {
    const SxString program = programOf(launcher);
    SxString number;
    for (const ZqRegistry::Item& item : app->registry) {
        const SxString key = ZqSysEnv::unifySlashes(item.key);
        if (key.contains(launcher.marker) == 0) continue;
        number = key.right(launcher.marker);
        break;
    }
    if (number.isEmpty()) throw SxException(launcher.notFound, UNIT, __LINE__);
    requireNumber(number, launcher.marker);
    app->cmd = program;
    app->args = {launcher.begin + number + launcher.end};
}

/// The command of a kind of address; raises `missing` where nothing is installed for it.
SxString commandOf(const char* key, const char* missing) {
    if (!ZqRegistry::isVal(key, "")) raiseMissing(missing, __LINE__);
    return ZqRegistry::getVal(key, "");
}

[[noreturn]] void raiseOdd(const char* key, const SxString& command, const char* lacks, int line) {
    throw SxException("The command '" + command.makeVisible() + "' of the registry key '" + key +
                          "' has no " + lacks,
                      UNIT, line);
}

SxString epicProgram() {
    const SxString command = commandOf(EPIC_COMMAND, "Epic Games Launcher not installed");
    if (!command.startsWith("\"") || command.find("\" ") < 1)
        raiseOdd(EPIC_COMMAND, command, "program in quotes", __LINE__);
    return ZqSysEnv::unifySlashes(command.left("\" ").right("\""));
}

SxString robotProgram() {
    const SxString command = commandOf(ROBOT_COMMAND, "RC Games Launcher not installed");
    const int64 end = command.changeCase(false).find(".exe");
    if (end < 0) raiseOdd(ROBOT_COMMAND, command, "\".exe\"", __LINE__);
    SxString program(command.str().substr(0, static_cast<size_t>(end)) + ".exe");
    // The quote in front of a program that is in quotes; the other one has fallen away.
    if (program.startsWith("\"")) program = program.right("\"");
    return ZqSysEnv::unifySlashes(program);
}

} // namespace

void ZqLaunchCommand::setSteam(ZqAppParams* app) {
    setByNumber(STEAM_TITLE, app);
}

void ZqLaunchCommand::setUbisoft(ZqAppParams* app) {
    setByNumber(UBISOFT_TITLE, app);
}

void ZqLaunchCommand::setEpic(ZqAppParams* app, const ZqEpicParams& title) {
    app->cmd = epicProgram();
    app->name = title.exeName;
    app->delay = EPIC_DELAY;
    app->args = {"com.epicgames.launcher://apps/" + title.AppName + "?action=launch&silent=true"};
}

void ZqLaunchCommand::setRobotCache(ZqAppParams* app) {
    app->cmd = robotProgram();
}

SxString ZqLaunchCommand::programOf(const SxString& word) {
    if (word == STEAM) return ::programOf(STEAM_TITLE);
    if (word == UBISOFT) return ::programOf(UBISOFT_TITLE);
    if (word == EPIC) return epicProgram();
    if (word == ROBOT_CACHE) return robotProgram();
    if (word == ORIGIN && SxFSAction::test_d(ZqLauncherFiles::ORIGIN_CONTENT)) return SxString();
    raiseMissing("EA Origin not installed", __LINE__);
}
