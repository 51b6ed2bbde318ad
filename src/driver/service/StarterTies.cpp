#include "StarterTies.h"

#include "Mounts.h"
#include "SxException.h"
#include "SxList.h"
#include "SxOs.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fstream>
#include <string>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

/// Name of a group that is made for drives: in a group of the second kind that has groups of its own no
/// process may be.
constexpr const char* OWN_GROUP = "tavrin-drives";
constexpr const char* SECOND_KIND = "cgroup2";

bool isAmong(const std::string& words, const std::string& word) {
    return ("," + words + ",").find("," + word + ",") != std::string::npos;
}

/// Gives an errno value.
int writeTo(const std::string& file, const std::string& text) {
    const int fd = ::open(file.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd < 0) return errno;
    const ssize_t n = ::write(fd, text.data(), text.size());
    const int error = n < 0 ? errno : 0;
    ::close(fd);
    return error;
}

bool enter(const std::string& folder, bool isSecondKind) {
    constexpr const char* PROCESSES = "/cgroup.procs";
    const std::string self = "0"; // of whoever writes it
    int error = writeTo(folder + PROCESSES, self);
    if (error == EBUSY && isSecondKind) {
        const std::string own = folder + "/" + OWN_GROUP;
        if (::mkdir(own.c_str(), 0755) != 0 && errno != EEXIST) return false;
        error = writeTo(own + PROCESSES, self);
        if (error != 0) ::rmdir(own.c_str()); // which fails where it has others
    }
    return error == 0;
}

/// Leaves one group, given as `path` in its hierarchy, for the highest one that takes this process.
bool leaveGroup(const Mounts::Mount& hierarchy, const std::string& path) {
    const bool isSecondKind = hierarchy.type == SECOND_KIND;
    const std::string base = hierarchy.root == "/" ? std::string() : hierarchy.root;
    if (path == "/" || path == base || path.ends_with(std::string("/") + OWN_GROUP)) return true;
    // What lies above is another container's.
    if (!path.starts_with(base + "/") || path.starts_with("/..")) return false;
    for (size_t end = base.size(); end != std::string::npos; end = path.find('/', end + 1)) {
        if (enter(hierarchy.at + path.substr(base.size(), end - base.size()), isSecondKind)) return true;
    }
    return false;
}

void leaveGroups(SxList<SxString>* kept) {
    const std::vector<Mounts::Mount> mounts = Mounts::all();
    std::ifstream table("/proc/self/cgroup");
    // A kernel without such groups has no such file.
    if (!table.is_open() && errno != ENOENT)
        kept->append("control groups, which can't be read: " + SxOs::errorText(errno));
    std::string line;
    while (std::getline(table, line)) {
        const size_t first = line.find(':'), second = line.find(':', first + 1);
        if (second == std::string::npos) continue;
        const std::string names = line.substr(first + 1, second - first - 1), path = line.substr(second + 1);
        const auto isIts = [&](const Mounts::Mount& each) {
            return names.empty() ? each.type == SECOND_KIND
                                 : each.type == "cgroup" && isAmong(each.options, names);
        };
        const auto found = std::find_if(mounts.begin(), mounts.end(), isIts);
        const bool isTop = path == "/";
        if (!isTop && (found == mounts.end() || !leaveGroup(*found, path)))
            kept->append(SxString("control group ") + (names.empty() ? "" : names + ":") + path);
    }
}

/// A limit of this process, and what it needs at least.
struct Limit {
    __rlimit_resource resource;
    const char* name;
    rlim_t wanted, needed;
};

void liftLimits(SxList<SxString>* kept) {
    // A disk has some ten descriptors open and about as many threads, so FEW serve hundreds of disks.
    constexpr rlim_t FILES = 65'536, FEW = 4096;
    static constexpr Limit LIMITS[] = {{RLIMIT_AS, "address space", RLIM_INFINITY, RLIM_INFINITY},
                                       {RLIMIT_DATA, "data", RLIM_INFINITY, RLIM_INFINITY},
                                       {RLIMIT_FSIZE, "file size", RLIM_INFINITY, RLIM_INFINITY},
                                       {RLIMIT_CPU, "processor time", RLIM_INFINITY, RLIM_INFINITY},
                                       {RLIMIT_NPROC, "processes", RLIM_INFINITY, FEW},
                                       {RLIMIT_NOFILE, "open files", FILES, FEW},
                                       {RLIMIT_MEMLOCK, "locked memory", RLIM_INFINITY, 0}};
    for (const Limit& each : LIMITS) {
        rlimit now = {};
        if (::getrlimit(each.resource, &now) != 0) continue;
        // RLIM_INFINITY is the largest number.
        const rlimit raised = {std::max(now.rlim_cur, each.wanted), std::max(now.rlim_max, each.wanted)};
        const rlimit allowed = {std::max(now.rlim_cur, std::min(each.wanted, now.rlim_max)), now.rlim_max};
        if (::setrlimit(each.resource, &raised) == 0) continue;
        ::setrlimit(each.resource, &allowed);
        if (allowed.rlim_cur < each.needed)
            kept->append(SxString("limit of ") + each.name + " " + static_cast<uint64>(allowed.rlim_cur));
    }
}

} // namespace

SxString StarterTies::leave() {
    SxList<SxString> kept;
    try {
        leaveGroups(&kept);
    } catch (const SxException& e) {
        kept.append("control groups: " + e.toString(SxException::ShowMessage, ": "));
    }
    liftLimits(&kept);
    if (::setpriority(PRIO_PROCESS, 0, 0) != 0)
        kept.append(SxString("nice value ") + ::getpriority(PRIO_PROCESS, 0));
    if (const int error = writeTo("/proc/self/oom_score_adj", "0"))
        kept.append("OOM score: " + SxOs::errorText(error));
    return SxString::join(kept, ", ");
}
