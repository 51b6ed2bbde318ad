// What it takes to find out what the machine is. `facts`: all facts of a record, against reading the files
// that tell them and doing nothing with them. `command`: `tavrin stats hardware` while the drive service
// runs, whose versions it asks for, against `lscpu`, which tells of the processors alone. The goal is 200 ms
// for the command.

#include "Folder.h"
#include "Ratio.h"
#include "SxOs.h"
#include "SxProcess.h"
#include "ZqFactFiles.h"
#include "ZqRuntimeInfo.h"

namespace {

void facts(benchmark::State& state) {
    const ZqFactFiles files("/");
    const auto readAll = [&] {
        for (const char* name : {"proc/cpuinfo", "proc/meminfo", "proc/self/mountinfo", "etc/os-release",
                                 "proc/sys/kernel/osrelease", "etc/machine-id"})
            benchmark::DoNotOptimize(files.line(name));
    };
    bench::ratio(
        state, [] {}, readAll, [] { ZqRuntimeInfo().getMachineFacts(); });
}

/// A program of the build that this one belongs to.
SxString programOf(const char* name) {
    std::string own;
    if (SxOs::get().readLink("/proc/self/exe", &own) < 0) throw std::runtime_error("no program's path");
    own.erase(own.rfind('/'));
    return SxString(own.substr(0, own.rfind('/')) + "/bin/" + name);
}

void run(const SxString& program, const SxList<SxString>& words) {
    if (SxProcess(program, words, SxProcess::Silent).run() != 0)
        throw std::runtime_error("failed: " + program.str());
}

void command(benchmark::State& state) {
    const bench::Folder folder;
    ::setenv("WINEPREFIX", (folder.path + "root").ascii(), 1);
    ::setenv("XDG_STATE_HOME", (folder.path + "state").ascii(), 1);
    const SxString client = programOf("tavrin");
    const auto ours = [&] { run(client, {"stats", "hardware"}); };
    ours(); // starts the service, which stays for half a minute
    bench::ratio(
        state, [] {}, [] { run("lscpu", {}); }, ours);
}

BENCHMARK(facts)->Unit(benchmark::kMillisecond)->Iterations(21)->UseManualTime();
BENCHMARK(command)->Unit(benchmark::kMillisecond)->Iterations(21)->UseManualTime();

} // namespace

BENCHMARK_MAIN();
