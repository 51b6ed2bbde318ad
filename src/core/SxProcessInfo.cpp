#include "SxProcessInfo.h"

#include "SxOs.h"

#include <charconv>
#include <csignal>
#include <cstring>
#include <sstream>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

/// In bytes, more than the file `stat` of a process has.
constexpr int64 MAX_STAT = 4096;
/// A process that signal n has ended counts as 128 + n, as for shells.
constexpr int SIGNAL_BASE = 128;
// Numbers of the fields in proc(5).
constexpr int FIRST_NUMBER = 4, GROUP = 5, START_TIME = 22, EXIT_CODE = 52;
/// A chain of parents isn't longer, unless it changes while it is read.
constexpr int MAX_PARENTS = 1000;

std::string readStat(int64 id) {
    std::string text(MAX_STAT, '\0');
    const int fd = SxOs::get().open("/proc/" + std::to_string(id) + "/stat", SxOs::Read, 0);
    if (fd < 0) return {};
    const int64 n = SxOs::get().readAt(fd, text.data(), MAX_STAT, 0);
    SxOs::get().close(fd);
    text.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return text;
}

} // namespace

bool SxProcessInfo::get(int64 id, SxProcessInfo* info) {
    const std::string text = readStat(id);
    // The program's name stands in brackets, and may hold brackets and blanks itself.
    const size_t end = text.rfind(')');
    if (end == std::string::npos) return false;
    std::istringstream fields(text.substr(end + 1));
    SxProcessInfo result;
    result.id = id;
    fields >> result.state >> result.parent;
    for (int field = FIRST_NUMBER + 1; field <= EXIT_CODE; ++field) {
        uint64 value = 0;
        std::string word;
        if (!(fields >> word)) break;
        std::from_chars(word.data(), word.data() + word.size(), value);
        if (field == GROUP) result.group = static_cast<int64>(value);
        if (field == START_TIME) result.startTime = value;
        if (field == EXIT_CODE) result.waitStatus = static_cast<int64>(value);
    }
    struct ::stat folder {};
    if (result.group < 0 || ::stat(("/proc/" + std::to_string(id)).c_str(), &folder) != 0) return false;
    result.user = folder.st_uid;
    *info = result;
    return true;
}

SxList<SxProcessInfo> SxProcessInfo::getAll() {
    SxList<SxProcessInfo> all;
    std::vector<std::string> names;
    if (SxOs::get().list("/proc", &names) < 0) return all;
    for (const std::string& name : names) {
        int64 id = -1;
        const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), id);
        SxProcessInfo info;
        if (error == std::errc() && end == name.data() + name.size() && get(id, &info)) all << info;
    }
    return all;
}

bool SxProcessInfo::isDescendant() const {
    SxProcessInfo at = *this;
    for (int i = 0; i < MAX_PARENTS; ++i) {
        if (at.parent == getpid()) return true;
        if (at.parent <= 1 || !get(at.parent, &at)) return false;
    }
    return false;
}

int64 SxProcessInfo::ownUser() noexcept {
    return geteuid();
}

int SxProcessInfo::exitCodeOf(int64 waitStatus) noexcept {
    const auto status = static_cast<int>(waitStatus);
    return WIFSIGNALED(status) ? SIGNAL_BASE + WTERMSIG(status) : WEXITSTATUS(status);
}

SxString SxProcessInfo::describeExitCode(int64 code) {
    SxString text(code);
    if (code <= SIGNAL_BASE || code > SIGNAL_BASE + SIGRTMAX) return text;
    const int signal = static_cast<int>(code - SIGNAL_BASE);
    const char* name = sigabbrev_np(signal);
    if (name) text += SxString(" (signal SIG") + name + ", " + sigdescr_np(signal) + ")";
    return text;
}
