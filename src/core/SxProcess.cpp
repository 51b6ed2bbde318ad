#include "SxProcess.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxOs.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <thread>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr const char* UNIT = "src/core/SxProcess";
// Exit codes as shells count them: 128 + n where signal n ended a process, 127 where it wasn't run.
constexpr int SIGNAL_BASE = 128;
constexpr int NOT_EXECUTED = 127;
/// Most that is kept of standard error: what a pipe takes in.
constexpr size_t MAX_ERROR_TEXT = 64 << 10;

[[noreturn]] void fail(const SxString& what, int64 error, int line) {
    throw SxException(SxException(SxOs::errorText(error), UNIT, line), what, UNIT, line);
}

/// How far the child came, written to the parent where it didn't come to run the program.
struct Failure {
    enum Step { Folder, Program };
    Step step;
    int error;
};

/// Both ends of a pipe, never inherited by another program.
class Pipe {
public:
    explicit Pipe(int flags = 0) {
        if (pipe2(ends, O_CLOEXEC | flags) != 0) fail("Cannot make a pipe", errno, __LINE__);
    }
    ~Pipe() {
        if (ends[0] >= 0) ::close(ends[0]);
        closeWriter();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int reader() const { return ends[0]; }
    int writer() const { return ends[1]; }
    /// The caller closes it.
    int takeReader() { return std::exchange(ends[0], -1); }
    void closeWriter() {
        if (ends[1] >= 0) ::close(ends[1]);
        ends[1] = -1;
    }

private:
    int ends[2] = {-1, -1};
};

/// Blocks all signals of the thread for a scope, so that no handler of ours runs in the child.
class SignalBlock {
public:
    SignalBlock() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &old);
    }
    ~SignalBlock() { pthread_sigmask(SIG_SETMASK, &old, nullptr); }
    SignalBlock(const SignalBlock&) = delete;
    SignalBlock& operator=(const SignalBlock&) = delete;

private:
    sigset_t old{};
};

/// What the child does before it is the program.
struct ChildPlan {
    const char* program;
    char* const* argv;
    const char* folder; ///< null for ours
    SxProcess::Mode mode;
    int report;    ///< descriptor to report a failure on
    int errors;    ///< descriptor for standard error, with KeepError
    int output;    ///< descriptor for standard output and error, with Inherit; -1 for ours
    pid_t starter; ///< the process to end with; 0 for none
};

// From here to runChild(): between fork and exec of a process with threads, so only system calls.

void resetSignals() {
    struct sigaction action {};
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction old {};
        if (sigaction(signal, nullptr, &old) != 0) continue;
        // What nohup or a host ignores stays so, but for the broken pipe and the ends of children.
        const bool keep = old.sa_handler == SIG_IGN && signal != SIGPIPE && signal != SIGCHLD;
        action.sa_handler = keep ? SIG_IGN : SIG_DFL;
        sigaction(signal, &action, nullptr);
    }
    // A program in the background that opens the terminal itself gets an error instead of being stopped.
    action.sa_handler = SIG_IGN;
    sigaction(SIGTTIN, &action, nullptr);
    sigaction(SIGTTOU, &action, nullptr);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

/// Gives the descriptor to report a failure on.
int arrangeDescriptors(const ChildPlan& plan) {
    constexpr int REPORT = STDERR_FILENO + 1;
    // Out of the way first: where ours were closed, they may be among the standard ones.
    const int report = fcntl(plan.report, F_DUPFD_CLOEXEC, REPORT + 1);
    const int errors = fcntl(plan.errors, F_DUPFD_CLOEXEC, REPORT + 1);
    const int output = fcntl(plan.output, F_DUPFD_CLOEXEC, REPORT + 1);
    const int null = open("/dev/null", O_RDWR | O_CLOEXEC);
    dup2(null, STDIN_FILENO);
    if (plan.mode == SxProcess::Silent || plan.mode == SxProcess::KeepError) {
        dup2(null, STDOUT_FILENO);
        dup2(plan.mode == SxProcess::Silent ? null : errors, STDERR_FILENO);
    } else if (plan.mode == SxProcess::OutputToError) {
        dup2(STDERR_FILENO, STDOUT_FILENO);
    } else if (output >= 0) {
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
    }
    dup3(report, REPORT, O_CLOEXEC);
    closefrom(REPORT + 1);
    return REPORT;
}

[[noreturn]] void giveUp(int report, Failure::Step step) {
    const Failure failure{step, errno};
    // Where the parent is gone, nobody needs to know.
    [[maybe_unused]] const ssize_t n = write(report, &failure, sizeof failure);
    _exit(NOT_EXECUTED);
}

[[noreturn]] void runChild(const ChildPlan& plan) {
    // Not just a group in our session: the system would send a hang-up to a suspended one when we end.
    setsid();
    if (plan.starter != 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        // Where it was killed before that, no signal comes any longer.
        if (getppid() != plan.starter) _exit(NOT_EXECUTED);
    }
    resetSignals();
    const int report = arrangeDescriptors(plan);
    if (plan.folder && chdir(plan.folder) != 0) giveUp(report, Failure::Folder);
    execv(plan.program, plan.argv);
    giveUp(report, Failure::Program);
}

/// Takes in the end of a process that nobody asks for any longer.
void awaitElsewhere(pid_t pid) {
    try {
        std::thread([pid] {
            while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
            }
        }).detach();
    } catch (const std::system_error&) {
        // Without a thread to be had, the zombie goes when this program does: still better than to wait here.
    }
}

} // namespace

/// All that the child needs, made before the fork.
struct SxProcess::Launch {
    std::string programPath;
    std::vector<std::string> texts;
    std::vector<char*> argv;
    std::string folder;
    std::unique_ptr<Pipe> errors;
    Pipe pipe;
};

SxProcess::SxProcess(const SxString& program_, const SxList<SxString>& arguments_, Mode mode_)
    : program(program_),
      arguments(arguments_),
      mode(mode_) {
}

SxProcess::~SxProcess() {
    SxMutexBlock lock(&mutex);
    if (errorReader >= 0) ::close(errorReader);
    look();
    if (state == State::Running) {
        awaitElsewhere(pid);
    } else {
        collect();
    }
}

void SxProcess::setHiddenWindow(bool hidden) {
    SxMutexBlock lock(&mutex);
    winProcParams.hiddenWindow = hidden;
}

void SxProcess::setWinProcParams(const SxWinProcParams& params) {
    SxMutexBlock lock(&mutex);
    winProcParams = params;
}

SxWinProcParams SxProcess::getWinProcParams() const {
    SxMutexBlock lock(&mutex);
    return winProcParams;
}

void SxProcess::setWorkingDirectory(const SxString& path) {
    SxMutexBlock lock(&mutex);
    workingDirectory = path;
}

void SxProcess::setOutput(int fd) {
    SxMutexBlock lock(&mutex);
    output = fd;
}

void SxProcess::setEndsWithStarter(bool ends) {
    SxMutexBlock lock(&mutex);
    endsWithStarter = ends;
}

std::string SxProcess::programPath() const {
    std::string path = SxOs::hostPath(program);
    if (path[0] == '/') return path;
    // The child changes to its folder before the program is looked up.
    if (path.find('/') != std::string::npos) return SxOs::get().currentDir() + "/" + path;
    const char* folders = std::getenv("PATH");
    for (const SxString& folder : SxString(folders ? folders : "/usr/bin:/bin").tokenize(':')) {
        std::string candidate = folder.str() + "/" + path;
        SxStat info;
        if (SxOs::get().stat(candidate, &info) == 0 && info.kind == SxStat::File &&
            (info.permissions & 0111)) {
            return candidate;
        }
    }
    fail("Cannot start '" + program + "'", ENOENT, __LINE__);
}

SxProcess::Launch SxProcess::prepare(const SxList<SxString>& moreArguments) const {
    std::vector<std::string> texts{programPath()};
    for (const SxList<SxString>* part : {&arguments, &moreArguments}) {
        for (const SxString& argument : *part) {
            if (argument.str().find('\0') != std::string::npos) {
                throw SxException("An argument for '" + program + "' holds a NUL", UNIT, __LINE__);
            }
            texts.push_back(argument.str());
        }
    }
    std::vector<char*> argv;
    argv.reserve(texts.size() + 1);
    for (std::string& text : texts)
        argv.push_back(text.data());
    argv.push_back(nullptr);

    // Never blocks: nobody reads while the process runs, so what doesn't fit is dropped.
    auto errors = mode == KeepError ? std::make_unique<Pipe>(O_NONBLOCK) : nullptr;

    SxMutexBlock lock(&mutex);
    const std::string folder = workingDirectory.isEmpty() ? "" : SxOs::hostPath(workingDirectory);
    return Launch{texts.front(), std::move(texts), std::move(argv), folder, std::move(errors), Pipe()};
}

/// Makes the child; gives false where kill() came first.
bool SxProcess::fork(Launch* launch) {
    SxMutexBlock lock(&mutex);
    if (state != State::New) throw SxException("'" + program + "' was started before", UNIT, __LINE__);
    if (killed) {
        state = State::Collected;
        status = SIGNAL_BASE + SIGKILL;
        return false;
    }
    const ChildPlan plan{launch->programPath.c_str(),
                         launch->argv.data(),
                         launch->folder.empty() ? nullptr : launch->folder.c_str(),
                         mode,
                         launch->pipe.writer(),
                         launch->errors ? launch->errors->writer() : -1,
                         output,
                         endsWithStarter ? getpid() : 0};
    const SignalBlock noSignals;
    const pid_t child = ::fork();
    if (child < 0) fail("Cannot start '" + program + "'", errno, __LINE__);
    if (child == 0) runChild(plan);
    pid = child;
    if (launch->errors) {
        if (errorReader >= 0) ::close(errorReader);
        errorReader = launch->errors->takeReader();
    }
    state = State::Running;
    SxProcessInfo info;
    if (SxProcessInfo::get(child, &info)) group = SxProcessGroup(child, info.startTime);
    return true;
}

void SxProcess::start(const SxList<SxString>& moreArguments) {
    Launch launch = prepare(moreArguments);
    if (!fork(&launch)) return;
    launch.pipe.closeWriter();
    // Without the lock: the program may lie on a drive whose data is still to come, and kill() must not wait
    // for that.
    Failure failure{};
    ssize_t n = 0;
    do {
        n = ::read(launch.pipe.reader(), &failure, sizeof failure);
    } while (n < 0 && errno == EINTR);
    if (n != static_cast<ssize_t>(sizeof failure)) return;

    SxMutexBlock lock(&mutex);
    while (waitpid(pid, nullptr, 0) < 0 && errno == EINTR) {
    }
    state = State::New;
    pid = -1;
    group = {};
    if (failure.step == Failure::Folder) {
        fail("Cannot use the working folder '" + workingDirectory + "' of '" + program + "'", failure.error,
             __LINE__);
    }
    fail("Cannot start '" + program + "'", failure.error, __LINE__);
}

/// Sees whether the process has ended; its zombie stays, and keeps the group's id from being given anew.
void SxProcess::look() {
    if (state != State::Running) return;
    siginfo_t info{};
    const int result = waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOHANG | WNOWAIT);
    if (result < 0 && errno == ECHILD) {
        state = State::Collected;
    } else if (result == 0 && info.si_pid == pid) {
        status = info.si_code == CLD_EXITED ? info.si_status : SIGNAL_BASE + info.si_status;
        state = State::Ended;
    }
}

void SxProcess::collect() {
    if (state != State::Ended) return;
    waitpid(pid, nullptr, 0);
    state = State::Collected;
}

int SxProcess::wait() {
    pid_t child = -1;
    {
        SxMutexBlock lock(&mutex);
        if (state == State::New) throw SxException("'" + program + "' was not started", UNIT, __LINE__);
        if (state == State::Running) child = pid;
    }
    if (child >= 0) {
        siginfo_t info;
        SxClock::get().waitBegins();
        while (waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT) < 0 && errno == EINTR) {
        }
        SxClock::get().waitEnds();
    }
    SxMutexBlock lock(&mutex);
    look();
    collect();
    if (status < 0) {
        throw SxException("The exit code of '" + program + "' was taken by another part of the program", UNIT,
                          __LINE__);
    }
    return status;
}

int SxProcess::run() {
    start();
    return wait();
}

bool SxProcess::isRunning() {
    SxMutexBlock lock(&mutex);
    look();
    return state == State::Running;
}

int SxProcess::exitStatus() {
    SxMutexBlock lock(&mutex);
    look();
    return status;
}

SxString SxProcess::getErrorText() {
    SxMutexBlock lock(&mutex);
    while (errorReader >= 0 && errorText.size() < MAX_ERROR_TEXT) {
        char buffer[4096];
        const ssize_t n = ::read(errorReader, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break; // the end, or nothing more for now
        errorText.append(buffer, static_cast<size_t>(n));
    }
    return SxString(errorText);
}

int SxProcess::getId() const {
    SxMutexBlock lock(&mutex);
    return pid;
}

SxProcessGroup SxProcess::getGroup() const {
    SxMutexBlock lock(&mutex);
    return group;
}

void SxProcess::signalGroup(GroupSignal signal) {
    SxMutexBlock lock(&mutex);
    if (state != State::Running && state != State::Ended) return;
    const int number = signal == StopSignal ? SIGSTOP : signal == ContinueSignal ? SIGCONT : SIGKILL;
    // A child that hasn't come to make its group yet is the only process that would be in it.
    if (::kill(-pid, number) != 0 && (errno != ESRCH || ::kill(pid, number) != 0) && errno != ESRCH) {
        const char* what = signal == StopSignal ? "suspend" : signal == ContinueSignal ? "resume" : "kill";
        fail(SxString("Cannot ") + what + " '" + program + "'", errno, __LINE__);
    }
}

void SxProcess::kill() {
    {
        SxMutexBlock lock(&mutex);
        killed = true;
    }
    signalGroup(KillSignal);
}
