#pragma once

#include "SxList.h"
#include "SxString.h"

/// Facts and operations of the machine. All are safe from any thread. Those that ask the system and have no
/// value for 'not known' raise SxException.
class ZqSysEnv {
public:
    /// Kinds of system folders, all below a drive letter.
    enum Path {
        Windows = 0,         ///< "C:/windows"
        System = 1,          ///< "C:/windows/system32"
        ProgramFiles = 2,    ///< "C:/Program Files"
        ProgramFilesX86 = 3, ///< "C:/Program Files (x86)"
        CommonAppData = 4,   ///< "C:/ProgramData": configuration for all users
        UserProfile = 5,     ///< "C:/users/<name>"
        RoamingAppData = 6,  ///< "C:/users/<name>/AppData/Roaming"
        LocalAppData = 7     ///< "C:/users/<name>/AppData/Local"
    };

    /// Milliseconds since 1970-01-01 00:00 UTC.
    static int64 getSysTime();
    /// The local time as "2031-05-07T13:04:09".
    static SxString getTimestamp();

    static SxString getSysPath(Path kind);
    /// The folder of the JSON schema files, with a trailing slash: what setSchemaPath() said, else the first
    /// that holds "zqapp-schema.json" of `../share/tavrin/schemas/` beside the program's folder, the folder
    /// of the installation, and that of the source tree.
    static SxString getSchemaPath();
    /// A schema folder of a client's own; empty for the default.
    static void setSchemaPath(const SxString& path);
    /// The folder of the external tools, without a trailing slash: what setRTERootDir() said, else
    /// `../lib/tavrin` beside the program's folder if that is there, else the program's folder.
    static SxString getRTERootDir();
    static void setRTERootDir(const SxString& path);
    /// The library's version.
    static SxString getRTEVersion();

    /// 32 hex digits that tell this machine from others, made from its id in a way that doesn't disclose
    /// that; empty where the machine has none.
    static SxString getMachineId();
    /// The user's id in the system, in decimal.
    static SxString getUserId();
    /// The name of a user; the id in decimal where it has none.
    static SxString getUserName(int64 id);
    /// Whether there is a program that can be started by that name: a path, or a name in the folders of
    /// $PATH.
    static bool isProgram(const SxString& name);
    /// A new random GUID (RFC 4122, version 4) in upper case, without braces.
    static SxString getNewGUID();
    /// Bytes that the user may still write on the file system of `path`, which need not exist yet.
    static uint64 getFreeDiskSpace(const SxString& path);

    // A process has the name `name` if that is the last part of its program's path, or of the path that it
    // was called with (after slashes and backslashes, as Wine passes them on). Case is ignored for names
    // that end in ".exe". The calling process and those that have ended but are still listed don't count.

    static bool isProcRunning(const SxString& name);
    /// The id of a process with that name, the smallest of several; -1 if there is none. `limit` is the
    /// longest time to wait for one to appear, in milliseconds; up to 0, so also with -1, it looks once.
    static int getProcessID(const SxString& name, int64 limit);
    /// The ids of all processes with that name, in ascending order.
    static SxList<int> getProcessIDs(const SxString& name);
    /// The names of the programs that this user runs, each once, in alphabetic order, without this one: the
    /// last part of the program's path, or, of a Windows program, of the path that it was called with.
    static SxList<SxString> getProgramNames();
    /// Whether a process is this user's, and one of the machine root that is in force, as its environment at
    /// its start says.
    static bool isInMachineRoot(int id);
    /// Ends a process at once. Gives whether it has been told to, or is gone already; else says why in the
    /// log.
    static bool killProcess(int id);

    /// Cuts a file to `size` bytes, or extends it with zeros.
    static void truncateFile(const SxString& path, int64 size);
    /// `path` with all backslashes as slashes.
    static SxString unifySlashes(const SxString& path);
    /// `path` with all slashes as backslashes.
    static SxString unifyBackslashes(const SxString& path);

    /// Logs one line of progress: name, text, percent, seconds since `t0` (of getSysTime()) and the seconds
    /// that are left at that rate, as far as they can be told.
    static void logProgress(uint64 done, uint64 total, int64 t0, const SxString& name, const SxString& text);
};
