#include "Redirection.h"

#include "SxException.h"
#include "SxOs.h"

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <strings.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr const char* UNIT = "src/driver/Redirection";
using Path = std::vector<std::string>;

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
        throw SxException("Cannot look at '" + SxString(path) + "': " + SxOs::errorText(errno), UNIT,
                          __LINE__);
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
    if (::mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) {
        throw SxException("Cannot create folder '" + SxString(path) + "': " + SxOs::errorText(errno), UNIT,
                          __LINE__);
    }
}

/// Mounts a writable overlay on the folder `path` of the volume, with the private side as its upper layer.
void overlay(const std::string& volumeSide, const std::string& privateSide, const std::string& work) {
    makeFolder(work);
    const std::string data = "lowerdir=" + escape(volumeSide) + ",upperdir=" + escape(privateSide) +
                             ",workdir=" + escape(work) + ",index=off,metacopy=off,redirect_dir=off";
    if (::mount("overlay", volumeSide.c_str(), "overlay", MS_NOSUID | MS_NODEV, data.c_str()) != 0) {
        throw SxException("Cannot put an overlay with the private folder '" + SxString(privateSide) +
                              "' on '" + SxString(volumeSide) + "': " + SxOs::errorText(errno),
                          UNIT, __LINE__);
    }
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

} // namespace

void Redirection::apply(const SxString& volume, const SxString& directory, const SxList<SxString>& names) {
    const std::string guarded = protectedFolder(volume.str());
    const std::string volumeBase = volume.str() + "/" + guarded;
    const std::string privateBase = directory.str() + "/" + guarded;
    std::vector<Name> found;
    for (const SxString& text : names) {
        const Path wanted = parse(text);
        Name name;
        size_t ignored = 0;
        name.volumeKind = resolve(volumeBase, wanted, &name.onVolume, &name.nPresent);
        name.privateKind = resolve(privateBase, wanted, &name.inPrivate, &ignored);
        found.push_back(name);
    }
    const auto isBind = [](const Name& name) {
        return name.volumeKind == Kind::Folder && name.privateKind == Kind::Folder;
    };
    std::vector<Path> bound, overlaid;
    for (const Name& name : found) {
        if (isBind(name)) bound.push_back(name.onVolume);
    }
    std::vector<std::pair<Path, Path>> overlays; // on the volume, in private
    for (const Name& name : found) {
        if (isBind(name) || isCovered(name.onVolume, bound)) continue;
        const size_t n = std::min(name.nPresent, name.onVolume.size() - 1);
        overlays.push_back({{name.onVolume.begin(), name.onVolume.begin() + static_cast<int64>(n)},
                            {name.inPrivate.begin(), name.inPrivate.begin() + static_cast<int64>(n)}});
    }
    // The folders nearest to the root come first: each covers those below it.
    std::sort(overlays.begin(), overlays.end(), [](const auto& a, const auto& b) {
        return std::make_pair(a.first.size(), a.first) < std::make_pair(b.first.size(), b.first);
    });
    for (const auto& [onVolume, inPrivate] : overlays) {
        if (isCovered(onVolume, overlaid)) continue;
        const std::string work = directory.str() + "/work";
        makeFolder(work);
        overlay(join(volumeBase, onVolume), join(privateBase, inPrivate),
                work + "/" + std::to_string(overlaid.size()));
        overlaid.push_back(onVolume);
    }
    for (const Name& name : found) {
        if (!isBind(name)) continue;
        const std::string from = join(privateBase, name.inPrivate), to = join(volumeBase, name.onVolume);
        if (::mount(from.c_str(), to.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
            ::mount(nullptr, to.c_str(), nullptr, MS_BIND | MS_REMOUNT | MS_NOSUID | MS_NODEV, nullptr) !=
                0) {
            throw SxException("Cannot bind '" + SxString(from) + "' to '" + SxString(to) +
                                  "': " + SxOs::errorText(errno),
                              UNIT, __LINE__);
        }
    }
}
