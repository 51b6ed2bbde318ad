#pragma once

#include "SxList.h"
#include "SxMutex.h"
#include "SxProcessGroup.h"
#include "SxString.h"

#include <string>

/// How a desktop is to start a program. Only `path`, `args` and `workDir` mean something here, and only to
/// whoever makes an SxProcess from them.
struct SxWinProcParams {
    SxString path;             ///< program
    SxString args;             ///< arguments, separated by blanks
    SxString workDir;          ///< working folder
    bool hiddenWindow = false; ///< a wish that has no effect here
};

/// A child process, for one run. It gets a session, and with it a process group, of its own, which suspend(),
/// resume() and kill() act on, an empty standard input, so that it never stands still for a terminal, and no
/// other descriptor of ours than standard output and error. All operations are safe from any thread; those
/// that only keep a setting have an effect only before start().
///
/// The destructor doesn't end the process. Where it still runs then, a thread of its own waits for its end,
/// so that it leaves no zombie; if this program ends earlier, the system's first process takes that over.
class SxProcess {
public:
    /// Where standard output and standard error lead.
    enum Mode {
        Inherit,       ///< to ours
        OutputToError, ///< both to our standard error
        Silent,        ///< nowhere
        KeepError      ///< output nowhere, errors to getErrorText()
    };

    /// `program` is a path, or a name without a slash, which is looked for in the folders of $PATH.
    explicit SxProcess(const SxString& program, const SxList<SxString>& arguments = {}, Mode mode = Inherit);
    ~SxProcess();
    SxProcess(const SxProcess&) = delete;
    SxProcess& operator=(const SxProcess&) = delete;

    /// Kept; has no effect here.
    void setHiddenWindow(bool hidden) SX_EXCLUDES(mutex);
    void setWinProcParams(const SxWinProcParams& params) SX_EXCLUDES(mutex);
    SxWinProcParams getWinProcParams() const SX_EXCLUDES(mutex);
    /// The folder that the process starts in; empty for ours. A relative program path counts from ours.
    void setWorkingDirectory(const SxString& path) SX_EXCLUDES(mutex);
    /// With the mode Inherit: standard output and error lead to this descriptor in place of ours. It stays
    /// the caller's, who keeps it open until start() has returned.
    void setOutput(int fd) SX_EXCLUDES(mutex);
    /// Whether the system kills the process as soon as the thread that calls start() has ended, also where a
    /// kill of this program ends it. What the process has started itself isn't killed. False at first.
    void setEndsWithStarter(bool ends) SX_EXCLUDES(mutex);

    /// Starts the program with the constructor's arguments and `moreArguments` after them; returns when it
    /// runs. Raises where it can't be run, or was started before. After kill() nothing is started, and the
    /// process counts as one that was killed.
    void start(const SxList<SxString>& moreArguments = {}) SX_EXCLUDES(mutex);
    /// Blocks until the process has ended; gives its exit code, or 128 + n where signal n ended it. Raises
    /// where it was never started.
    int wait() SX_EXCLUDES(mutex);
    /// start() and wait().
    int run();

    bool isRunning() SX_EXCLUDES(mutex);
    /// What wait() gives, or -1 as long as the process hasn't ended.
    int exitStatus() SX_EXCLUDES(mutex);
    /// With the mode KeepError: what the process has written to standard error so far, at most the first 64
    /// KiB. Beyond that its writes fail. Empty with other modes.
    SxString getErrorText() SX_EXCLUDES(mutex);
    /// The id in the system, or -1 before the start.
    int getId() const SX_EXCLUDES(mutex);
    /// Its group, for programs that come later; no group before the start.
    SxProcessGroup getGroup() const SX_EXCLUDES(mutex);

    // These act on the whole group, from the start until wait() has returned: also on what a launcher leaves
    // running. They do nothing at other times, and raise where the system refuses.
    void suspend() { signalGroup(StopSignal); }
    void resume() { signalGroup(ContinueSignal); }
    /// Ends the group without a chance to tidy up.
    void kill() SX_EXCLUDES(mutex);

private:
    struct Launch;
    enum class State { New, Running, Ended, Collected };
    enum GroupSignal { StopSignal, ContinueSignal, KillSignal };

    std::string programPath() const;
    Launch prepare(const SxList<SxString>& moreArguments) const SX_EXCLUDES(mutex);
    bool fork(Launch* launch) SX_EXCLUDES(mutex);
    void look() SX_REQUIRES(mutex);
    void collect() SX_REQUIRES(mutex);
    void signalGroup(GroupSignal signal) SX_EXCLUDES(mutex);

    const SxString program;
    const SxList<SxString> arguments;
    const Mode mode;

    mutable SxMutex mutex;
    SxWinProcParams winProcParams SX_GUARDED_BY(mutex);
    SxString workingDirectory SX_GUARDED_BY(mutex);
    bool endsWithStarter SX_GUARDED_BY(mutex) = false;
    int output SX_GUARDED_BY(mutex) = -1;
    int errorReader SX_GUARDED_BY(mutex) = -1;
    std::string errorText SX_GUARDED_BY(mutex);
    State state SX_GUARDED_BY(mutex) = State::New;
    bool killed SX_GUARDED_BY(mutex) = false;
    int pid SX_GUARDED_BY(mutex) = -1;
    int status SX_GUARDED_BY(mutex) = -1;
    SxProcessGroup group SX_GUARDED_BY(mutex);
};
