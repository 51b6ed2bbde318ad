#pragma once

#include "Output.h"

#include <tavrin/SxList.h>
#include <tavrin/ZqTaskMon.h>

#include <array>
#include <csignal>
#include <functional>
#include <thread>

/// Job that runs one operation of the library, which counts its progress in it.
class FunctionJob : public ZqTaskMon {
public:
    using Function = std::function<void(ZqTaskMon* progress)>;

    explicit FunctionJob(Function function_) : function(std::move(function_)) {}

protected:
    void main() override { function(this); }

private:
    Function function;
};

/// Notes the signals that ask for an end (SIGINT, SIGTERM, SIGHUP), once each, while it lives; a second one
/// has its usual effect. One that the caller of the client ignores, as nohup does, stays ignored. One object
/// at a time, main thread only.
class StopSignals {
public:
    StopSignals();
    ~StopSignals();
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    bool isAsked() const;
    /// The work is done: from now on these signals are ignored to the program's end, whose exit code is to
    /// tell of the work.
    void finish();

    static constexpr std::array<int, 3> SIGNALS = {SIGINT, SIGTERM, SIGHUP};
    using Actions = std::array<struct sigaction, SIGNALS.size()>;
    /// Has `action` taken for each of them that isn't ignored; gives what was before.
    static Actions take(const struct sigaction& action);
    static void giveBack(const Actions& actions);

private:
    const Actions before;
    bool hasFinished = false;
};

/// The same signals, while a run goes on: all of them are taken, and a second one changes nothing. One that
/// comes ten seconds after the first, or later, insists: `insist` is called on a thread of its own, whatever
/// the others wait for, and ends the program. After the object's end they are ignored where one of them came,
/// since a key that is held down mustn't end the program by a signal in its last moments; else they have
/// their former effect. One object at a time, main thread only.
class PatientSignals {
public:
    explicit PatientSignals(std::function<void()> insist_);
    ~PatientSignals();
    PatientSignals(const PatientSignals&) = delete;
    PatientSignals& operator=(const PatientSignals&) = delete;

    bool isAsked() const;

private:
    const std::function<void()> insist;
    std::thread listener; ///< sleeps until a signal insists, or this ends
    StopSignals::Actions before = {};
};

/// Starts `job`, shows its progress under `label` until it has ended, and gives the seconds that it took.
/// Raises what left the job. On SIGINT, SIGTERM or SIGHUP the job is asked to stop and waited for, and where
/// it then fails "stopped" is raised; a second signal has its usual effect.
double runJob(ZqTaskMon* job, const SxString& label, const Output& out);

/// Runs `begin`, and waits until SIGINT, SIGTERM or SIGHUP comes, which count from `begin` on.
void untilStopped(const std::function<void()>& begin);

/// Raises where a job is to write an image into a folder that holds something else: the library replaces
/// whatever stands there, and a mistyped path must not cost a folder of documents.
void refuseForeignFolder(const SxString& image);

/// Raises where `file`, which is to be replaced by a `what`, is a device, or a link such as /dev/stdout, or
/// anything else but a plain file, or lies in one of `folders`, whose own files it might replace.
void requirePlainFile(const SxString& file, const char* what, const SxList<SxString>& folders);
