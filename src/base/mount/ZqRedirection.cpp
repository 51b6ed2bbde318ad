#include "ZqRedirection.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "ZqAppParams.h"
#include "ZqPreparationLock.h"

#include <algorithm>
#include <cerrno>
#include <optional>
#include <vector>

namespace {

constexpr const char* UNIT = "src/base/ZqRedirection";
constexpr const char* PRIVATE_SIDE = "C:/ProgramData/TAVRIN/";

void requireName(const SxString& guid) {
    if (ZqRedirection::isName(guid)) return;
    throw SxException("The guid '" + guid.makeVisible() + "' of app.json is no plain name", UNIT, __LINE__);
}

/// What is wrong with an entry, or null. `path` has slashes only.
const char* faultOf(const std::string& path) {
    if (path.starts_with('/')) return "is absolute";
    if (path.size() > 1 && path[1] == ':') return "has a drive letter";
    if (path.find('\0') != std::string::npos) return "holds a NUL";
    if (path.find(',') != std::string::npos) return "holds a comma";
    if (SxString(path).tokenize('/').contains("..")) return "leads upward";
    return nullptr;
}

SxList<SxString> checkedEntries(const SxList<SxString>& entries, const SxString& key) {
    SxList<SxString> result;
    for (const SxString& entry : entries) {
        const SxString path = entry.substitute("\\", "/");
        SxList<SxString> parts;
        for (const SxString& part : path.tokenize('/')) {
            if (!(part == ".")) parts.append(part);
        }
        const char* fault = faultOf(path.str());
        if (!fault && parts.isEmpty()) fault = "names nothing";
        if (fault) {
            throw SxException("The entry '" + entry.makeVisible() + "' of " + key + " in app.json " + fault,
                              UNIT, __LINE__);
        }
        result.append(SxString::join(parts, "/"));
    }
    return result;
}

/// Raises where a part of `name` below `folder` is a link. The service, which redirects, refuses it as well:
/// to follow it, both sides would have to end at the same place. Links at `folder` and above it aren't looked
/// at: on the private side these are the user's own, who may keep saved games on another disk.
void requireNoLink(const SxString& folder, const SxString& name) {
    SxString path = folder;
    for (const SxString& part : name.tokenize('/')) {
        path += "/" + part;
        SxStat info;
        const int result = SxOs::get().lstat(SxOs::hostPath(path), &info);
        if (result == -ENOENT) return;
        if (result < 0) {
            throw SxException(SxException(SxOs::errorText(result), UNIT, __LINE__),
                              "Cannot look at '" + path + "'", UNIT, __LINE__);
        }
        if (info.kind == SxStat::Link) {
            throw SxException("'" + path + "' is a link, which can't be redirected", UNIT, __LINE__);
        }
    }
}

/// Raises where something else stands at `path`, which is no link.
void requireKind(const SxString& path, const SxString& name, bool isFolder) {
    const auto info = SxFSAction::look(path);
    if (!info || info->kind == (isFolder ? SxStat::Dir : SxStat::File)) return;
    throw SxException("The entry '" + name.makeVisible() + "' of " + (isFolder ? "dirmap" : "filemap") +
                          " in app.json needs " + (isFolder ? "a folder" : "a file") + ", but '" + path +
                          "' is none",
                      UNIT, __LINE__);
}

/// Whether an overlay's mark that it was removed stands at `path`.
bool isRemoval(const SxString& path) {
    SxStat info;
    return SxOs::get().lstat(SxOs::hostPath(path), &info) == 0 && info.isRemoval;
}

/// Takes away the mark that an overlay leaves where a game removed a redirected file, or the folder of one,
/// so that the name is as one that was never there, and comes back as the image's copy. The mark holds
/// nothing, and is no file: it would fail every later mount.
void clearRemoval(const SxString& folder, const SxString& name) {
    SxString path = folder;
    for (const SxString& part : name.tokenize('/')) {
        path += "/" + part;
        if (isRemoval(path)) return SxFSAction::rm(path);
    }
}

/// Copies under another name, and renames: what is there is never copied again, so half a folder would stay
/// half for ever. Links in a folder are copied as links, and no copy has set-id bits (SxFSAction::cp()).
void copyWhole(const SxString& from, const SxString& to) {
    const SxString half = to + ".tavrin-new";
    if (SxFSAction::exists(half) || SxFileInfo(half).isLink()) SxFSAction::rm_r(half);
    SxFSAction::cp(from, half);
    SxFSAction::mv(half, to);
}

class Preparation {
public:
    Preparation(const SxString& mountPoint, const SxString& directory) {
        const SxString drive = mountPoint + "/";
        SxString folder;
        for (const char* name : {"TAVRIN-private", "TAVRIN-protected"}) {
            if (SxFSAction::test_d(drive + name)) folder = name;
        }
        if (folder.isEmpty()) {
            throw SxException("No TAVRIN-private or TAVRIN-protected folder on drive " + mountPoint, UNIT,
                              __LINE__);
        }
        requireNoLink(mountPoint, folder);
        source = drive + folder;
        target = directory + "/" + folder;
        SxFSAction::mkdir_p(SxFileInfo(directory).getPath(), 0777);
        lock.emplace(directory);
        SxFSAction::mkdir_p(target, 0777);
    }

    void place(const ZqRedirection::Item& item) const {
        const SxString& name = item.name;
        const SxString to = target + "/" + name, from = source + "/" + name;
        try {
            clearRemoval(target, name);
            for (const SxString& side : {target, source}) {
                requireNoLink(side, name);
                requireKind(side + "/" + name, name, item.isFolder);
            }
            if (SxFSAction::exists(to)) return;
            const SxString parent = SxFileInfo(to).getPath();
            SxFSAction::mkdir_p(parent, 0777);
            if (SxFSAction::exists(from)) {
                copyWhole(from, to);
            } else if (!item.isFolder) {
                SxFSAction::touch(to, 0644);
            }
            SxFSAction::syncDir(parent);
        } catch (const SxException& e) {
            throw SxException(e, "Cannot create " + to, UNIT, __LINE__);
        }
    }

private:
    std::optional<ZqPreparationLock> lock;
    SxString source, target;
};

} // namespace

bool ZqRedirection::isName(const SxString& guid) {
    const std::string& text = guid.str();
    return !text.empty() && text != "." && text != ".." &&
           text.find_first_of(std::string_view("/\\:\0", 4)) == std::string::npos;
}

ZqRedirection::ZqRedirection(const ZqAppParams& app)
    : directory(PRIVATE_SIDE + app.guid),
      folders(checkedEntries(app.dirmap, "dirmap")),
      files(checkedEntries(app.filemap, "filemap")) {
    if (!isEmpty()) requireName(app.guid);
}

SxString ZqRedirection::getNames() const {
    SxList<SxString> names = folders;
    names.append(files);
    return SxString::join(names, ",");
}

std::vector<ZqRedirection::Item> ZqRedirection::getItems() const {
    std::vector<Item> items;
    for (const SxString& name : folders)
        items.push_back({name, true});
    std::stable_sort(items.begin(), items.end(), [](const Item& a, const Item& b) {
        return std::ranges::count(a.name.str(), '/') < std::ranges::count(b.name.str(), '/');
    });
    for (const SxString& name : files)
        items.push_back({name, false});
    return items;
}

bool ZqRedirection::has(const SxString& side, const Item& item) {
    requireNoLink(side, item.name);
    SxString path = side;
    for (const SxString& part : item.name.tokenize('/')) {
        path += "/" + part;
        // A disk that fails must not make a saved game count as gone.
        const auto info = SxFSAction::look(path);
        if (!info || info->isRemoval) return false;
    }
    requireKind(path, item.name, item.isFolder);
    return true;
}

void ZqRedirection::prepare(const SxString& mountPoint) const {
    const Preparation preparation(mountPoint, directory);
    // A folder is copied before those in it, whatever their order in the record. A folder that stands on the
    // private side isn't copied again; so one whose child came first would stay without the rest.
    for (const Item& item : getItems())
        preparation.place(item);
}
