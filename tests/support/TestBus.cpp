#include "TestBus.h"

#include "SxTime.h"

#include <cstring>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr int64 LIMIT_MS = 20'000;

constexpr const char* CONFIG =
    R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>KIND</type>
  <listen>unix:path=SOCKET</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow send_destination="*" eavesdrop="true"/><allow receive_sender="*"/><allow own="*"/><allow user="*"/>
  </policy>
</busconfig>
)";

/// Whether somebody listens there. The name is there a moment before.
bool answers(const std::string& path) {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool isThere = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    ::close(fd);
    return isThere;
}

void replace(std::string* text, const std::string& mark, const std::string& by) {
    text->replace(text->find(mark), mark.size(), by);
}

} // namespace

int TestBus::require(int outcome, const char* what) {
    if (outcome < 0) throw std::runtime_error(std::string(what) + ": " + std::strerror(-outcome));
    return outcome;
}

std::string TestBus::missing() {
    const SxString look = "command -v dbus-daemon";
    return SxProcess("sh", {"-c", look}, SxProcess::Silent).run() == 0 ? "" : "dbus-daemon isn't installed";
}

TestBus::TestBus(const std::string& kind)
    : variable(kind == "system" ? "DBUS_SYSTEM_BUS_ADDRESS" : "DBUS_SESSION_BUS_ADDRESS") {
    std::string config = CONFIG;
    const std::string socket = dir.path("bus");
    replace(&config, "SOCKET", socket);
    replace(&config, "KIND", kind);
    const SxString file(dir.write("bus.conf", config));
    daemon = std::make_unique<SxProcess>(
        "dbus-daemon", SxList<SxString>{"--config-file=" + file, "--nofork", "--nopidfile", "--nosyslog"},
        SxProcess::Silent);
    daemon->start();
    SxWait::pass(LIMIT_MS, [&] { return answers(socket) || !daemon->isRunning(); });
    ::setenv(variable.c_str(), getAddress().c_str(), 1);
}

TestBus::~TestBus() {
    daemon->kill();
    daemon->wait();
    ::unsetenv(variable.c_str());
}
