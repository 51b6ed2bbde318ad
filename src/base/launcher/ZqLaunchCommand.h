#pragma once

#include "SxString.h"

class ZqAppParams;
class ZqEpicParams;

/// How a title is started through its launcher: the command of the launcher, from the registry, and what it
/// is to be told. Each operation changes the launch values of the record in memory, and raises where the
/// launcher isn't installed (tag NOT_INSTALLED) or the record doesn't say which title it is; then nothing is
/// changed. Safe from any thread.
class ZqLaunchCommand {
public:
    /// The words of launchers in `access` of `app.json`.
    static constexpr const char* STEAM = "Steam";
    static constexpr const char* EPIC = "Epic Games";
    static constexpr const char* UBISOFT = "Ubisoft";
    static constexpr const char* ORIGIN = "Origin";
    static constexpr const char* ROBOT_CACHE = "RobotCache";
    /// Tag of a failure: the launcher isn't installed on this machine.
    static constexpr const char* NOT_INSTALLED = "LauncherNotInstalled";

    static void setSteam(ZqAppParams* app);
    static void setUbisoft(ZqAppParams* app);
    /// `title`: the main entry of the library.
    static void setEpic(ZqAppParams* app, const ZqEpicParams& title);
    /// Leaves the arguments.
    static void setRobotCache(ZqAppParams* app);

    /// The program of a launcher; raises where it isn't installed.
    static SxString programOf(const SxString& word);
};
