#include "NginxServer.h"

#include "Loopback.h"
#include "SxTime.h"

#include <csignal>
#include <sstream>
#include <stdexcept>
#include <unistd.h>

namespace {

/// A port that nobody listens on at the moment.
int freePort() {
    int port = 0;
    ::close(Loopback::listen(&port));
    return port;
}

bool isServed(int port) {
    const int fd = Loopback::connect(static_cast<uint64_t>(port));
    if (fd >= 0) ::close(fd);
    return fd >= 0;
}

void run(const std::string& program, const std::string& arguments) {
    SxList<SxString> list;
    std::istringstream words(arguments);
    for (std::string word; words >> word;)
        list.append(SxString(word));
    SxProcess process(SxString(program), list, SxProcess::Silent);
    if (process.run() != 0) throw std::runtime_error(program + " " + arguments + " failed");
}

} // namespace

NginxServer::NginxServer(const std::string& folder, const std::string& directives) {
    makeCertificates();
    // Another program may take the port before nginx does.
    for (int i = 0; i < 5; ++i) {
        if (start(folder, directives)) return;
    }
    throw std::runtime_error("nginx doesn't start:\n" + dir.read("error.log"));
}

NginxServer::~NginxServer() {
    process->kill();
    process->wait();
}

void NginxServer::makeCertificates() const {
    const std::string key = " -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -batch ";
    run("openssl", "req -x509 -days 2 -subj /CN=Authority" + key + "-keyout " + dir.path("authority.key") +
                       " -out " + authority());
    run("openssl", "req -subj /CN=127.0.0.1" + key + "-keyout " + dir.path("server.key") + " -out " +
                       dir.path("server.csr"));
    dir.write("server.ext", "subjectAltName=IP:127.0.0.1,DNS:localhost\n");
    run("openssl", "x509 -req -days 2 -in " + dir.path("server.csr") + " -CA " + authority() + " -CAkey " +
                       dir.path("authority.key") + " -CAcreateserial -extfile " + dir.path("server.ext") +
                       " -out " + dir.path("server.pem"));
}

bool NginxServer::start(const std::string& folder, const std::string& directives) {
    port = freePort();
    std::string config = "daemon off;\nworker_processes 1;\npid nginx.pid;\n";
    if (::geteuid() == 0) config += "user root;\n";
    config += "events {}\nhttp {\n";
    for (const char* area : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"})
        config += std::string(area) + "_temp_path " + area + ";\n";
    config += "log_format brief '$server_protocol $status $uri';\naccess_log " + dir.path("access.log") +
              " brief;\nserver {\nlisten 127.0.0.1:" + std::to_string(port) +
              " ssl http2;\nssl_certificate server.pem;\nssl_certificate_key server.key;\nroot " + folder +
              ";\n" + directives + "\n}\n}\n";
    dir.write("nginx.conf", config);
    // Not the system's place, which is the first choice.
    const SxList<SxString> arguments{"-p", SxString(dir.path()),
                                     "-e", SxString(dir.path("error.log")),
                                     "-c", SxString(dir.path("nginx.conf"))};
    process = std::make_unique<SxProcess>("/usr/sbin/nginx", arguments, SxProcess::Silent);
    process->start();
    SxWait::pass(10'000, [this] { return !process->isRunning() || isServed(port); });
    if (process->isRunning() && isServed(port)) return true;
    process->kill();
    process->wait();
    return false;
}

void NginxServer::reload() {
    ::kill(process->getId(), SIGHUP);
}
