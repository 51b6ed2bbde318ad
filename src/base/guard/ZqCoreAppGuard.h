#pragma once

#include "SxOtherProcess.h"
#include "SxProcess.h"
#include "SxPtr.h"
#include "SxSystemThread.h"
#include "ZqAppParams.h"
#include "ZqAppRunner.h"

#include <atomic>

class ZqAppCommand;
class ZqNamedProcess;

/// Starts the streamed application, follows it to its end, and gives its exit code. Where the record names a
/// process, the command is only a launcher: the process is found by that name and followed. A command that
/// ends with 0 while others of its group go on hands over to these, also where the record names no process:
/// else the drive would be taken from a game that its script has started in the background. A command that
/// fails has ended.
///
/// A process is followed by a handle of the system (pidfd) and not by its name alone, which another one may
/// bear; a handle is cheap to look at. While a guard runs, this program adopts the processes that a launcher
/// leaves (SxAdoption), so that the system tells their exit codes. For one run. All operations are safe from
/// any thread, but for those of SxSystemThread.
class ZqCoreAppGuard : public SxSystemThread {
public:
    /// The exit code of an application that was stopped.
    static constexpr int STOPPED_CODE = static_cast<int>(0xC000013A);
    /// The exit code where none is known.
    static constexpr int NO_CODE = -1;
    /// Stands for the drive in `path`, `args` and `workDir` of the parameters.
    static constexpr const char* DRIVE_MARK = "{{ZQDRIVE}}";

    /// `path`: the image's folder; `drive`: a letter and a colon, or a folder. An empty `workDir` means the
    /// program's own folder. `args` are separated by blanks; where they are those of the record, joined, the
    /// record's own division holds, since an argument may hold a blank. A program that ends in ".exe" runs
    /// through Wine, or `runner` in its place, with the machine root as its prefix. `path` and `workDir` of
    /// `procParams` are the drive's: on a drive letter they are spelled with backslashes, as a Windows
    /// program is told them, and SxOs translates them. In the arguments of a native program the drive stands
    /// as a host path.
    ZqCoreAppGuard(const SxString& path, const ZqAppParams& params, const SxString& drive,
                   SxWinProcParams procParams, const ZqAppRunner& runner = {});
    /// For an application that an earlier program started and left (see getGroup()): follows it, and can
    /// suspend, resume and stop it. Its exit code stays unknown.
    ZqCoreAppGuard(const SxString& path, const ZqAppParams& params, const SxProcessGroup& adopted);

    /// Starts the thread and returns at once. Takes an earlier stop back. Raises as SxSystemThread does.
    void start(Priority priority) override;
    /// Does the same, and returns when the thread runs, or has ended already: a program that can't be started
    /// must not hold its caller for ever.
    virtual void start();
    /// Where standard output and error of the application lead, see SxProcess::setOutput(). Has an effect
    /// only before the start, and none for an adopted one.
    void setOutput(int fd);

    bool isRunning() const { return runningFlag; }
    bool stopRequested() const { return stopFlag; }
    bool isSuspended() const { return suspendedFlag; }
    /// Whether it looks for the process that the record names, and whether that was never found.
    bool isSearching() const { return searchFlag; }
    bool isMissed() const { return missedFlag; }
    /// Whether the application runs that suspend() is about: the process that the record names from when it
    /// was found to its end, else that of the command. A launcher alone is none, and each search for the
    /// application in suspend() and resume() takes a second.
    bool hasApplication() const { return applicationFlag; }
    /// Whether an earlier program started it.
    bool isAdopted() const { return !process; }

    /// Ends the application at once. Looks once for the process that the record names, and doesn't wait for
    /// the end. None of these raises; what fails is logged.
    void stop();
    /// Kills them, also once more after a stop.
    void kill();
    /// Suspends all processes of the application's group, and lets them go on: what a game has started beside
    /// itself would go on reading. A process that can't be found changes nothing.
    void suspend();
    void resume();

    /// The exit code of the application, 128 + n where signal n ended it, STOPPED_CODE where stop() did.
    /// During the run that of the command, and NO_CODE as long as that runs.
    int getExitCode() const;
    /// Raises what has kept the application from being started or followed.
    void requireSuccess() const;
    /// The processes of the application, to be noted for a program that comes later; changes when a launcher
    /// hands over to another group. No group before the command runs.
    SxProcessGroup getGroup() const;

    std::atomic<uint64> runTime{0}; ///< milliseconds that main() took

protected:
    void main() override;

private:
    int follow();
    int followCommand();
    int followNamed();
    int followAdopted();
    int followLeftBehind(const SxProcessGroup& left);
    void followByName(const SxOtherProcess& first);
    void startProcess();
    void awaitProcess();
    void awaitDelay() const;
    void awaitEnd(const SxOtherProcess& other) const;
    int exitCodeOf(const SxOtherProcess& other) const;
    void report(int* code) const;
    void collect(int64 followedId) const;

    SxString shownName() const;
    int64 awaitLateNamed() const;
    void noteGroup(const SxProcessGroup& newGroup);
    void killNamed() const;
    bool setSuspended(bool on, const SxString& prefix) const;

    const SxString path;
    const ZqAppParams appParams;
    // Null for an adopted application.
    const SxPtr<ZqAppCommand> command;
    const SxPtr<SxProcess> process; ///< that of the command
    const SxPtr<ZqNamedProcess> named;

    std::atomic<bool> begunFlag{false}, runningFlag{false}, stopFlag{false}, suspendedFlag{false},
        searchFlag{false}, missedFlag{false}, applicationFlag{false};

    mutable SxMutex codeMutex;
    int exitCode SX_GUARDED_BY(codeMutex) = NO_CODE;
    mutable SxMutex groupMutex;
    SxProcessGroup group SX_GUARDED_BY(groupMutex);
};
