#pragma once

#include "SxList.h"
#include "SxString.h"
#include "ZqServerFaults.h"

#include <memory>

/// Serves the files of a folder over HTTP/1.1 on the loopback interface: GET and HEAD, one range, If-Range,
/// ETag and Last-Modified, connections kept open. It stands for a web server that is reached over a slow
/// link, for `tavrin serve` and for tests of downloads: there is one rate for all connections, a delay for
/// each response, and faults that come on request. What lies outside of the folder isn't served, be it by
/// ".." or by a link. It stands in `platform`, since `publish` includes no third-party header. Safe from any
/// thread but for start() and stop().
///
/// The delay is that of a request, measured from its first byte, and holds up no other connection. That a new
/// connection costs a round trip more isn't played.
class ZqFileServer {
public:
    /// What goes wrong.
    using Fault = ZqServerFaults::Fault;
    using enum ZqServerFaults::Fault;
    /// The fault of a name; raises on an unknown one.
    static Fault stringToFault(const SxString& name);
    static SxList<SxString> getFaultNames();

    struct Options {
        uint64 port = 0;      ///< 0 for any that is free
        uint64 rate = 0;      ///< bytes per second, for all connections together; 0 is no limit
        uint64 latencyMs = 0; ///< from a request to the first byte of its response
        unsigned faults = 0;
    };

    /// Raises where `folder` isn't one.
    explicit ZqFileServer(const SxString& folder);
    ZqFileServer(const SxString& folder, const Options& options);
    /// Stops.
    ~ZqFileServer();
    ZqFileServer(const ZqFileServer&) = delete;
    ZqFileServer& operator=(const ZqFileServer&) = delete;

    /// Begins to serve; returns when connections are accepted. Raises where the port is taken. After a stop
    /// it serves on the same port again.
    void start();
    /// Cuts off all connections and ends. Does nothing where nothing is served.
    void stop();

    /// "http://127.0.0.1:PORT/"; after the first start.
    SxString getUrl() const;
    uint64 getPort() const { return port; }

    // These hold for requests and bodies that are under way, too.
    void setFault(Fault fault, bool on = true);
    void setRate(uint64 bytesPerSecond);
    void setLatency(uint64 milliseconds);

    // What was served since the object was made; `name` is relative to the folder. Bytes are those of bodies.
    uint64 getNRequests() const;
    uint64 getNBytes() const;
    uint64 getNRequests(const SxString& name) const;
    uint64 getNBytes(const SxString& name) const;
    uint64 getNConnections() const;

private:
    class Served;
    class Server;
    class Connection;

    std::unique_ptr<Served> served;
    std::unique_ptr<Server> server;
    uint64 port;
};
