#include "ZqSourceTree.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxFileIO.h"
#include "ZqBlocks.h"
#include "ZqLog.h"
#include "ZqTaskMon.h"

#include <algorithm>
#include <cerrno>
#include <set>

namespace {

constexpr const char* UNIT = "src/publish/ZqSourceTree";
constexpr int64 COPY_CHUNK = 1 << 20;
constexpr uint32 FOLDER_PERMISSIONS = 0755;
/// Links that are named in one failure: each is a level of it.
constexpr size_t MAX_NAMED = 1000;

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

/// Whether the folder `outer` is `inner` or above it; both are real paths.
bool isAbove(const std::string& outer, const std::string& inner) {
    return outer == "/" || inner == outer || inner.starts_with(outer + "/");
}

SxStat lookAt(const SxString& path) {
    SxStat stat;
    const int result = SxOs::get().lstat(SxOs::hostPath(path), &stat);
    if (result < 0) fail("Cannot look at '" + path + "'", result, __LINE__);
    return stat;
}

struct LeavingLink {
    SxString path, target;
};

/// All at once, so that nobody has to build again and again to find the next one. `isFollowed`: they would be
/// followed, if there was anything.
void refuse(const std::vector<LeavingLink>& links, const SxString& source, bool isFollowed) {
    if (links.empty()) return;
    if (links.size() == 1) {
        const SxString link = "The symbolic link '" + links[0].path + "' ";
        const SxString target = "to '" + links[0].target + "'";
        throw SxException(
            isFollowed ? link + target + " can't be followed: there is nothing"
                       : link + "leads out of the folder, " + target +
                             "; on the drive there is nothing for it to lead to (--follow-links copies what "
                             "it leads to)",
            UNIT, __LINE__);
    }
    // A line each.
    const size_t nNamed = std::min(links.size(), MAX_NAMED);
    const auto lineOf = [](const LeavingLink& link) {
        return "'" + link.path + "' to '" + link.target + "'";
    };
    SxString last = lineOf(links[nNamed - 1]);
    if (links.size() > nNamed)
        last += ", and " + SxString(static_cast<uint64>(links.size() - nNamed)) + " others";
    SxException lines(last, UNIT, __LINE__);
    for (size_t i = nNamed - 1; i-- > 0;)
        lines = SxException(lines, lineOf(links[i]), UNIT, __LINE__);
    throw SxException(lines,
                      SxString(static_cast<uint64>(links.size())) + " symbolic links " +
                          (isFollowed ? "in the folder '" + source +
                                            "' can't be followed: there is nothing that they lead to"
                                      : "lead out of the folder '" + source +
                                            "'; on the drive there is nothing for them to lead to "
                                            "(--follow-links copies what they lead to)"),
                      UNIT, __LINE__);
}

} // namespace

/// A folder that is read: the source, or one that a link has brought in.
struct ZqSourceTree::Place {
    SxString path;        ///< with a trailing slash
    SxString relPath;     ///< its own in the tree, with a trailing slash; empty for the source
    std::string realPath; ///< with all links resolved
    const Place* outer;   ///< that of the link; null for the source
    std::string holder;   ///< real path of the folder that holds the link
};

/// What is known while the tree is read.
struct ZqSourceTree::Reading {
    const ZqTaskMon& job;
    const bool followsLinks;
    std::vector<LeavingLink> leaving;
    /// A file that has two names in the folder gets a copy for the second. What the drive holds must not
    /// depend on where the image is made, and so on whether the system allows the two to share their blocks.
    std::set<std::pair<uint64, uint64>> seen;
};

ZqSourceTree::ZqSourceTree(const SxString& source_, const ZqTaskMon& job, bool followsLinks)
    : source(source_) {
    if (!SxFSAction::test_d(source)) {
        throw SxException("'" + source + "' is not a folder", UNIT, __LINE__);
    }
    std::string root;
    SxStat own;
    int result = SxOs::get().canonical(SxOs::hostPath(source), &root);
    if (result == 0) result = SxOs::get().stat(root, &own);
    if (result < 0) fail("Cannot look at '" + source + "'", result, __LINE__);
    device = own.device;
    Reading reading{job, followsLinks, {}, {}};
    read({source, SxString(), root, nullptr, {}}, &reading);
    refuse(reading.leaving, source, followsLinks);
}

void ZqSourceTree::read(const Place& place, Reading* reading) {
    for (const SxFileInfo& info : SxFSAction::find(place.path + "*", false)) {
        if (reading->job.stopRequested()) return;
        const SxStat stat = lookAt(info.getOrig());
        if (stat.kind == SxStat::Other) {
            zqLogMsg("publish", "'" + info.getOrig() + "' is passed over: it is no file, folder or link");
            ++nSkipped;
            continue;
        }
        take({place.relPath + info.getRelPath(place.path), info.getOrig(), stat.kind}, stat, place, reading);
    }
}

void ZqSourceTree::take(Entry entry, const SxStat& stat, const Place& place, Reading* reading) {
    if (stat.kind == SxStat::Link) {
        takeLink(entry, place, reading);
        return;
    }
    if (stat.kind == SxStat::File) {
        entry.size = stat.size;
        entry.permissions = drivePermissions(stat.permissions);
        entry.linkable = reading->seen.emplace(stat.device, stat.inode).second && stat.device == device &&
                         stat.permissions == entry.permissions;
    }
    entries.push_back(std::move(entry));
}

void ZqSourceTree::takeLink(const Entry& entry, const Place& place, Reading* reading) {
    const std::string target = linkTarget(entry.from);
    std::string realPath;
    const int result = SxOs::get().canonical(SxOs::hostPath(entry.from), &realPath);
    const SxString relPath(entry.relPath.str().substr(place.relPath.str().size()));
    if (!target.starts_with("/") && !climbsOut(relPath, target) &&
        (result < 0 || isAbove(place.realPath, realPath))) {
        entries.push_back(entry);
        return;
    }
    if (!reading->followsLinks || result == -ENOENT) {
        reading->leaving.push_back({entry.from, target});
        return;
    }
    const SxString why =
        "The symbolic link '" + entry.from + "' to '" + SxString(target) + "' can't be followed";
    if (result < 0) fail(why, result, __LINE__);
    const SxStat stat = lookAt(SxString(realPath));
    if (stat.kind == SxStat::Other) {
        throw SxException(why + ": that is a device, a pipe or a socket", UNIT, __LINE__);
    }
    std::string holder = place.realPath + "/" + relPath.str();
    holder.resize(holder.rfind('/'));
    bool isCircle = isAbove(realPath, holder);
    for (const Place* outer = &place; outer->outer; outer = outer->outer)
        isCircle = isCircle || isAbove(realPath, outer->holder);
    if (isCircle) {
        throw SxException(why + ": it leads to a folder that holds the link", UNIT, __LINE__);
    }
    followed.emplace_back(realPath);
    take({entry.relPath, SxString(realPath), stat.kind}, stat, place, reading);
    if (stat.kind != SxStat::Dir) return;
    read({SxString(realPath + "/"), entry.relPath + "/", realPath, &place, holder}, reading);
}

void ZqSourceTree::requireReadable(const ZqTaskMon& job) const {
    for (const Entry& entry : entries) {
        if (job.stopRequested()) return;
        if (entry.kind != SxStat::File) continue;
        try {
            SxFileIO(entry.from, "rb").close();
        } catch (const SxException& e) {
            throw SxException(e, "Cannot archive file " + entry.from, UNIT, __LINE__);
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
            const int result = SxOs::get().symlink(linkTarget(entry.from), SxOs::hostPath(to));
            if (result < 0) fail("Cannot create the symbolic link '" + to + "'", result, __LINE__);
        } else {
            placeFile(entry, to, job);
        }
    }
}

void ZqSourceTree::placeFile(const Entry& entry, const SxString& to, ZqTaskMon* job) {
    const SxString& from = entry.from;
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
