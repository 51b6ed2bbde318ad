#include "Helper.h"

#include "DriverLog.h"
#include "HelperOps.h"
#include "SxDeadline.h"
#include "SxException.h"
#include "SxOs.h"
#include "SxTime.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace {

constexpr const char* UNIT = "src/driver/Helper";
/// How long an operation may still take once it was unblocked.
constexpr int64 UNBLOCKED_MS = 3000;
/// How often progress is looked at.
constexpr int64 LOOK_MS = 200;

/// A pipe whose ends no other child process inherits.
struct Pipe {
    int in = -1, out = -1; ///< to read from, to write to

    Pipe() {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) {
            throw SxException("Cannot make a pipe: " + SxOs::errorText(errno), UNIT, __LINE__);
        }
        in = ends[0];
        out = ends[1];
    }
    ~Pipe() {
        closeOut();
        ::close(in);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    void closeOut() {
        if (out >= 0) ::close(out);
        out = -1;
    }
};

/// Copies of descriptors that are none of those which they become in a helper.
class Copies {
public:
    explicit Copies(const std::vector<int>& files) {
        const int least = Helper::FIRST_FILE + static_cast<int>(files.size());
        for (const int file : files)
            copies.push_back(::fcntl(file, F_DUPFD_CLOEXEC, least));
    }
    ~Copies() {
        for (const int copy : copies)
            ::close(copy);
    }
    Copies(const Copies&) = delete;
    Copies& operator=(const Copies&) = delete;

    void hand(posix_spawn_file_actions_t* actions) const {
        for (size_t i = 0; i < copies.size(); ++i)
            ::posix_spawn_file_actions_adddup2(actions, copies[i], Helper::FIRST_FILE + static_cast<int>(i));
    }

private:
    std::vector<int> copies;
};

pid_t spawn(const SxList<SxString>& arguments, int outputFd, const std::vector<int>& files) {
    std::vector<std::string> words = {"zqdd", "helper"};
    for (const SxString& word : arguments)
        words.push_back(word.str());
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (std::string& word : words)
        argv.push_back(word.data());
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    ::posix_spawn_file_actions_init(&actions);
    ::posix_spawn_file_actions_adddup2(&actions, outputFd, STDOUT_FILENO);
    const Copies copies(files);
    copies.hand(&actions);
    pid_t pid = -1;
    const int error = ::posix_spawn(&pid, "/proc/self/exe", &actions, nullptr, argv.data(), environ);
    ::posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        throw SxException("Cannot start a helper process: " + SxOs::errorText(error), UNIT, __LINE__);
    }
    return pid;
}

/// Reads until the writer has ended; false where that takes longer than `limitMs` from the last progress.
bool readAll(int fd, std::string* text, int64 limitMs, const std::function<uint64()>& progress) {
    SxDeadline deadline(limitMs);
    for (;;) {
        if (progress) deadline.note(progress());
        const int64 leftMs = deadline.getLeftMs();
        if (leftMs <= 0) return false;
        pollfd poll = {fd, POLLIN, 0};
        if (::poll(&poll, 1, static_cast<int>(std::min(leftMs, LOOK_MS))) <= 0) continue;
        char bytes[4096];
        const ssize_t n = ::read(fd, bytes, sizeof bytes);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return true;
        text->append(bytes, static_cast<size_t>(n));
    }
}

Helper::Facts parse(const std::string& text) {
    Helper::Facts facts;
    for (const SxString& line : SxString(text).tokenize('\n')) {
        const std::string& words = line.str();
        const size_t gap = words.find(' ');
        facts[words.substr(0, gap)] = gap == std::string::npos ? std::string() : words.substr(gap + 1);
    }
    return facts;
}

/// Waits for the process, which has closed its output or was killed; gives its exit code. One that is stuck
/// in the kernel isn't waited for any longer and left to the system: -1.
int collect(pid_t pid) {
    int status = 0;
    const bool ended = SxWait::pass(UNBLOCKED_MS, [&] { return ::waitpid(pid, &status, WNOHANG) != 0; });
    if (!ended) driverLog("helper process " + SxString(pid) + " doesn't end");
    return ended && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

} // namespace

Helper::Facts Helper::run(const SxList<SxString>& arguments, int64 limitMs,
                          const std::function<void()>& unblock, const std::function<uint64()>& progress,
                          const std::vector<int>& files) {
    Pipe output;
    const pid_t pid = spawn(arguments, output.out, files);
    output.closeOut();
    std::string text;
    bool done = readAll(output.in, &text, limitMs, progress);
    if (!done) {
        driverLog("'" + arguments(0) + "' takes longer than " + SxString(limitMs) + " ms" +
                  (progress ? " without progress" : ""));
        if (unblock) unblock();
        done = readAll(output.in, &text, UNBLOCKED_MS, nullptr);
    }
    if (!done) ::kill(pid, SIGKILL);
    const int code = collect(pid);
    if (!done) throw SxException("'" + arguments(0) + "' took too long", UNIT, __LINE__);
    Facts facts = parse(text);
    const auto error = facts.find("error");
    if (error != facts.end()) throw SxException(SxString(error->second), UNIT, __LINE__);
    if (code != 0)
        throw SxException("'" + arguments(0) + "' ended with status " + SxString(code), UNIT, __LINE__);
    return facts;
}

int Helper::main(int argc, char** argv) {
    // Nobody waits for the result of a helper whose service was killed.
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() == 1) return 1; // it was killed before that
    SxList<SxString> arguments;
    for (int i = 2; i < argc; ++i)
        arguments.append(SxString(argv[i]));
    try {
        HelperOps::run(arguments);
        return 0;
    } catch (const SxException& e) {
        HelperOps::tell("error", e.toString(SxException::ShowMessage, ": ").substitute("\n", " ").str());
        return 1;
    }
}
