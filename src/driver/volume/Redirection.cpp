#include "Redirection.h"

#include "FormerCopies.h"
#include "Mounts.h"
#include "SxException.h"
#include "SxOs.h"
#include "ZqServiceFolder.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <strings.h>
#include <sys/file.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* UNIT = "src/driver/Redirection";
using Path = std::vector<std::string>;

[[noreturn]] void fail(const SxString& what, int line) {
    throw SxException(what + ": " + SxOs::errorText(errno), UNIT, line);
}

std::string join(const std::string& base, const Path& path) {
    std::string result = base;
    for (const std::string& part : path)
        result += "/" + part;
    return result;
}

/// The parts of a name; raises where it could lead out.
Path parse(const SxString& name) {
    Path path;
    std::string part;
    for (const char c : name.str() + "/") {
        if (c != '/' && c != '\\') {
            part += c;
            continue;
        }
        if (part == ".." || part == "." || (part.empty() && path.empty())) {
            throw SxException("'" + name + "' can't be redirected", UNIT, __LINE__);
        }
        if (!part.empty()) path.push_back(part);
        part.clear();
    }
    return path;
}

enum class Kind { Missing, Folder, File };

/// What stands at `path`; never through a link.
Kind kindOf(const std::string& path) {
    struct stat info = {};
    if (::lstat(path.c_str(), &info) != 0) {
        if (errno == ENOENT) return Kind::Missing;
        fail("Cannot look at '" + SxString(path) + "'", __LINE__);
    }
    if (S_ISLNK(info.st_mode)) {
        throw SxException("'" + SxString(path) + "' is a link, which can't be redirected", UNIT, __LINE__);
    }
    return S_ISDIR(info.st_mode) ? Kind::Folder : Kind::File;
}

/// The name in `folder` that `part` means: the one that is equal, else one that differs in case.
std::string spelling(const std::string& folder, const std::string& part) {
    if (kindOf(folder + "/" + part) != Kind::Missing) return part;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        std::string name = entry.path().filename();
        if (::strcasecmp(name.c_str(), part.c_str()) == 0) return name;
    }
    return part;
}

/// One name on both sides.
struct Name {
    Path onVolume, inPrivate; ///< as spelled there
    size_t nPresent = 0;      ///< leading parts that are folders on the volume
    Kind volumeKind = Kind::Missing, privateKind = Kind::Missing;
};

Kind resolve(const std::string& base, const Path& wanted, Path* spelled, size_t* nFolders) {
    std::string at = base;
    Kind kind = Kind::Folder;
    for (const std::string& part : wanted) {
        const std::string name = kind == Kind::Folder ? spelling(at, part) : part;
        spelled->push_back(name);
        at += "/" + name;
        if (kind == Kind::Folder) kind = kindOf(at);
        if (kind == Kind::Folder) ++*nFolders;
        if (kind == Kind::File && spelled->size() < wanted.size()) {
            throw SxException("'" + SxString(at) + "' is no folder", UNIT, __LINE__);
        }
    }
    return kind;
}

std::string escape(const std::string& path) {
    std::string result;
    for (const char c : path) {
        if (c == ',' || c == ':' || c == '\\') result += '\\';
        result += c;
    }
    return result;
}

void makeFolder(const std::string& path) {
    const int result = SxOs::get().makeDir(path, 0700);
    if (result < 0 && result != -EEXIST) {
        errno = -result;
        fail("Cannot create folder '" + SxString(path) + "'", __LINE__);
    }
}

std::string canonical(const std::string& path) {
    std::string result;
    const int error = SxOs::get().canonical(path, &result);
    if (error < 0) {
        throw SxException("Cannot look at '" + SxString(path) + "': " + SxOs::errorText(error), UNIT,
                          __LINE__);
    }
    return result;
}

/// The mount that `path`, a canonical one, lies on.
Mounts::Mount mountOf(const std::string& path) {
    struct statx info = {};
    if (::statx(AT_FDCWD, path.c_str(), 0, STATX_MNT_ID, &info) != 0) {
        fail("Cannot look at '" + SxString(path) + "'", __LINE__);
    }
    for (const Mounts::Mount& mount : Mounts::all()) {
        if ((info.stx_mask & STATX_MNT_ID) && mount.id == info.stx_mnt_id) return mount;
    }
    throw SxException("Cannot tell what '" + SxString(path) + "' is mounted on", UNIT, __LINE__);
}

bool isBelow(const Path& path, const Path& folder) {
    return path.size() >= folder.size() && std::equal(folder.begin(), folder.end(), path.begin());
}

/// Whether `path` needs no overlay of its own: one of `folders` covers it.
bool isCovered(const Path& path, const std::vector<Path>& folders) {
    return std::any_of(folders.begin(), folders.end(),
                       [&](const Path& folder) { return isBelow(path, folder); });
}

std::string protectedFolder(const std::string& volume) {
    for (const char* name : {"TAVRIN-protected", "TAVRIN-private"}) {
        if (kindOf(volume + "/" + name) == Kind::Folder) return name;
    }
    throw SxException("The volume has neither a folder TAVRIN-protected nor TAVRIN-private", UNIT, __LINE__);
}

/// The mounts of one redirection. What was not kept is undone, the latest first.
class NewMounts {
public:
    NewMounts() = default;
    ~NewMounts() {
        // What stays all the same goes with the volume.
        for (; !made.empty(); made.pop_back())
            Mounts::detach(made.back());
    }
    NewMounts(const NewMounts&) = delete;
    NewMounts& operator=(const NewMounts&) = delete;

    /// Mounts a writable overlay on a folder of the volume, with the private side as its upper layer.
    void overlay(const std::string& onVolume, const std::string& inPrivate, const std::string& work,
                 const std::string& mark) {
        makeFolder(work);
        const std::string data = "lowerdir=" + escape(onVolume) + ",upperdir=" + escape(inPrivate) +
                                 ",workdir=" + escape(work) + ",index=off,metacopy=off,redirect_dir=off";
        if (::mount(mark.c_str(), onVolume.c_str(), "overlay", MS_NOSUID | MS_NODEV, data.c_str()) != 0) {
            fail("Cannot put an overlay with the private folder '" + SxString(inPrivate) + "' on '" +
                     SxString(onVolume) + "'",
                 __LINE__);
        }
        made.push_back(onVolume);
    }
    void bind(const std::string& from, const std::string& to) {
        const SxString words = "Cannot bind '" + SxString(from) + "' to '" + SxString(to) + "'";
        if (::mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) != 0) fail(words, __LINE__);
        made.push_back(to);
        constexpr unsigned long FLAGS = MS_BIND | MS_REMOUNT | MS_NOSUID | MS_NODEV;
        if (::mount(nullptr, to.c_str(), nullptr, FLAGS, nullptr) != 0) fail(words, __LINE__);
    }
    void keep() { made.clear(); }

private:
    std::vector<std::string> made;
};

/// A folder that gets a mount.
struct Place {
    Path onVolume, inPrivate;
};

/// Overlays are mounted first, those nearest to the root before those below them; the binds on top of them.
struct Plan {
    std::vector<Place> overlays, binds;
};

Plan planOf(const std::vector<Name>& names) {
    const auto isBind = [](const Name& name) {
        return name.volumeKind == Kind::Folder && name.privateKind == Kind::Folder;
    };
    Plan plan;
    std::vector<Path> bound;
    for (const Name& name : names) {
        if (!isBind(name) || std::find(bound.begin(), bound.end(), name.onVolume) != bound.end()) continue;
        plan.binds.push_back({name.onVolume, name.inPrivate});
        bound.push_back(name.onVolume);
    }
    std::vector<Place> wanted;
    for (const Name& name : names) {
        if (isBind(name) || isCovered(name.onVolume, bound)) continue;
        const auto n = static_cast<int64>(std::min(name.nPresent, name.onVolume.size() - 1));
        wanted.push_back({{name.onVolume.begin(), name.onVolume.begin() + n},
                          {name.inPrivate.begin(), name.inPrivate.begin() + n}});
    }
    // The folders nearest to the root come first: each covers those below it.
    std::sort(wanted.begin(), wanted.end(), [](const Place& a, const Place& b) {
        return std::make_pair(a.onVolume.size(), a.onVolume) < std::make_pair(b.onVolume.size(), b.onVolume);
    });
    std::vector<Path> overlaid;
    for (const Place& place : wanted) {
        if (isCovered(place.onVolume, overlaid)) continue;
        plan.overlays.push_back(place);
        overlaid.push_back(place.onVolume);
    }
    return plan;
}

/// The private side's protected folder, which no two drives use at once. Two images with one guid, or two
/// machine roots with one disk C:, would share an overlay's layers and damage what is saved. The kernel's
/// table of mounts tells who uses the folder: the device of an overlay names it by number, and a bind shows
/// what it shows. So a service that is killed leaves no lock that would have to be taken away. What a program
/// still writes through a drive that was detached under it isn't seen.
class PrivateFolder {
public:
    /// `path`: a canonical one.
    explicit PrivateFolder(const std::string& path_) : path(path_) {
        struct stat info = {};
        fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        if (fd < 0 || ::fstat(fd, &info) != 0) fail("Cannot open '" + SxString(path) + "'", __LINE__);
        mark = "tavrin-" + std::to_string(info.st_dev) + "-" + std::to_string(info.st_ino);
        // Held as long as this process makes its mounts. Some network file systems have no such locks.
        if (::flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) refuse();
    }
    ~PrivateFolder() { ::close(fd); }
    PrivateFolder(const PrivateFolder&) = delete;
    PrivateFolder& operator=(const PrivateFolder&) = delete;

    /// As an overlay's device it tells whose layer that is.
    const std::string& getMark() const { return mark; }

    /// Raises where a drive has a mount of this folder, or of one of those that are to be bound.
    void requireUnused(const std::string& guarded, const std::vector<Place>& binds) const {
        std::vector<std::string> folders = {path};
        for (const Place& place : binds)
            folders.push_back(join(path, place.inPrivate));
        const std::string drives = std::string("/") + ZqServiceFolder::VOLUME + "/" + guarded;
        std::vector<Mounts::Mount> ofDrives;
        for (const Mounts::Mount& mount : Mounts::all()) {
            if ((mount.at + "/").find(drives + "/") == std::string::npos) continue;
            if (mount.source == mark) refuse();
            ofDrives.push_back(mount);
        }
        for (const std::string& folder : folders) {
            const Mounts::Mount own = mountOf(folder);
            const std::string root = own.root == "/" ? "" : own.root;
            const std::string shown = root + (own.at == "/" ? folder : folder.substr(own.at.size()));
            for (const Mounts::Mount& mount : ofDrives) {
                if (mount.device == own.device && (mount.root + "/").starts_with(shown + "/")) refuse();
            }
        }
    }
    /// Makes the folder for the overlays' work folders, beside this one with all its links resolved: the
    /// kernel wants them on the mount of the upper layers, and outside of these.
    std::string makeWork() const {
        const size_t slash = path.rfind('/');
        const std::string parent = slash == 0 ? "/" : path.substr(0, slash);
        if (mountOf(parent).id != mountOf(path).id) {
            throw SxException("The private folder '" + SxString(path) +
                                  "' is the whole of a file system; a folder in it is needed",
                              UNIT, __LINE__);
        }
        std::string work = path;
        work.insert(slash + 1, ".").append(".tavrin-work");
        if (kindOf(work) == Kind::Missing) makeFolder(work);
        return work;
    }

private:
    [[noreturn]] void refuse() const {
        throw SxException("The private folder '" + SxString(path) + "' is in use by another drive", UNIT,
                          __LINE__);
    }

    std::string path, mark;
    int fd = -1;
};

/// Puts aside what would hide the names of this version. Before the first mount: an overlay's layers don't
/// change under it. Gives the folder that took it, or nothing.
std::string putAside(const std::string& volumeBase, const std::string& privateBase,
                     const std::string& version, const std::vector<Name>& names,
                     const std::vector<Place>& overlays) {
    FormerCopies copies(privateBase, version);
    if (copies.isDue()) {
        std::vector<Path> kept;
        kept.reserve(names.size());
        for (const Name& name : names)
            kept.push_back(name.inPrivate);
        copies.begin();
        for (const Place& place : overlays)
            copies.move(join(volumeBase, place.onVolume), place.inPrivate, kept);
    }
    copies.finish();
    return copies.getMovedTo();
}

} // namespace

std::string Redirection::apply(const SxString& volume, const SxString& directory,
                               const SxList<SxString>& names, const std::string& version) {
    const std::string root = canonical(volume.str()), guarded = protectedFolder(root);
    const std::string volumeBase = root + "/" + guarded;
    if (!Mounts::below(root).empty()) {
        throw SxException("Names of '" + SxString(volumeBase) + "' are redirected already", UNIT, __LINE__);
    }
    const std::string privateBase = canonical(directory.str() + "/" + guarded);
    const PrivateFolder own(privateBase);
    std::vector<Name> found;
    for (const SxString& text : names) {
        const Path wanted = parse(text);
        Name name;
        size_t ignored = 0;
        name.volumeKind = resolve(volumeBase, wanted, &name.onVolume, &name.nPresent);
        name.privateKind = resolve(privateBase, wanted, &name.inPrivate, &ignored);
        found.push_back(name);
    }
    const Plan plan = planOf(found);
    own.requireUnused(guarded, plan.binds);
    const std::string work = plan.overlays.empty() ? std::string() : own.makeWork();
    std::string aside = putAside(volumeBase, privateBase, version, found, plan.overlays);
    NewMounts mounts;
    for (size_t i = 0; i < plan.overlays.size(); ++i) {
        const Place& place = plan.overlays[i];
        mounts.overlay(join(volumeBase, place.onVolume), join(privateBase, place.inPrivate),
                       work + "/" + std::to_string(i), own.getMark());
    }
    for (const Place& place : plan.binds)
        mounts.bind(join(privateBase, place.inPrivate), join(volumeBase, place.onVolume));
    mounts.keep();
    return aside;
}
