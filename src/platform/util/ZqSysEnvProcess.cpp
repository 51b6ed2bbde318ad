#include "SxProcessInfo.h"
#include "SxTime.h"
#include "ZqLog.h"
#include "ZqMachineRoot.h"
#include "ZqSysEnv.h"

#include "SxFileIO.h"
#include "SxOs.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <set>
#include <unistd.h>
#include <vector>

namespace {

/// Longest path that a program can be called with.
constexpr int64 MAX_ARGUMENT = 4096;
/// Most bytes of a process's environment that are read.
constexpr int64 MAX_ENVIRONMENT = 1 << 20;
/// Time between two looks for a process. Longer than in other waits: a look asks after every process of
/// the machine and takes milliseconds of a core that a starting game needs.
constexpr int64 LOOK_MS = 50;
/// What the system adds to the path of a program whose file is gone.
constexpr std::string_view DELETED = " (deleted)";

/// How names are compared: with case, or without for Windows programs.
class NameMatch {
public:
    explicit NameMatch(const SxString& name)
        : wanted(name.changeCase(false)),
          anyCase(wanted.endsWith(".exe")) {
        if (!anyCase) wanted = name;
    }
    bool fits(std::string_view path) const {
        const size_t separator = path.find_last_of("/\\");
        const SxString last = separator == std::string_view::npos ? path : path.substr(separator + 1);
        return (anyCase ? last.changeCase(false) : last) == wanted;
    }

private:
    SxString wanted;
    bool anyCase;
};

/// The first bytes of a file of the system; none where it can't be read.
std::string readFile(const std::string& path, int64 maxBytes) {
    std::string text(static_cast<size_t>(maxBytes), '\0');
    const int fd = SxOs::get().open(path, SxOs::Read, 0);
    if (fd < 0) return {};
    const int64 n = SxOs::get().readAt(fd, text.data(), maxBytes, 0);
    SxOs::get().close(fd);
    text.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return text;
}

/// The first argument that a process was started with; empty where it has none, or has ended.
std::string firstArgument(const std::string& procFolder) {
    const std::string text = readFile(procFolder + "/cmdline", MAX_ARGUMENT);
    return text.substr(0, text.find('\0'));
}

/// A variable of an environment, whose entries end in NULs; empty where it isn't set.
std::string variableOf(const std::string& environment, const std::string& name) {
    const std::string begin = name + "=";
    for (size_t at = 0; at < environment.size();) {
        const size_t end = std::min(environment.find('\0', at), environment.size());
        if (environment.compare(at, begin.size(), begin) == 0)
            return environment.substr(at + begin.size(), end - at - begin.size());
        at = end + 1;
    }
    return {};
}

/// A process that has ended no longer has a program or arguments, so it fits no name.
bool fits(const NameMatch& match, int pid) {
    const std::string folder = "/proc/" + std::to_string(pid);
    std::string program;
    // Fails for processes of other users; their arguments can be read all the same.
    if (SxOs::get().readLink(folder + "/exe", &program) == 0) {
        if (program.ends_with(DELETED)) program.resize(program.size() - DELETED.size());
        if (match.fits(program)) return true;
    }
    const std::string argument = firstArgument(folder);
    return !argument.empty() && match.fits(argument);
}

SxList<int> findProcesses(const NameMatch& match) {
    std::vector<std::string> names;
    std::vector<int> found;
    if (SxOs::get().list("/proc", &names) < 0) return {};
    for (const std::string& name : names) {
        int pid = -1;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), pid);
        if (error != std::errc() || end != name.data() + name.size() || pid == getpid()) continue;
        if (fits(match, pid)) found.push_back(pid);
    }
    std::sort(found.begin(), found.end());
    SxList<int> ids;
    for (const int pid : found)
        ids << pid;
    return ids;
}

} // namespace

bool ZqSysEnv::isProcRunning(const SxString& name) {
    return getProcessID(name, -1) >= 0;
}

int ZqSysEnv::getProcessID(const SxString& name, int64 limit) {
    if (name.isEmpty()) return -1;
    const NameMatch match(name);
    int found = -1;
    SxWait::pass(
        limit,
        [&] {
            const SxList<int> ids = findProcesses(match);
            found = ids.isEmpty() ? -1 : ids.first();
            return found >= 0;
        },
        LOOK_MS);
    return found;
}

SxList<int> ZqSysEnv::getProcessIDs(const SxString& name) {
    return name.isEmpty() ? SxList<int>() : findProcesses(NameMatch(name));
}

SxList<SxString> ZqSysEnv::getProgramNames() {
    std::set<std::string> names;
    for (const SxProcessInfo& process : SxProcessInfo::getAll()) {
        if (process.user != SxProcessInfo::ownUser() || process.id == getpid() || !process.isRunning())
            continue;
        const std::string folder = "/proc/" + std::to_string(process.id);
        std::string program;
        if (SxOs::get().readLink(folder + "/exe", &program) != 0) continue; // the kernel's own, or ended
        if (program.ends_with(DELETED)) program.resize(program.size() - DELETED.size());
        const std::string argument = firstArgument(folder);
        if (SxString(argument).changeCase(false).endsWith(".exe")) program = argument;
        names.insert(program.substr(program.find_last_of("/\\") + 1));
    }
    SxList<SxString> list;
    for (const std::string& name : names)
        list << SxString(name);
    return list;
}

bool ZqSysEnv::isInMachineRoot(int id) {
    SxProcessInfo info;
    if (!SxProcessInfo::get(id, &info) || info.user != SxProcessInfo::ownUser()) return false;
    const std::string environment = readFile("/proc/" + std::to_string(id) + "/environ", MAX_ENVIRONMENT);
    // Wine's own prefix is below the home folder.
    std::string prefix = variableOf(environment, "WINEPREFIX");
    if (prefix.empty()) prefix = variableOf(environment, "HOME") + "/.wine";
    std::string theirs, ours;
    return SxOs::get().canonical(prefix, &theirs) == 0 &&
           SxOs::get().canonical(ZqMachineRoot::get().str(), &ours) == 0 && theirs == ours;
}

bool ZqSysEnv::killProcess(int id) {
    // Lower numbers mean groups, everything, or the system's first process to kill(2).
    const bool sensible = id > 1 && id != getpid();
    if (sensible && (::kill(id, SIGKILL) == 0 || errno == ESRCH)) return true;
    const SxString why =
        sensible ? SxOs::errorText(errno) : SxString("it is not a process to be ended from here");
    zqLogMsg("base", "ZqSysEnv::killProcess: Cannot end process " + SxString(id) + ": " + why);
    return false;
}
