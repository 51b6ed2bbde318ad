#include "ZqServiceFolder.h"

#include "SxException.h"
#include "SxOs.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/platform/devctl/wire/ZqServiceFolder";

/// With all links resolved, since what lies below is looked for in the kernel's table of mounts; but for our
/// own folder itself, which must be no link.
std::string parentFolder() {
    if (::geteuid() == 0) return SxOs::physicalPath("/run") + "/tavrin/";
    const std::string user = std::to_string(::geteuid());
    // What a login session has is found by one without that variable, too.
    const std::string session = "/run/user/" + user;
    if (::access(session.c_str(), W_OK) == 0) return SxOs::physicalPath(session) + "/tavrin/";
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime && runtime[0] == '/') return SxOs::physicalPath(runtime) + "/tavrin/";
    return SxOs::physicalPath("/tmp") + "/tavrin-" + user + "/";
}

void makePrivate(const std::string& folder) {
    if (::mkdir(folder.c_str(), 0700) != 0 && errno != EEXIST) {
        throw SxException("Cannot create folder '" + folder + "': " + SxOs::errorText(errno), UNIT, __LINE__);
    }
    struct stat info = {};
    if (::lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != ::geteuid() ||
        (info.st_mode & 077) != 0) {
        throw SxException("Folder '" + folder + "' must belong to the user alone (mode 0700)", UNIT,
                          __LINE__);
    }
}

} // namespace

std::string ZqServiceFolder::of(const std::string& machineRoot) {
    const std::string root = SxOs::physicalPath(machineRoot);
    // FNV-1a
    uint64 hash = 14695981039346656037U;
    for (const char c : root)
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211U;
    return parentFolder() + SxString::sprintf("%016llx", static_cast<unsigned long long>(hash)).str() + "/";
}

void ZqServiceFolder::make(const std::string& folder) {
    const std::string parent = parentFolder();
    makePrivate(parent.substr(0, parent.size() - 1));
    makePrivate(folder.substr(0, folder.size() - 1));
}

ZqServiceFolder::Namespace ZqServiceFolder::mountNamespace() {
    SxStat info;
    if (SxOs::get().stat("/proc/self/ns/mnt", &info) != 0) return {};
    return {info.device, info.inode};
}

std::string ZqServiceFolder::directName() {
    const Namespace own = mountNamespace();
    return DIRECT + std::to_string(own.device) + "." + std::to_string(own.inode);
}

bool ZqServiceFolder::isDirectName(std::string_view name) {
    if (!name.starts_with(DIRECT)) return false;
    const std::string_view numbers = name.substr(std::string_view(DIRECT).size());
    const size_t point = numbers.find('.');
    return point != std::string_view::npos && numbers.find('.', point + 1) == std::string_view::npos &&
           numbers.find_first_not_of("0123456789.") == std::string_view::npos;
}

bool ZqServiceFolder::hasServedDrives(const std::string& folder) {
    const std::string mounts = folder + MOUNTS + "/";
    std::vector<std::string> disks;
    SxOs::get().list(mounts, &disks);
    const std::string name = directName();
    return std::any_of(disks.begin(), disks.end(), [&](const std::string& disk) {
        return ::access((mounts + disk + "/" + name).c_str(), F_OK) == 0;
    });
}

bool ZqServiceFolder::isBelow(std::string_view path) {
    constexpr std::string_view NAME = "/tavrin";
    constexpr size_t N_DIGITS = 16;
    for (size_t at = path.find(NAME); at != std::string_view::npos; at = path.find(NAME, at + 1)) {
        std::string_view rest = path.substr(at + NAME.size());
        if (rest.starts_with('-')) rest.remove_prefix(std::min(rest.find('/'), rest.size()));
        if (!rest.starts_with('/')) continue;
        rest.remove_prefix(1);
        const size_t nDigits = std::min(rest.find_first_not_of("0123456789abcdef"), rest.size());
        if (nDigits == N_DIGITS && rest.size() > nDigits && rest[nDigits] == '/') return true;
    }
    return false;
}
