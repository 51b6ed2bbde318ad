#pragma once

#include "SxString.h"

#include <string>

/// The machine root: a folder laid out like a Wine prefix, which gives the library's drive letters their
/// meaning. It is what set() says, else $WINEPREFIX, else `tavrin/prefix` in $XDG_DATA_HOME (`~/.local/share`
/// where that isn't set). Safe from any thread.
class ZqMachineRoot {
public:
    /// Sets the root, a host path, before its first use; an empty text brings the default back.
    static void set(const SxString& path);
    /// The root's host path, absolute, without a trailing slash. Raises where the user has no home folder.
    static SxString get();

    /// The host path of a path of the library. `X:/rest`, `X:\rest` and `X:` go through `dosdevices/x:` of
    /// the root (`C:` is `drive_c`, also where that link is missing); below a letter, backslashes count as
    /// slashes, `..` doesn't lead above the drive, and case is ignored where no name fits exactly. Parts that
    /// don't exist stay as given. Anything else is a host path already and comes back unchanged.
    static std::string hostPath(const std::string& path);

    /// The host path of `name`, which has slashes only, below the host folder `folder`, looked up as below a
    /// letter. Raises where a folder can't be listed.
    static std::string hostPathBelow(const std::string& folder, const std::string& name);
    /// The path as a Windows program sees it: `C:/rest` where it lies on the drive C:, else through the
    /// letter of the root whose folder lies nearest above it (usually `Z:/rest`), else the host path. With
    /// forward slashes and all links resolved. `path` is a host path that exists, or a library's.
    static SxString windowsPath(const SxString& path);

    /// Makes hostPath() the hook of SxOs. The units ZqLog and ZqSysEnv call it when the program starts, so a
    /// program needs not. Gives true, for use in an initialiser.
    static bool install() noexcept;
    /// Makes the drive `C:` of a root that isn't laid out yet, when something is to be put into it; false for
    /// every other letter. Raises where it can't.
    static bool makeDrive(const std::string& path);
};
