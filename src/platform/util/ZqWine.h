#pragma once

#include "SxString.h"

#include <optional>
#include <string>

/// Wine and the server that keeps the registry of a prefix in memory while programs run there. The server is
/// talked to by `wine reg export` and `wine reg import`: unlike `add` and `query` they take whole lists, and
/// any text as a name, and their answers don't depend on the language. Paths are host paths without a
/// trailing slash.
class ZqWine {
public:
    /// Whether a server serves the prefix: it holds a lock in its folder, which is named after the prefix's
    /// device and inode. That folder lies below `/tmp/.wine-UID`, or, with Debian's Wine, below a folder that
    /// the prefix's file `wineserver` names.
    static bool isServing(const SxString& prefix);
    /// Whether there is a `wine` in the folders of $PATH.
    static bool isInstalled();

    /// What the server has of a key ("HKEY_LOCAL_MACHINE\\Software\\...") and all below it, as a registry
    /// file in UTF-16; nothing where there is no such key. Raises where Wine fails. One call at a time for
    /// each prefix.
    static std::optional<std::string> exportKey(const SxString& prefix, const SxString& key);
    /// Whether the server has that key. Raises where Wine fails.
    static bool hasKey(const SxString& prefix, const SxString& key);
    /// Hands a registry file (UTF-16) to the server. What of it the server refuses isn't told.
    static void importKeys(const SxString& prefix, const std::string& text);
};
