#include "ZqMachineRoot.h"

#include "SxException.h"
#include "SxFSAction.h"
#include "SxMutex.h"
#include "SxOs.h"
#include "ZqFold.h"
#include "ZqRootLayout.h"
#include "ZqRootOwner.h"
#include "ZqXdg.h"

#include <cerrno>
#include <cstdlib>
#include <string_view>
#include <vector>

namespace {

constexpr const char* UNIT = "src/platform/util/ZqMachineRoot";

struct Root {
    SxMutex mutex;
    std::string path SX_GUARDED_BY(mutex);
};

Root& root() {
    static Root r;
    return r;
}

std::string absolute(const std::string& path) {
    std::string result = path.starts_with('/') ? path : SxOs::get().currentDir() + "/" + path;
    while (result.size() > 1 && result.back() == '/')
        result.pop_back();
    return result;
}

std::string defaultRoot() {
    const char* prefix = std::getenv("WINEPREFIX");
    if (prefix && prefix[0] != '\0') return absolute(prefix);
    const std::string folder = zqXdgFolder("XDG_DATA_HOME", ".local/share");
    if (folder.empty()) {
        throw SxException("There is no home folder for drive letters; set WINEPREFIX", UNIT, __LINE__);
    }
    return folder + "/tavrin/prefix";
}

[[noreturn]] void fail(const SxString& path, int64 error, int line) {
    throw SxException(SxException(SxOs::errorText(error), UNIT, line), "Cannot look at '" + path + "'", UNIT,
                      line);
}

bool hasLetter(const std::string& path) {
    if (path.size() < 2 || path[1] != ':') return false;
    const char letter = static_cast<char>(path[0] | 0x20);
    if (letter < 'a' || letter > 'z') return false;
    return path.size() == 2 || path[2] == '/' || path[2] == '\\';
}

bool exists(const std::string& path) {
    SxStat info;
    return SxOs::get().lstat(path, &info) == 0;
}

/// The parts below the letter; "." and ".." are resolved by text.
std::vector<std::string> splitParts(const std::string& path) {
    std::vector<std::string> parts;
    for (size_t begin = 2; begin < path.size();) {
        size_t end = path.find_first_of("/\\", begin);
        if (end == std::string::npos) end = path.size();
        const std::string part = path.substr(begin, end - begin);
        if (part == "..") {
            if (!parts.empty()) parts.pop_back();
        } else if (!part.empty() && part != ".") {
            parts.push_back(part);
        }
        begin = end + 1;
    }
    return parts;
}

/// What a look-up does with a folder that can't be listed.
enum class Unlisted { Passed, Raised };

/// The name in `folder` that `part` means; `part` itself where there is none.
std::string lookUp(const std::string& folder, const std::string& part, Unlisted unlisted) {
    if (exists(folder + "/" + part)) return part;
    const std::u16string wanted = zqFold(zqUtf16(part));
    // Names that aren't UTF-8 all look alike here.
    if (wanted.find(u'\xFFFD') != std::u16string::npos) return part;
    std::vector<std::string> names;
    const int listed = SxOs::get().list(folder, &names);
    const bool isNone = listed == -ENOENT || listed == -ENOTDIR;
    if (listed < 0 && !isNone && unlisted == Unlisted::Raised) fail(folder, listed, __LINE__);
    if (listed < 0) return part;
    const std::string* best = nullptr;
    for (const std::string& name : names) {
        // The smallest of several, so that the answer doesn't depend on the order in the folder.
        if (zqFold(zqUtf16(name)) == wanted && (!best || name < *best)) best = &name;
    }
    return best ? *best : part;
}

std::string lookUpAll(const std::string& folder, const std::vector<std::string>& parts, Unlisted unlisted) {
    std::string asGiven = folder;
    for (const std::string& part : parts)
        asGiven += "/" + part;
    if (exists(asGiven)) return asGiven;
    std::string found = folder;
    for (const std::string& part : parts)
        found += "/" + lookUp(found, part, unlisted);
    return found;
}

std::string driveFolder(char letterOrUpper) {
    const char letter = static_cast<char>(letterOrUpper | 0x20);
    const std::string prefix = ZqMachineRoot::get().str();
    const std::string link = prefix + "/dosdevices/" + letter + ":";
    return letter == 'c' && !exists(link) ? prefix + "/drive_c" : link;
}

} // namespace

void ZqMachineRoot::set(const SxString& path) {
    const std::string newPath = path.isEmpty() ? std::string() : absolute(path.str());
    // Before anyone sees the root, so that nothing in it is made for another owner.
    if (!newPath.empty()) ZqRootOwner::keep(newPath);
    Root& r = root();
    const SxMutexBlock lock(&r.mutex);
    r.path = newPath;
}

SxString ZqMachineRoot::get() {
    Root& r = root();
    {
        const SxMutexBlock lock(&r.mutex);
        if (!r.path.empty()) return r.path;
    }
    const std::string path = defaultRoot();
    ZqRootOwner::keep(path);
    const SxMutexBlock lock(&r.mutex);
    if (r.path.empty()) r.path = path;
    return r.path;
}

std::string ZqMachineRoot::hostPath(const std::string& path) {
    if (!hasLetter(path)) return path;
    const std::string drive = driveFolder(path[0]);
    const std::vector<std::string> parts = splitParts(path);
    // With a slash at the end it is the folder that the link leads to, not the link.
    if (parts.empty()) return drive + "/";
    return lookUpAll(drive, parts, Unlisted::Passed);
}

std::string ZqMachineRoot::hostPathBelow(const std::string& folder, const std::string& name) {
    std::vector<std::string> parts;
    for (const SxString& part : SxString(name).tokenize('/'))
        parts.push_back(part.str());
    return lookUpAll(folder, parts, Unlisted::Raised);
}

SxString ZqMachineRoot::windowsPath(const SxString& path) {
    SxOs& os = SxOs::get();
    std::string real;
    const int result = os.canonical(SxOs::hostPath(path), &real);
    if (result < 0) fail(path, result, __LINE__);
    std::string best;
    size_t nearest = 0;
    // C: comes first, however near another letter is.
    for (const char letter : std::string_view("CABDEFGHIJKLMNOPQRSTUVWXYZ")) {
        std::string folder;
        const int found = os.canonical(driveFolder(letter), &folder);
        if (found == -ENOENT || found == -ENOTDIR || found == -ELOOP || found == -EACCES) continue;
        if (found < 0) fail(driveFolder(letter), found, __LINE__);
        if (!folder.ends_with('/')) folder += '/';
        if (!(real + "/").starts_with(folder) || folder.size() <= nearest) continue;
        nearest = folder.size();
        best = std::string{letter, ':', '/'} + (real.size() > nearest ? real.substr(nearest) : "");
        if (letter == 'C') break;
    }
    return best.empty() ? SxString(real) : SxString(best);
}

bool ZqMachineRoot::makeDrive(const std::string& path) {
    if (!hasLetter(path) || (path[0] | 0x20) != 'c') return false;
    ZqRootLayout::make(get());
    return true;
}

bool ZqMachineRoot::install() noexcept {
    SxOs::setPathHooks(&ZqMachineRoot::hostPath, &ZqMachineRoot::makeDrive);
    return true;
}
