#pragma once

#include "ZqFactFiles.h"
#include "ZqMountTable.h"

#include <map>
#include <optional>
#include <set>

/// What of the mounted file systems is a drive, and its name, which tells no person's name: neither a mount
/// point nor a label has a part in it. Belongs to one thread.
class ZqDriveKind {
public:
    /// As records have them.
    enum Type { Removable = 2, Fixed = 3, Network = 4, Optical = 5, Memory = 6 };

    struct Drive {
        std::string name;
        Type type = Fixed;
    };

    /// Both are kept alive by the caller.
    ZqDriveKind(const ZqFactFiles* files_, const ZqMountTable* table_);

    /// The drive that a mount shows; nothing where it is none: a file system of the kernel's own making, a
    /// view of files that lie on other drives (overlay, loop devices with a read-only image, most FUSE file
    /// systems), or a drive of ours. What the root folder lies on is always one.
    std::optional<Drive> of(const ZqMountTable::Mount& mount);
    /// Whether a question to such a file system may wait without end: for a network, or for another process.
    static bool mayHang(const ZqMountTable::Mount& mount);
    /// The source of a network file system without whoever logs in, and without the folders below the first
    /// one, which are often named after persons: "//nas/games", "nas:/export", "https://cloud.example/dav".
    /// `persons`: names that aren't to stand in it.
    static std::string networkName(const ZqMountTable::Mount& mount, std::set<std::string> persons);

private:
    std::optional<Drive> ofDevice(const ZqMountTable::Mount& mount);
    std::optional<Drive> ofBlockDevice(const std::string& kernelName, const ZqMountTable::Mount& mount);
    std::string kernelNameOf(const ZqMountTable::Mount& mount) const;
    bool isOurs(const ZqMountTable::Mount& mount);
    const std::set<std::string>& getPersons();

    const ZqFactFiles* files;
    const ZqMountTable* table;
    const ZqMountTable::Mount* rootMount = nullptr;
    std::set<std::string> ourDevices;                  ///< "major:minor"
    std::optional<std::set<std::string>> persons;      ///< in lower case
    std::map<std::string, std::optional<Drive>> known; ///< drives of block devices, by "major:minor"
};
