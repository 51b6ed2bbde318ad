#pragma once

#include "SxProcess.h"
#include "SxPtr.h"
#include "ZqAppParams.h"
#include "ZqAppRunner.h"

/// The command that starts a streamed application, made of its record and of the drive that the image has. A
/// program that ends in ".exe" runs through Wine or a runner, with the machine root as its prefix. For one
/// thread; the process is as safe as any.
class ZqAppCommand {
public:
    /// `drive`: a letter and a colon, or a folder; it stands wherever `procParams` has `mark`. An empty
    /// `workDir` means the program's own folder. `args` are separated by blanks; where they are those of the
    /// record, joined, the record's own division holds.
    ZqAppCommand(const ZqAppParams& app, const SxString& drive, const SxString& mark,
                 SxWinProcParams procParams, const ZqAppRunner& runner);

    /// Whether a program is one for Windows.
    static bool isWindowsProgram(const SxString& program);

    const SxPtr<SxProcess>& getProcess() const noexcept { return process; }
    /// Tag of a failure of start().
    static constexpr const char* NOT_STARTED = "CommandNotStarted";
    /// Raises where the program can't be started, and where it needs Wine, or the runner, and there is none.
    void start();
    /// Raises, saying what to do, where nothing can run the Windows program.
    static void requireMeans(const SxString& windowsProgram, const SxString& runner);
    /// Raises, saying what to do, where the command `cmd` of `app.json` can't exist on this machine, whatever
    /// the drive holds, for which `mark` stands: an empty one, or a program of the machine that isn't there.
    static void requirePossible(const SxString& cmd, const SxString& mark);

private:
    SxPtr<SxProcess> process;
    SxString cmd;       ///< as the record has it
    SxString needsWine; ///< the program, where it is one for Windows
    SxString runner;
};
