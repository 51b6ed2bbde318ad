#pragma once

#include "SxProcess.h"
#include "TempDir.h"

#include <memory>
#include <string>

/// nginx with the files of a folder over TLS, HTTP/2 and HTTP/1.1, as a child of the test on a free port of
/// the loopback interface. Its certificate is signed by an authority that is made for it. Ends with the
/// object.
class NginxServer {
public:
    /// `directives` stand in the server's section of its configuration.
    explicit NginxServer(const std::string& folder, const std::string& directives = "");
    ~NginxServer();
    NginxServer(const NginxServer&) = delete;
    NginxServer& operator=(const NginxServer&) = delete;

    /// "https://127.0.0.1:PORT/"
    std::string url() const { return "https://127.0.0.1:" + std::to_string(port) + "/"; }
    /// The certificate of the authority, PEM.
    std::string authority() const { return dir.path("authority.pem"); }
    /// Has it read its configuration again, which ends its connections, each after the request under way.
    void reload();
    /// The requests so far, one a line: protocol, status, path.
    std::string log() const { return dir.read("access.log"); }

private:
    void makeCertificates() const;
    bool start(const std::string& folder, const std::string& directives);

    TempDir dir;
    int port = 0;
    std::unique_ptr<SxProcess> process;
};
