#include "ZqSourceTree.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqBlocks.h"
#include "ZqLog.h"
#include "ZqTaskMon.h"

#include <algorithm>
#include <set>

namespace {

constexpr const char* UNIT = "src/publish/ZqSourceTree";
constexpr int64 COPY_CHUNK = 1 << 20;
constexpr uint32 FOLDER_PERMISSIONS = 0755;

[[noreturn]] void fail(const SxString& what, int64 error, int line) {
    throw SxException(SxException(SxOs::errorText(error), UNIT, line), what, UNIT, line);
}

/// All files of a drive belong to root, and the player is another user. So everybody may read every file, and
/// what anyone may execute, all may.
uint32 drivePermissions(uint32 permissions) {
    const uint32 execute = permissions & 0111 ? 0111 : 0;
    return (permissions & 0666) | 0644 | execute;
}

std::string linkTarget(const SxString& path) {
    std::string target;
    const int result = SxOs::get().readLink(SxOs::hostPath(path), &target);
    if (result < 0) fail("Cannot read the symbolic link '" + path + "'", result, __LINE__);
    return target;
}

/// Whether a link's target goes above the folder that `relPath` counts from, by its text alone.
bool climbsOut(const SxString& relPath, const std::string& target) {
    int64 depth = relPath.tokenize('/').getSize() - 1;
    for (const SxString& part : SxString(target).tokenize('/')) {
        if (part == ".") continue;
        depth += part == ".." ? -1 : 1;
        if (depth < 0) return true;
    }
    return false;
}

} // namespace

ZqSourceTree::ZqSourceTree(const SxString& source_, const ZqTaskMon& job) : source(source_) {
    if (!SxFSAction::test_d(source)) {
        throw SxException("'" + source + "' is not a folder", UNIT, __LINE__);
    }
    std::string root;
    SxStat own;
    int result = SxOs::get().canonical(SxOs::hostPath(source), &root);
    if (result == 0) result = SxOs::get().stat(root, &own);
    if (result < 0) fail("Cannot look at '" + source + "'", result, __LINE__);
    device = own.device;
    // A file that has two names in the folder gets a copy for the second. What the drive holds must not
    // depend on where the image is made, and so on whether the system allows the two to share their blocks.
    std::set<std::pair<uint64, uint64>> seen;
    for (const SxFileInfo& info : SxFSAction::find(source + "*", false)) {
        if (job.stopRequested()) return;
        SxStat stat;
        result = SxOs::get().lstat(SxOs::hostPath(info.getOrig()), &stat);
        if (result < 0) fail("Cannot look at '" + info.getOrig() + "'", result, __LINE__);
        Entry entry{info.getRelPath(source), stat.kind};
        if (stat.kind == SxStat::Other) {
            zqLogMsg("publish", "'" + info.getOrig() + "' is passed over: it is no file, folder or link");
            ++nSkipped;
            continue;
        }
        if (stat.kind == SxStat::Link) refuseLeavingLink(entry.relPath, root);
        if (stat.kind == SxStat::File) {
            entry.size = stat.size;
            entry.permissions = drivePermissions(stat.permissions);
            entry.linkable = seen.emplace(stat.device, stat.inode).second && stat.device == device &&
                             stat.permissions == entry.permissions;
        }
        entries.push_back(entry);
    }
}

void ZqSourceTree::refuseLeavingLink(const SxString& relPath, const std::string& canonicalRoot) const {
    const std::string target = linkTarget(source + relPath);
    std::string resolved;
    const int result = SxOs::get().canonical(SxOs::hostPath(source + relPath), &resolved);
    const bool inside = resolved == canonicalRoot || resolved.starts_with(canonicalRoot + "/");
    if (target.starts_with("/") || climbsOut(relPath, target) || (result == 0 && !inside)) {
        throw SxException("The symbolic link '" + source + relPath + "' leads out of the folder, to '" +
                              SxString(target) + "'; on the drive there is nothing for it to lead to",
                          UNIT, __LINE__);
    }
}

void ZqSourceTree::requireReadable(const ZqTaskMon& job) const {
    for (const Entry& entry : entries) {
        if (job.stopRequested()) return;
        if (entry.kind != SxStat::File) continue;
        try {
            SxFileIO(source + entry.relPath, "rb").close();
        } catch (const SxException& e) {
            throw SxException(e, "Cannot archive file " + source + entry.relPath, UNIT, __LINE__);
        }
    }
}

void ZqSourceTree::placeIn(const SxString& target, ZqTaskMon* job) const {
    makeFolder(target);
    for (const Entry& entry : entries) {
        if (job->stopRequested()) return;
        const SxString to = target + entry.relPath;
        if (entry.kind == SxStat::Dir) {
            makeFolder(to);
        } else if (entry.kind == SxStat::Link) {
            const int result = SxOs::get().symlink(linkTarget(source + entry.relPath), SxOs::hostPath(to));
            if (result < 0) fail("Cannot create the symbolic link '" + to + "'", result, __LINE__);
        } else {
            placeFile(entry, to, job);
        }
    }
}

void ZqSourceTree::placeFile(const Entry& entry, const SxString& to, ZqTaskMon* job) const {
    const SxString from = source + entry.relPath;
    // Where the system refuses a second name, for whatever reason, a copy still serves.
    if (entry.linkable && SxOs::get().link(SxOs::hostPath(from), SxOs::hostPath(to)) == 0) {
        job->addNCurrent(static_cast<uint64>(entry.size));
        return;
    }
    try {
        SxFileIO source_(from, "rb"), copy;
        copy.create(to, 0600);
        SxArray<char> buffer(COPY_CHUNK);
        while (const int64 n = source_.readBuffer(buffer.data(), COPY_CHUNK)) {
            if (job->stopRequested()) return;
            copy.writeBuffer(buffer.data(), n);
            job->addNCurrent(static_cast<uint64>(n));
        }
        copy.close();
        setPermissions(to, entry.permissions);
    } catch (const SxException& e) {
        throw SxException(e, "Cannot archive file " + from, UNIT, __LINE__);
    }
}

uint64 ZqSourceTree::bytesToCopy(uint64 targetDevice) const {
    uint64 bytes = 0;
    for (const Entry& entry : entries) {
        if (!entry.linkable || targetDevice != device) bytes += static_cast<uint64>(entry.size);
    }
    return bytes;
}

void ZqSourceTree::setPermissions(const SxString& path, uint32 permissions) {
    const int result = SxOs::get().setPermissions(SxOs::hostPath(path), permissions);
    if (result < 0) fail("Cannot set the permissions of '" + path + "'", result, __LINE__);
}

void ZqSourceTree::makeFolder(const SxString& path) {
    const int result = SxOs::get().makeDir(SxOs::hostPath(path), FOLDER_PERMISSIONS);
    if (result < 0) fail("Cannot create folder '" + path + "'", result, __LINE__);
    setPermissions(path, FOLDER_PERMISSIONS);
}

bool ZqSourceTree::holdsFile(const SxString& relPath) const {
    return std::any_of(entries.begin(), entries.end(), [&](const Entry& entry) {
        return entry.kind != SxStat::Dir && entry.relPath == relPath;
    });
}

int64 ZqSourceTree::count(SxStat::Kind kind) const {
    return std::count_if(entries.begin(), entries.end(),
                         [kind](const Entry& entry) { return entry.kind == kind; });
}

uint64 ZqSourceTree::getBytes() const {
    uint64 bytes = 0;
    for (const Entry& entry : entries)
        bytes += static_cast<uint64>(entry.size);
    return bytes;
}

uint64 ZqSourceTree::getNBlocks() const {
    uint64 n = 0;
    for (const Entry& entry : entries)
        n += (static_cast<uint64>(entry.size) + ZqBlocks::SIZE - 1) / ZqBlocks::SIZE;
    return n;
}
