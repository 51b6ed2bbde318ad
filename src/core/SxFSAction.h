#pragma once

#include "SxFileInfo.h"
#include "SxOs.h"

#include <optional>

/// Operations on files and folders. All but the tests raise SxException on failure, naming the path and the
/// cause. Links are removed and copied as links and never followed downward. Safe from any thread.
class SxFSAction {
public:
    /// Whether `path` is a file, or a link to one.
    static bool test_f(const SxString& path);
    /// Whether `path` is a folder, or a link to one.
    static bool test_d(const SxString& path);
    static bool exists(const SxString& path);
    /// What has that name (a link itself, not what it leads to); nothing where none has. Raises where that
    /// can't be told: a disk that fails must not make a file count as gone.
    static std::optional<SxStat> look(const SxString& path);
    /// Whether nothing has that name; raises as look() does.
    static bool isGone(const SxString& path) { return !look(path); }
    /// Bytes of the file, or of the one that a link leads to; -1 where there is none. Raises as look() does.
    static int64 sizeOf(const SxString& path);

    /// Free bytes of the disk of a file or folder, which need not exist yet.
    static int64 freeSpace(const SxString& path);

    /// Makes a folder and all that are missing above it.
    static void mkdir_p(const SxString& path, int mode = 0777);
    /// Copies a file, with its permissions but without set-id and sticky bits, or a folder with its content;
    /// existing files are replaced. The bytes are on the device at the end.
    static void cp(const SxString& from, const SxString& to);
    /// Renames; across file systems copies, with the owner as far as the user may, and removes: the new name
    /// stands once the copy is whole and on the device, and what is cut off has both. Replaces a file.
    static void mv(const SxString& from, const SxString& to);
    /// Whether a name is one that mv() gives to a copy until it is whole. One that was cut off stays.
    static bool isHalfMoved(const SxString& name);
    /// Gives what has that name the owner of another, as far as the user may, and, but for a link, its
    /// permissions: a file none of the set-id and sticky bits, a folder all.
    static void takeAfter(const SxString& path, const SxStat& other);
    static void rm(const SxString& path);
    /// Removes a file, or a folder with its content.
    static void rm_r(const SxString& path);
    static void rm_r(const SxFileInfo& info) { rm_r(info.getOrig()); }
    /// Makes an empty file where none is, and sets its time of modification.
    static void touch(const SxString& path, int mode = 0644);
    /// What a folder holds, sorted by name (bytes), so that what is built from it is reproducible.
    static SxList<SxFileInfo> ls(const SxString& path);
    /// All files and folders below a folder, sub-folders included, whose name matches: `pattern` is the
    /// folder, a slash, and a name with the wildcards "*" and "?" and "[...]". In each folder sorted by name
    /// (bytes), a folder before what it holds. Links to folders are listed, not entered; a link that leads
    /// into itself or to a folder above it raises.
    static SxList<SxFileInfo> find(const SxString& pattern, bool = false);
    /// The folders in a folder, sorted by name.
    static SxList<SxDir> getDirs(const SxString& path);
    /// Returns when names made, renamed or removed in the folder are on the device.
    static void syncDir(const SxString& path);
};
