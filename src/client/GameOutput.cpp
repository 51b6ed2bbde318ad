#include "GameOutput.h"

#include "Progress.h"

#include <tavrin/SxClock.h>
#include <tavrin/SxProcessInfo.h>
#include <tavrin/ZqRun.h>

namespace {
/// So long at most this stays with the application's output, so that a Ctrl-C is seen in time.
constexpr int64 MOST_NS = 500'000'000;
/// The same once the run has ended: a process that has survived it may go on writing.
constexpr int64 LAST_NS = 5'000'000'000;
} // namespace

void GameOutput::look(ZqRun* job, Progress* progress) const {
    if (!isShown()) return;
    const int64 endNs = SxClock::get().steadyNs() + (job->isRunning() ? MOST_NS : LAST_NS);
    while (SxClock::get().steadyNs() < endNs) {
        const std::string bytes = job->readOutput();
        if (bytes.empty()) return;
        progress->finish();
        Output::error(bytes);
    }
}

void GameOutput::tellLast(const ZqRunResult& result) const {
    if (mode.quiet || isShown() || result.lastLines.isEmpty()) return;
    Output::failure("The application has failed soon after its start, with code " +
                    SxProcessInfo::describeExitCode(result.info.exitCode) + ". What it said at last, from '" +
                    result.outputFile + "':");
    for (const SxString& line : result.lastLines)
        Output::error(("  " + line.makeVisible() + "\n").str());
}
