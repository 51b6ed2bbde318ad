#include "ZqDriveFacts.h"

#include "SxException.h"
#include "SxFileInfo.h"
#include "ZqDriveKind.h"
#include "ZqLog.h"

#include <algorithm>
#include <cerrno>
#include <sys/statvfs.h>
#include <unordered_map>

namespace {

constexpr const char* TABLE = "proc/self/mountinfo";

/// One drive, while its mounts are looked at.
struct Found {
    ZqDriveFacts::Drive drive;
    int error = 0; ///< an errno value: why no mount has told the sizes
    bool isTold = false;
};

/// Whether the mount's own file system answers at its mount point, and without a wait. All paths pass the
/// root folder, so that one counts for itself alone.
bool canAsk(const ZqMountTable& table, const ZqMountTable::Mount& mount) {
    const auto way = table.wayTo(mount.at);
    return !way.empty() && way.back() == &mount &&
           std::none_of(way.begin(), way.end(), [&](const auto* passed) {
               return (passed->at != "/" || passed == &mount) && ZqDriveKind::mayHang(*passed);
           });
}

void ask(const std::string& path, Found* found) {
    struct ::statvfs info {};
    int result = 0;
    do {
        result = ::statvfs(path.c_str(), &info);
    } while (result != 0 && errno == EINTR);
    if (result != 0) {
        found->error = errno;
        return;
    }
    const uint64 size = static_cast<uint64>(info.f_blocks) * info.f_frsize;
    // Of the file systems in memory the largest one stands for all.
    if (found->isTold && size <= found->drive.size) return;
    found->drive.size = size;
    found->drive.free = std::min(size, static_cast<uint64>(info.f_bavail) * info.f_frsize);
    found->isTold = true;
}

} // namespace

ZqDriveFacts ZqDriveFacts::read(const SxString& root) {
    const ZqFactFiles files(root);
    ZqDriveFacts facts;
    std::string text;
    try {
        text = files.text(TABLE);
    } catch (const SxException& e) {
        facts.faults.push_back(e.toString(SxException::ShowMessage, ": "));
        return facts;
    }
    const ZqMountTable table(text);
    if (table.getNBad() > 0)
        facts.faults.push_back(SxString(TABLE) + ": lines that aren't understood: " + table.getNBad());
    ZqDriveKind kinds(&files, &table);
    std::vector<Found> all;
    std::unordered_map<std::string, size_t> places;
    for (const ZqMountTable::Mount& mount : table.getMounts()) {
        const auto kind = kinds.of(mount);
        if (!kind) continue;
        const auto [place, isNew] = places.emplace(kind->name, all.size());
        if (isNew) {
            all.push_back({{SxString(kind->name).validUtf8(), SxString(mount.type).validUtf8(), kind->type}});
        }
        Found& found = all[place->second];
        const bool isWanted = !found.isTold || kind->type == ZqDriveKind::Memory;
        if (isWanted && canAsk(table, mount)) ask(files.path(mount.at), &found);
    }
    for (const Found& found : all) {
        facts.drives.push_back(found.drive);
        if (found.isTold || found.error == 0) continue;
        facts.faults.push_back("Getting Size failed with error: " +
                               SxString::sprintf("0x%X", static_cast<unsigned>(found.error)) + " (" +
                               found.drive.name + ")");
    }
    return facts;
}

SxString ZqDriveFacts::nameOf(const SxString& path, const SxString& root) {
    if (path.isEmpty()) return SxString();
    try {
        const ZqFactFiles files(root);
        const std::string resolved = SxOs::physicalPath(SxOs::hostPath(SxFileInfo(path).getAbsPath()));
        const ZqMountTable table(files.text(TABLE));
        const auto way = table.wayTo(resolved);
        if (way.empty()) return SxString();
        const auto kind = ZqDriveKind(&files, &table).of(*way.back());
        return kind ? SxString(kind->name).validUtf8() : SxString();
    } catch (const SxException& e) {
        zqLogMsg("base",
                 "Cannot tell the drive of '" + path + "': " + e.toString(SxException::ShowMessage, ": "));
        return SxString();
    }
}
