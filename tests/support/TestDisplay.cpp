#include "TestDisplay.h"

#include "SxTime.h"

namespace {
constexpr int64 LIMIT_MS = 20'000;

bool isInstalled(const std::string& program) {
    return SxProcess("sh", {"-c", SxString("command -v " + program)}, SxProcess::Silent).run() == 0;
}
} // namespace

std::string TestDisplay::missing() {
    for (const char* program : {"Xvfb", "openbox"})
        if (!isInstalled(program)) return std::string(program) + " isn't installed";
    return "";
}

TestDisplay::TestDisplay() {
    const std::string numberFile = dir.write("display", "");
    const std::string xvfb =
        "exec Xvfb -displayfd 3 -nolisten tcp -screen 0 640x480x24 3>'" + numberFile + "'";
    server = std::make_unique<SxProcess>("sh", SxList<SxString>{"-c", SxString(xvfb)}, SxProcess::Silent);
    server->start();
    std::string number;
    SxWait::pass(LIMIT_MS, [&] {
        number = dir.read("display");
        return number.ends_with('\n') || !server->isRunning();
    });
    if (!number.ends_with('\n')) {
        server->kill();
        server->wait();
        throw std::runtime_error("Xvfb doesn't start");
    }
    number.pop_back();
    ::setenv("DISPLAY", (":" + number).c_str(), 1);
    ::setenv("XDG_CACHE_HOME", dir.path("cache").c_str(), 1);
    manager = std::make_unique<SxProcess>("openbox", SxList<SxString>{"--sm-disable"}, SxProcess::Silent);
    manager->start();
}

TestDisplay::~TestDisplay() {
    for (const auto& process : {manager.get(), server.get()}) {
        process->kill();
        process->wait();
    }
    ::unsetenv("DISPLAY");
    ::unsetenv("XDG_CACHE_HOME");
}
