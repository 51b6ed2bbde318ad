#include "SxFSAction.h"

#include "SxException.h"
#include "SxFileIO.h"

#include <cerrno>
#include <fnmatch.h>

namespace {

constexpr const char* UNIT = "src/core/SxFSAction";
constexpr int64 COPY_CHUNK = 1 << 20;
/// Ends the name of a copy that isn't whole yet.
constexpr const char* MOVING = ".tavrin-moving";

[[noreturn]] void fail(const SxString& what, int64 error, int line) {
    throw SxException(SxException(SxOs::errorText(error), UNIT, line), what, UNIT, line);
}

SxString below(const SxString& folder, const std::string& name) {
    return folder.endsWith("/") ? folder + name : folder + "/" + name;
}

std::vector<std::string> sortedNames(const SxString& path) {
    std::vector<std::string> names;
    const int result = SxOs::get().list(SxOs::hostPath(path), &names);
    if (result < 0) fail("Cannot list folder '" + path + "'", result, __LINE__);
    std::sort(names.begin(), names.end());
    return names;
}

/// What `result` of asking for `info` tells; nothing where nothing has that name.
std::optional<SxStat> told(int result, const SxStat& info, const SxString& path) {
    if (result == 0) return info;
    if (result == -ENOENT || result == -ENOTDIR || result == -ELOOP) return {};
    fail("Cannot look at '" + path + "'", result, __LINE__);
}

SxStat ask(const SxString& path) {
    SxStat info;
    const int result = SxOs::get().lstat(SxOs::hostPath(path), &info);
    if (result < 0) fail("Cannot look at '" + path + "'", result, __LINE__);
    return info;
}

void copyLink(const SxString& from, const SxString& to) {
    std::string target;
    int result = SxOs::get().readLink(SxOs::hostPath(from), &target);
    if (result == 0) {
        const int removed = SxOs::get().unlink(SxOs::hostPath(to));
        if (removed < 0 && removed != -ENOENT) fail("Cannot replace '" + to + "'", removed, __LINE__);
        result = SxOs::get().symlink(target, SxOs::hostPath(to));
    }
    if (result < 0) fail("Cannot copy link '" + from + "' to '" + to + "'", result, __LINE__);
}

void copyBytes(const SxString& from, const SxString& to, uint32 permissions) {
    SxFileIO source(from, "rb");
    SxFileIO target(to, "wb", static_cast<int>(permissions));
    SxArray<char> buffer(COPY_CHUNK);
    while (const int64 n = source.readBuffer(buffer.data(), COPY_CHUNK))
        target.writeBuffer(buffer.data(), n);
    target.sync();
    target.close();
    const int result = SxOs::get().setPermissions(SxOs::hostPath(to), permissions);
    if (result < 0) fail("Cannot set the permissions of '" + to + "'", result, __LINE__);
}

void copyFile(const SxString& from, const SxString& to, uint32 permissions) {
    SxStat source, old;
    if (SxOs::get().stat(SxOs::hostPath(from), &source) == 0 &&
        SxOs::get().stat(SxOs::hostPath(to), &old) == 0 && source.device == old.device &&
        source.inode == old.inode) {
        throw SxException("Cannot copy '" + from + "' to '" + to + "': they are the same file", UNIT,
                          __LINE__);
    }
    copyBytes(from, to, permissions);
}

/// A folder on the way down, to tell a link that leads back up.
struct Level {
    uint64 device, inode;
};

void refuseLoop(const SxString& path, const std::vector<Level>& levels) {
    SxStat info;
    const int result = SxOs::get().stat(SxOs::hostPath(path), &info);
    const bool leadsUp = result == 0 && std::any_of(levels.begin(), levels.end(), [&](const Level& level) {
                             return level.device == info.device && level.inode == info.inode;
                         });
    if (leadsUp || result == -ELOOP) {
        throw SxException("The symbolic link '" + path + "' leads back into itself", UNIT, __LINE__);
    }
}

void findBelow(const SxString& folder, const std::string& pattern, std::vector<Level>& levels,
               SxList<SxFileInfo>& found) {
    SxStat self;
    const int result = SxOs::get().stat(SxOs::hostPath(folder), &self);
    if (result < 0) fail("Cannot look at folder '" + folder + "'", result, __LINE__);
    levels.push_back({self.device, self.inode});
    for (const std::string& name : sortedNames(folder)) {
        const SxString path = below(folder, name);
        const SxStat info = ask(path);
        if (info.kind == SxStat::Link) refuseLoop(path, levels);
        if (::fnmatch(pattern.c_str(), name.c_str(), 0) == 0) found.append(SxFileInfo(path));
        if (info.kind == SxStat::Dir) findBelow(path, pattern, levels, found);
    }
    levels.pop_back();
}

/// `isMove`: with the owner and the time of change, and each folder on the device.
void copyTree(const SxString& from, const SxString& to, bool isMove) {
    const SxStat info = ask(from);
    // Set-id bits were given to a program for the place where it lay, so a copy doesn't get them.
    const uint32 permissions = info.permissions & 0777;
    if (info.kind == SxStat::Link) {
        copyLink(from, to);
    } else if (info.kind == SxStat::Dir) {
        const std::vector<std::string> names = sortedNames(from);
        SxFSAction::mkdir_p(to, static_cast<int>(permissions) | 0700);
        for (const std::string& name : names)
            copyTree(below(from, name), below(to, name), isMove);
        if (isMove) SxFSAction::syncDir(to);
    } else if (info.kind == SxStat::File) {
        copyFile(from, to, permissions);
    } else {
        throw SxException("Cannot copy '" + from + "': it is neither a file nor a folder", UNIT, __LINE__);
    }
    if (!isMove) return;
    SxFSAction::takeAfter(to, info);
    if (info.kind == SxStat::Link) return;
    const int result = SxOs::get().setModified(SxOs::hostPath(to), info.modifiedNs);
    if (result < 0) fail("Cannot set the time of '" + to + "'", result, __LINE__);
}

/// The copy gets its name once it is whole, so that half of one is never taken for it.
void moveByCopy(const SxString& from, const SxString& to) {
    const SxString half = to + MOVING;
    if (SxFSAction::look(half)) SxFSAction::rm_r(half);
    copyTree(from, half, true);
    const int result = SxOs::get().rename(SxOs::hostPath(half), SxOs::hostPath(to));
    if (result < 0) {
        SxFSAction::rm_r(half);
        fail("Cannot move '" + from + "' to '" + to + "'", result, __LINE__);
    }
    SxFSAction::syncDir(SxFileInfo(to).getPath());
    SxFSAction::rm_r(from);
}

} // namespace

bool SxFSAction::test_f(const SxString& path) {
    return !path.isEmpty() && SxFileInfo(path).isFile();
}

bool SxFSAction::test_d(const SxString& path) {
    return !path.isEmpty() && SxFileInfo(path).isDir();
}

bool SxFSAction::exists(const SxString& path) {
    return !path.isEmpty() && SxFileInfo(path).exists();
}

std::optional<SxStat> SxFSAction::look(const SxString& path) {
    SxStat info;
    const int result = SxOs::get().lstat(SxOs::hostPath(path), &info);
    return told(result, info, path);
}

int64 SxFSAction::sizeOf(const SxString& path) {
    SxStat info;
    const int result = SxOs::get().stat(SxOs::hostPath(path), &info);
    const auto found = told(result, info, path);
    return found && found->kind == SxStat::File ? found->size : -1;
}

int64 SxFSAction::freeSpace(const SxString& path) {
    std::string folder = SxOs::hostPath(path);
    SxStat info;
    int result = SxOs::get().stat(folder, &info);
    while ((result == -ENOENT || result == -ENOTDIR) && folder != "/" && folder != ".") {
        const size_t slash = folder.rfind('/');
        folder = slash == std::string::npos ? "." : folder.substr(0, slash == 0 ? 1 : slash);
        result = SxOs::get().stat(folder, &info);
    }
    int64 bytes = 0;
    if (result == 0) result = SxOs::get().freeSpace(folder, &bytes);
    if (result < 0) fail("Cannot find the free space of '" + path + "'", result, __LINE__);
    return bytes;
}

void SxFSAction::mkdir_p(const SxString& path, int mode) {
    if (test_d(path)) return;
    const SxFileInfo info(path);
    const SxString parent = info.getPath();
    if (parent == info.getAbsPath()) {
        if (SxOs::makeDrive(parent)) return;
        throw SxException("Cannot create folder '" + path + "': there is no such drive", UNIT, __LINE__);
    }
    if (!test_d(parent)) mkdir_p(parent, mode);
    const int result = SxOs::get().makeDir(SxOs::hostPath(path), static_cast<unsigned>(mode));
    if (result < 0 && !(result == -EEXIST && test_d(path))) {
        fail("Cannot create folder '" + path + "'", result, __LINE__);
    }
}

void SxFSAction::cp(const SxString& from, const SxString& to) {
    copyTree(from, to, false);
}

void SxFSAction::mv(const SxString& from, const SxString& to) {
    const int result = SxOs::get().rename(SxOs::hostPath(from), SxOs::hostPath(to));
    if (result == -EXDEV) {
        moveByCopy(from, to);
    } else if (result < 0) {
        fail("Cannot move '" + from + "' to '" + to + "'", result, __LINE__);
    }
}

void SxFSAction::takeAfter(const SxString& path, const SxStat& other) {
    SxOs& os = SxOs::get();
    const std::string host = SxOs::hostPath(path);
    SxStat own;
    int result = os.lstat(host, &own);
    if (result == 0 && (own.owner != other.owner || own.group != other.group)) {
        result = os.setOwner(host, other.owner, other.group);
        if (result == -EPERM) result = 0;
    }
    // After the owner, whose change takes bits away. On a folder the upper bits are rules for what it holds.
    const uint32 bits = own.kind == SxStat::Dir ? 07777 : 0777;
    if (result == 0 && own.kind != SxStat::Link) result = os.setPermissions(host, other.permissions & bits);
    if (result < 0) fail("Cannot set the owner and the permissions of '" + path + "'", result, __LINE__);
}

bool SxFSAction::isHalfMoved(const SxString& name) {
    return name.endsWith(MOVING);
}

void SxFSAction::rm(const SxString& path) {
    const int result = SxOs::get().unlink(SxOs::hostPath(path));
    if (result < 0) fail("Cannot remove file '" + path + "'", result, __LINE__);
}

void SxFSAction::rm_r(const SxString& given) {
    // With its slash at the end, a link would be the folder that it leads to.
    std::string text = given.str();
    while (text.size() > 1 && text.ends_with('/') && !text.ends_with(":/"))
        text.pop_back();
    const SxString path(text);
    if (SxFileInfo(path).getPath() == SxFileInfo(path).getAbsPath()) {
        throw SxException("'" + given + "' is the whole of a drive and isn't removed", UNIT, __LINE__);
    }
    if (ask(path).kind != SxStat::Dir) return rm(path);
    for (const std::string& name : sortedNames(path))
        rm_r(below(path, name));
    const int result = SxOs::get().removeDir(SxOs::hostPath(path));
    if (result < 0) fail("Cannot remove folder '" + path + "'", result, __LINE__);
}

void SxFSAction::touch(const SxString& path, int mode) {
    if (!exists(path)) SxFileIO(path, "ab", mode).close();
    const int result = SxOs::get().setModifiedNow(SxOs::hostPath(path));
    if (result < 0) fail("Cannot set the time of '" + path + "'", result, __LINE__);
}

SxList<SxFileInfo> SxFSAction::ls(const SxString& path) {
    SxList<SxFileInfo> found;
    for (const std::string& name : sortedNames(path))
        found.append(SxFileInfo(below(path, name)));
    return found;
}

SxList<SxFileInfo> SxFSAction::find(const SxString& pattern, bool) {
    const std::string& text = pattern.str();
    const size_t slash = text.rfind('/');
    const SxString folder = slash == std::string::npos ? SxString(".")
                            : slash == 0               ? SxString("/")
                                                       : SxString(text.substr(0, slash));
    SxList<SxFileInfo> found;
    std::vector<Level> levels;
    findBelow(folder, text.substr(slash == std::string::npos ? 0 : slash + 1), levels, found);
    return found;
}

SxList<SxDir> SxFSAction::getDirs(const SxString& path) {
    SxList<SxDir> dirs;
    for (const SxFileInfo& info : ls(path)) {
        if (info.isDir()) dirs.append(SxDir(info.getOrig()));
    }
    return dirs;
}

void SxFSAction::syncDir(const SxString& path) {
    const int result = SxOs::get().syncDir(SxOs::hostPath(path));
    if (result < 0) fail("Cannot bring folder '" + path + "' to the disk", result, __LINE__);
}
