#include "ZqLaunchCommand.h"

#include "SxException.h"
#include "ZqAppParams.h"
#include "ZqEpicParams.h"
#include "ZqSysEnv.h"

namespace {

constexpr const char* UNIT = "src/base/ZqLaunchCommand";
constexpr const char* WOW_NODE = "WOW6432Node/";
constexpr const char* EPIC_COMMAND = "HKCR/com.epicgames.launcher/shell/open/command";
constexpr const char* ROBOT_COMMAND = "HKCR/RobotCache/shell/open/command";
/// Where EA Origin's installer notes its program. A mount doesn't need it, since the title starts itself.
constexpr const char* ORIGIN_KEY = "HKLM/SOFTWARE/WOW6432Node/Origin";
constexpr const char* ORIGIN_VALUE = "ClientPath";
/// How long the Epic launcher may take to start the title, in seconds.
constexpr int64 EPIC_DELAY = 15;

/// A launcher that is known by its folder, and a title by an id in the image's registry entries.
struct ById {
    const char *key, *value, *program;
    const char* marker; ///< the id follows it in the key of an entry
    const char *begin, *end;
    const char *notInstalled, *notFound;
};
constexpr ById STEAM_TITLE = {"HKLM/SOFTWARE/WOW6432Node/Valve/Steam",
                              "InstallPath",
                              "/steam.exe",
                              "Steam/Apps/",
                              "steam://rungameid/",
                              "",
                              "Steam not installed",
                              "Steam App ID not found"};
constexpr ById UBISOFT_TITLE = {"HKLM/SOFTWARE/WOW6432Node/Ubisoft/Launcher",
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

SxString programOf(const ById& launcher) {
    SxString key = launcher.key;
    // A prefix for 32-bit programs alone has no node of their own.
    if (!ZqRegistry::isVal(key, launcher.value) && ZqRegistry::isWin32()) key = key.substitute(WOW_NODE, "");
    if (!ZqRegistry::isVal(key, launcher.value)) raiseMissing(launcher.notInstalled, __LINE__);
    return ZqSysEnv::unifySlashes(ZqRegistry::getVal(key, launcher.value) + launcher.program);
}

/// The title's id becomes part of a command line.
void requireId(const SxString& id, const char* marker) {
    for (const char c : id.str()) {
        if (static_cast<unsigned char>(c) > ' ' && c != '"' && c != '\'' && c != '\x7F') continue;
        throw SxException("The id '" + id.makeVisible() + "' behind '" + marker +
                              "' in the registry entries of app.json holds a blank, a quote or a control "
                              "character",
                          UNIT, __LINE__);
    }
}

void setById(const ById& launcher, ZqAppParams* app) {
    const SxString program = programOf(launcher);
    SxString id;
    for (const ZqRegistry::Item& item : app->registry) {
        const SxString key = ZqSysEnv::unifySlashes(item.key);
        if (key.contains(launcher.marker) == 0) continue;
        id = key.right(launcher.marker);
        break;
    }
    if (id.isEmpty()) throw SxException(launcher.notFound, UNIT, __LINE__);
    requireId(id, launcher.marker);
    app->cmd = program;
    app->args = {launcher.begin + id + launcher.end};
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
    if (!command.startsWith("\"") || command.find("\" ") < 2)
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
    setById(STEAM_TITLE, app);
}

void ZqLaunchCommand::setUbisoft(ZqAppParams* app) {
    setById(UBISOFT_TITLE, app);
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
    if (word == ORIGIN && ZqRegistry::isVal(ORIGIN_KEY, ORIGIN_VALUE))
        return ZqSysEnv::unifySlashes(ZqRegistry::getVal(ORIGIN_KEY, ORIGIN_VALUE));
    raiseMissing("EA Origin not installed", __LINE__);
}
