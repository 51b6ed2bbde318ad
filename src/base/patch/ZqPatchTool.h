#pragma once

#include "SxList.h"
#include "SxMutex.h"
#include "SxPtr.h"
#include "SxString.h"

class ZqSilentProcess;

/// The run of an external tool that a job waits for, and that other threads may stop. One run for each
/// object.
class ZqPatchTool {
public:
    /// Runs `program` and blocks until it has ended. Raises where it can't be run, or ends with another exit
    /// code than 0: "Could not execute " + `kind` + " process ...", with all arguments. What it said on
    /// standard error goes to the log. A run that stop() has ended raises the same with the tag
    /// SxException::STOPPED. `owner` is the operation that log lines name.
    void run(const SxString& program, const SxList<SxString>& arguments, const SxString& kind,
             const SxString& owner) SX_EXCLUDES(mutex);
    /// Kills the tool. Where it doesn't run yet, run() starts nothing and raises as for a killed one: exit
    /// code 137. From any thread.
    void stop() SX_EXCLUDES(mutex);

private:
    SxPtr<ZqSilentProcess> prepare(const SxString& program, const SxList<SxString>& arguments)
        SX_EXCLUDES(mutex);
    bool isStopped() SX_EXCLUDES(mutex);

    SxMutex mutex;
    SxPtr<ZqSilentProcess> process SX_GUARDED_BY(mutex);
    bool stopped SX_GUARDED_BY(mutex) = false;
};
