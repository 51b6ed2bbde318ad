#pragma once

#include "SxList.h"
#include "SxString.h"

/// Where launchers keep what they know of installed titles, and what is done there with care: names come with
/// an image and may be hostile, and a link in the place of what is to be written or removed would lead out of
/// the launcher's folder. Links above these places are followed, since a player may keep them on another
/// disk. All operations raise, naming the path. Safe from any thread.
class ZqLauncherFiles {
public:
    /// Of the Epic Games Launcher; its folder `/Manifests` has a file `.item` for each installed title.
    static constexpr const char* EPIC_DATA = "C:/ProgramData/Epic/EpicGamesLauncher/Data";
    static constexpr const char* EPIC_MANIFESTS = "C:/ProgramData/Epic/EpicGamesLauncher/Data/Manifests";
    /// Store folders of titles, each by the title's name.
    static constexpr const char* EPIC_STORES = "C:/ProgramData/Epic/EpicGamesLauncher/Data/egstore";
    /// Where the player's manifests are while titles are mounted.
    static constexpr const char* EPIC_BACKUP = "C:/ProgramData/VOLM/EpicGamesLauncher";
    static constexpr const char* EPIC_SAVED = "C:/ProgramData/VOLM/EpicGamesLauncher/Manifests";
    /// Of EA Origin: a folder for each installed title.
    static constexpr const char* ORIGIN_CONTENT = "C:/ProgramData/Origin/LocalContent";

    /// Largest manifest or configuration that is taken, in bytes.
    static constexpr int64 MAX_MANIFEST = 16 << 20;
    /// Reads a text file in UTF-8, without a byte-order mark. Refuses a link.
    static SxString readText(const SxString& path);

    /// Raises where `name` can't be the plain name of a file: dots alone, slashes, a drive letter, control
    /// characters, and quotes, unless it may have those. `what` says whose name it is. An empty one passes.
    static void requirePlain(const SxString& name, const SxString& what, bool mayHaveQuotes = false);
    /// Raises where a link has that name.
    static void requireNoLink(const SxString& path);
    /// The folders that mkdir_p() would make, the topmost first.
    static SxList<SxString> missingFolders(const SxString& path);
    /// Makes a folder and those above it, and sees to it that they are on the device: what moves into one
    /// that isn't could vanish with it.
    static void makeFolder(const SxString& path);
    /// Copies a folder; what stands at `to` is joined. Refuses links in it, which a launcher would write
    /// through.
    static void copyFolder(const SxString& from, const SxString& to);
    /// Removes what has that name, with its content; nothing where nothing has. Refuses a link. The removal
    /// is on the device at the end.
    static void remove(const SxString& path);
    /// Removes a folder if it is there and empty, but for halves of moves. Gives whether it is gone.
    static bool removeEmpty(const SxString& path);
    /// Moves names of a folder into another one. What is there already stays and takes the place of what
    /// comes, folders get what they lack. What can't be moved stays; the rest goes on, and that is raised at
    /// the end.
    static void join(const SxString& from, const SxList<SxString>& names, const SxString& to);
    /// The same, but what comes takes the place of what is there.
    static void replace(const SxString& from, const SxList<SxString>& names, const SxString& to);
    /// Renames, or moves to another file system, and sees to it that both folders are on the device.
    static void move(const SxString& from, const SxString& to);
};
