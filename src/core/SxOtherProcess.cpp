#include "SxOtherProcess.h"

#include "SxException.h"
#include "SxMutex.h"
#include "SxOs.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr const char* UNIT = "src/core/SxOtherProcess";

// Debian 12's headers don't have these yet.
struct PidfdInfo {
    uint64 mask = 0;
    uint64 cgroup = 0;
    std::array<uint32, 11> ids{}; ///< of the process, its thread group, its parent, and eight of its user
    int32_t waitStatus = 0;
};
static_assert(sizeof(PidfdInfo) == 64 && offsetof(PidfdInfo, waitStatus) == 60);
constexpr uint64 INFO_EXIT = 1 << 3;
constexpr unsigned long GET_INFO = _IOWR(0xFF, 11, PidfdInfo);

struct Adopters {
    SxMutex mutex;
    int n SX_GUARDED_BY(mutex) = 0;
    int before SX_GUARDED_BY(mutex) = 0;
};

Adopters& adopters() {
    static Adopters a;
    return a;
}

} // namespace

SxOtherProcess::SxOtherProcess(int64 id) {
    if (id <= 0 || !SxProcessInfo::get(id, &info)) return;
    fd = static_cast<int>(syscall(SYS_pidfd_open, static_cast<pid_t>(id), 0U));
    // The id may have passed to another process before the handle was there.
    SxProcessInfo now;
    const bool same = SxProcessInfo::get(id, &now) && now.startTime == info.startTime;
    if (fd >= 0 && !same) {
        close(fd);
        fd = -1;
    }
}

SxOtherProcess::~SxOtherProcess() {
    if (fd >= 0) close(fd);
}

bool SxOtherProcess::isRunning() const {
    if (fd >= 0) {
        pollfd ended{fd, POLLIN, 0};
        return poll(&ended, 1, 0) == 0;
    }
    SxProcessInfo now;
    return info.id > 0 && SxProcessInfo::get(info.id, &now) && now.startTime == info.startTime &&
           now.isRunning();
}

std::optional<int> SxOtherProcess::exitCode(int64* error) const {
    siginfo_t child{};
    const auto id = static_cast<id_t>(info.id);
    if (waitid(P_PID, id, &child, WEXITED | WNOHANG | WNOWAIT) == 0 && child.si_pid == info.id) {
        // In the form of a wait status.
        const int status = child.si_status;
        return SxProcessInfo::exitCodeOf(child.si_code == CLD_EXITED ? W_EXITCODE(status, 0) : status);
    }
    *error = errno;
    SxProcessInfo now;
    if (SxProcessInfo::get(info.id, &now) && now.startTime == info.startTime && !now.isRunning() &&
        now.user == SxProcessInfo::ownUser()) {
        return SxProcessInfo::exitCodeOf(now.waitStatus);
    }
    PidfdInfo end;
    end.mask = INFO_EXIT;
    if (fd >= 0 && ioctl(fd, GET_INFO, &end) == 0 && (end.mask & INFO_EXIT)) {
        return SxProcessInfo::exitCodeOf(end.waitStatus);
    }
    return std::nullopt;
}

void SxOtherProcess::suspend() const {
    signal(SIGSTOP, "suspend");
}

void SxOtherProcess::resume() const {
    signal(SIGCONT, "resume");
}

void SxOtherProcess::signal(int number, const char* what) const {
    if (syscall(SYS_pidfd_send_signal, fd, number, nullptr, 0U) == 0 || errno == ESRCH) return;
    throw SxException(SxException(SxOs::errorText(errno), UNIT, __LINE__),
                      SxString("Cannot ") + what + " process " + info.id, UNIT, __LINE__);
}

void SxOtherProcess::reap() const {
    if (info.id > 0) waitpid(static_cast<pid_t>(info.id), nullptr, WNOHANG);
}

SxAdoption::SxAdoption() {
    Adopters& a = adopters();
    SxMutexBlock lock(&a.mutex);
    if (a.n++ > 0) return;
    if (prctl(PR_GET_CHILD_SUBREAPER, &a.before) != 0) a.before = 0;
    // Where the system refuses, exit codes stay unknown, as before.
    prctl(PR_SET_CHILD_SUBREAPER, 1);
}

SxAdoption::~SxAdoption() {
    Adopters& a = adopters();
    SxMutexBlock lock(&a.mutex);
    if (--a.n == 0 && a.before == 0) prctl(PR_SET_CHILD_SUBREAPER, 0);
}
