#include "ZqCoreAppGuard.h"

#include "SxOs.h"
#include "SxTime.h"
#include "ZqAppCommand.h"
#include "ZqJobFailure.h"
#include "ZqLog.h"
#include "ZqNamedProcess.h"
#include "ZqSysEnv.h"

namespace {

constexpr const char* UNIT = "src/base/ZqAppGuard";
constexpr const char* PREFIX = "ZqCoreAppGuard::main: ";

constexpr int64 START_MS = 300;
/// How long the parent of an application that has ended may take to have its exit code told, and the time
/// from the end of an application to the look for one that it has started under its name.
constexpr int64 POLL_MS = 200;
constexpr int64 SECOND_MS = 1000;
constexpr int64 N_SEARCHES = 60;
/// Between two looks at all processes of the machine, each of which takes milliseconds of a core.
constexpr int64 SEARCH_LOOK_MS = 50;
/// Between two looks at a process that has run for a second, which is looked at every 10 ms before. An
/// application runs for hours.
constexpr int64 CALM_LOOK_MS = 50;
/// How long a command that was killed may take to go. A process that reads from a drive may not end before
/// its read does, which can take for ever, and a stop must not wait for that.
constexpr int64 KILLED_MS = 500;

} // namespace

ZqCoreAppGuard::ZqCoreAppGuard(const SxString& path_, const ZqAppParams& params, const SxString& drive,
                               SxWinProcParams procParams, const ZqAppRunner& runner)
    : path(path_),
      appParams(params),
      command(SxPtr<ZqAppCommand>::create(params, drive, DRIVE_MARK, std::move(procParams), runner)),
      process(command->getProcess()),
      named(SxPtr<ZqNamedProcess>::create(params.name, process)) {
    setThreadName("app guard");
}

ZqCoreAppGuard::ZqCoreAppGuard(const SxString& path_, const ZqAppParams& params,
                               const SxProcessGroup& adopted)
    : path(path_),
      appParams(params),
      group(adopted) {
    setThreadName("app guard");
    suspendedFlag = adopted.isSuspended();
}

void ZqCoreAppGuard::start(Priority priority) {
    // Here and not in main(), so that a stop right after the start isn't lost.
    stopFlag = false;
    SxSystemThread::start(priority);
}

void ZqCoreAppGuard::start() {
    start(6);
    while (!SxWait::pass(START_MS, [this] { return begunFlag || stopRequested(); }))
        continue;
}

void ZqCoreAppGuard::setOutput(int fd) {
    if (process) process->setOutput(fd);
}

void ZqCoreAppGuard::main() {
    runningFlag = true;
    begunFlag = true;
    zqLogMsg("base", SxString(PREFIX) + "START");
    const int64 begin = SxClock::get().steadyNs();
    try {
        int code = follow();
        report(&code);
        SxMutexBlock lock(&codeMutex);
        exitCode = code;
    } catch (const SxException& e) {
        ZqJobFailure::report(this, PREFIX, path, e, UNIT, __LINE__);
    }
    runTime += static_cast<uint64>((SxClock::get().steadyNs() - begin) / 1'000'000);
    zqLogMsg("base", SxString(PREFIX) + "END");
    runningFlag = false;
}

int ZqCoreAppGuard::follow() {
    const SxAdoption adoption;
    try {
        applicationFlag = isAdopted() || appParams.name.isEmpty();
        if (isAdopted()) return followAdopted();
        return appParams.name.isEmpty() ? followCommand() : followNamed();
    } catch (const SxException& e) {
        if (!stopRequested()) throw SxException(e, "Internal error in wait for process", UNIT, __LINE__);
        return NO_CODE;
    }
}

void ZqCoreAppGuard::startProcess() {
    command->start();
    noteGroup(process->getGroup());
}

int ZqCoreAppGuard::followCommand() {
    startProcess();
    awaitProcess();
    int code = process->exitStatus();
    // Its zombie keeps the group's id from being given anew.
    if (code == 0 && !stopRequested()) code = followLeftBehind(process->getGroup());
    if (!process->isRunning()) process->wait();
    collect(-1);
    return code;
}

/// The command forked away: the oldest process that it has left is the application, and gives the exit code.
/// The end is that of the whole group.
int ZqCoreAppGuard::followLeftBehind(const SxProcessGroup& left) {
    const SxList<SxProcessInfo> members = left.getRunning();
    if (members.isEmpty()) return 0;
    const SxProcessInfo oldest = SxProcessGroup::oldestOf(members);
    zqLogMsg("base", SxString(PREFIX) + "Process " + shownName() + " handed over to PID " + oldest.id);
    const SxOtherProcess application(oldest.id);
    const auto ended = [&] { return stopRequested() || !left.isAlive(); };
    awaitEnd(application);
    while (!SxWait::pass(SECOND_MS, ended, SEARCH_LOOK_MS))
        collect(application.getId());
    const int code = stopRequested() ? NO_CODE : exitCodeOf(application);
    application.reap();
    return code;
}

int ZqCoreAppGuard::followNamed() {
    startProcess();
    searchFlag = true;
    awaitDelay();
    int64 id = -1;
    for (int64 i = 0; i < N_SEARCHES && id < 0 && !stopRequested(); ++i)
        id = named->await(SECOND_MS, [this] { return stopRequested(); });
    searchFlag = false;
    const auto tell = [&] {
        zqLogMsg("base", SxString(PREFIX) + "Process " + appParams.name + " identified as PID " + id);
    };
    tell();
    if (id < 0) {
        id = awaitLateNamed();
        if (id >= 0) tell();
    }
    missedFlag = id < 0 && !stopRequested();
    int code = NO_CODE;
    const SxOtherProcess application(stopRequested() ? -1 : id);
    if (!stopRequested()) {
        if (!application.isOpen()) {
            zqLogMsg("base", SxString(PREFIX) + "Failed to open handle to " + appParams.name + " process.");
        }
        noteGroup(named->groupOf(id));
        applicationFlag = application.isOpen();
        followByName(application);
        applicationFlag = false;
        if (application.isOpen()) code = exitCodeOf(application);
    }
    // The end of the command itself is taken in by its own wait().
    if (application.getId() != process->getId()) application.reap();
    awaitProcess();
    if (!process->isRunning()) process->wait();
    collect(-1);
    return code;
}

void ZqCoreAppGuard::followByName(const SxOtherProcess& first) {
    awaitEnd(first);
    // A game that starts itself anew goes on under the same name. The exit code stays that of the first.
    for (int64 id = named->find(); id >= 0 && !stopRequested(); id = named->find()) {
        noteGroup(named->groupOf(id));
        awaitEnd(SxOtherProcess(id));
        SxWait::pass(POLL_MS, [this] { return stopRequested(); });
    }
}

int ZqCoreAppGuard::followAdopted() {
    const SxProcessGroup adopted = getGroup();
    const auto ended = [&] { return stopRequested() || !adopted.isAlive(); };
    while (!SxWait::pass(SECOND_MS, ended, SEARCH_LOOK_MS))
        continue;
    return NO_CODE;
}

void ZqCoreAppGuard::awaitDelay() const {
    for (int64 i = 0; i < appParams.delay && !stopRequested(); ++i)
        SxWait::pass(SECOND_MS, [this] { return stopRequested(); });
}

/// Waits for the command's end; after a stop no longer than that may take.
void ZqCoreAppGuard::awaitProcess() {
    const auto ended = [this] { return stopRequested() || !process->isRunning(); };
    for (int64 lookMs = SxWait::LOOK_MS; !SxWait::pass(SECOND_MS, ended, lookMs); lookMs = CALM_LOOK_MS)
        collect(-1);
    if (SxWait::pass(KILLED_MS, [this] { return !process->isRunning(); })) return;
    zqLogMsg("base", SxString(PREFIX) + "Process " + shownName() + " was killed, but hasn't ended yet");
}

void ZqCoreAppGuard::awaitEnd(const SxOtherProcess& other) const {
    const auto ended = [&] { return stopRequested() || !other.isRunning(); };
    for (int64 lookMs = SxWait::LOOK_MS; !SxWait::pass(SECOND_MS, ended, lookMs); lookMs = CALM_LOOK_MS)
        collect(other.getId());
}

int ZqCoreAppGuard::exitCodeOf(const SxOtherProcess& other) const {
    std::optional<int> code;
    int64 error = 0;
    const auto known = [&] {
        if (!other.isRunning()) code = other.exitCode(&error);
        return code.has_value();
    };
    // The code of a zombie is told always, that of a process which its parent has taken in from Linux 6.15
    // on. Its parent may be about to do so, and then nothing is told for a moment.
    if (SxWait::pass(POLL_MS, known)) return *code;
    zqLogMsg("base",
             other.isRunning()
                 ? SxString(PREFIX) + "Failed to query process exit code. Application still running."
                 : SxString(PREFIX) + "Failed to query process exit code : " + SxOs::errorText(error));
    return NO_CODE;
}

/// Takes in the ends of what has been adopted, apart from the process that is followed. The adoption holds
/// for the whole program, whose owner may have other children that leave orphans. Only processes of the
/// application's groups are taken in, so nobody else's exit code is taken away.
void ZqCoreAppGuard::collect(int64 followedId) const {
    process->getGroup().reap(followedId);
    const SxProcessGroup other = getGroup();
    if (!(other == process->getGroup())) other.reap(followedId);
}

void ZqCoreAppGuard::report(int* code) const {
    const SxString process_ = SxString(PREFIX) + "Process " + shownName();
    if (stopRequested()) {
        zqLogMsg("base", process_ + " was terminated by stop request.");
        *code = STOPPED_CODE;
    } else if (isAdopted()) {
        zqLogMsg("base", process_ + " has ended; the exit code of an adopted application is unknown");
    } else if (*code == 0) {
        zqLogMsg("base", process_ + " closed normally.");
    } else {
        const auto bits = static_cast<unsigned>(*code);
        zqLogMsg("base", process_ + " exit code: " + SxString::sprintf("0x%08x", bits));
    }
}

SxString ZqCoreAppGuard::shownName() const {
    if (!appParams.name.isEmpty()) return appParams.name;
    const SxList<SxString> parts = appParams.cmd.tokenize('/');
    return parts.isEmpty() ? appParams.cmd : parts.last();
}

/// Looks for the process of that name, once a second, as long as the command runs. On a slow link a launcher
/// may take longer to load than the first minute, and the drive would be taken from under its game.
int64 ZqCoreAppGuard::awaitLateNamed() const {
    int64 id = -1;
    while (id < 0 && !stopRequested() && process->isRunning()) {
        SxWait::pass(SECOND_MS, [this] { return stopRequested() || !process->isRunning(); });
        collect(-1);
        id = named->find();
    }
    return stopRequested() ? -1 : id;
}

void ZqCoreAppGuard::noteGroup(const SxProcessGroup& newGroup) {
    if (!newGroup.isValid()) return;
    SxMutexBlock lock(&groupMutex);
    group = newGroup;
}

SxProcessGroup ZqCoreAppGuard::getGroup() const {
    SxMutexBlock lock(&groupMutex);
    return group;
}

int ZqCoreAppGuard::getExitCode() const {
    {
        SxMutexBlock lock(&codeMutex);
        if (exitCode != NO_CODE) return exitCode;
    }
    return process ? process->exitStatus() : NO_CODE;
}

void ZqCoreAppGuard::requireSuccess() const {
    if (!hasFailure()) return;
    const SxException failure = getFailure();
    // The levels above that say nothing which helps to mend a wrong command.
    for (const SxException* level = &failure; level; level = level->getCause()) {
        if (level->getTag() == ZqAppCommand::NOT_STARTED) throw SxException(*level);
    }
    throw failure;
}

void ZqCoreAppGuard::stop() {
    if (!stopFlag.exchange(true)) kill();
}

void ZqCoreAppGuard::kill() {
    const SxString prefix = "ZqCoreAppGuard::stop: ";
    bool killed = true;
    // Where the system refuses the one, the other must end all the same.
    const auto attempt = [&](const auto& kill) {
        try {
            kill();
        } catch (const SxException& e) {
            zqLogMsg("base", prefix + e.what());
            killed = false;
        }
    };
    if (!isAdopted() && !appParams.name.isEmpty()) attempt([this] { killNamed(); });
    attempt([this] { process ? process->kill() : getGroup().kill(); });
    if (killed) zqLogMsg("base", prefix + "Process killed.");
}

void ZqCoreAppGuard::killNamed() const {
    const int64 id = named->find();
    if (id < 0) return;
    named->groupOf(id).kill();
    ZqSysEnv::killProcess(static_cast<int>(id));
}

/// Acts on the whole group. Gives false where the process of the record's name can't be found.
bool ZqCoreAppGuard::setSuspended(bool on, const SxString& prefix) const {
    if (!isAdopted() && !appParams.name.isEmpty()) {
        zqLogMsg("base", prefix + (on ? "suspending" : "Resuming") + " [" + appParams.name + "]");
        const int64 id = named->await(SECOND_MS, [this] { return stopRequested(); });
        if (id < 0) {
            zqLogMsg("base", prefix + "Target process not found");
            return false;
        }
        const SxProcessGroup whole = named->groupOf(id);
        const SxOtherProcess alone(id);
        if (whole.isValid()) {
            on ? whole.suspend() : whole.resume();
        } else {
            on ? alone.suspend() : alone.resume();
        }
        return true;
    }
    if (!isAdopted() && !process->isRunning() && !process->getGroup().isAlive()) return true;
    zqLogMsg("base", prefix + (on ? "Suspending" : "Resuming") + " SxProcess");
    if (isAdopted()) {
        on ? getGroup().suspend() : getGroup().resume();
    } else {
        on ? process->suspend() : process->resume();
    }
    return true;
}

void ZqCoreAppGuard::suspend() {
    const SxString prefix = "ZqCoreAppGuard::suspend: ";
    try {
        if (isSuspended()) {
            zqLogMsg("base", prefix + "ERROR. Process already suspended");
        } else if (setSuspended(true, prefix)) {
            suspendedFlag = true;
        }
    } catch (const SxException& e) {
        zqLogMsg("base", prefix + e.what());
    }
}

void ZqCoreAppGuard::resume() {
    const SxString prefix = "ZqCoreAppGuard::resume: ";
    try {
        if (!isSuspended()) {
            zqLogMsg("base", prefix + "ERROR. Process not suspended");
        } else if (setSuspended(false, prefix)) {
            suspendedFlag = false;
        }
    } catch (const SxException& e) {
        zqLogMsg("base", prefix + e.what());
    }
}
