#include "ZqDriveKind.h"

#include <cstdlib>

// The kernel's table of mounts, whose names come from users: each way leads along the path that it is for,
// and the name of a share has no login.
extern "C" int LLVMFuzzerTestOneInput(const unsigned char* data, size_t size) {
    const ZqMountTable table({reinterpret_cast<const char*>(data), size});
    const ZqFactFiles files("/nowhere");
    ZqDriveKind kinds(&files, &table);
    for (const ZqMountTable::Mount& mount : table.getMounts()) {
        for (const ZqMountTable::Mount* passed : table.wayTo(mount.at)) {
            const bool isAbove =
                passed->at == "/" || mount.at == passed->at || (mount.at + "/").starts_with(passed->at + "/");
            if (!isAbove) std::abort();
        }
        const auto drive = kinds.of(mount);
        if (drive && drive->name.empty()) std::abort();
        ZqMountTable::Mount share = mount;
        share.type = "cifs";
        const std::string name = ZqDriveKind::networkName(share, {});
        if (name.empty() || name.find('@') != std::string::npos) std::abort();
    }
    return 0;
}
