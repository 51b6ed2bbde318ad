#pragma once

#include "Service.h"
#include "SxSystemThread.h"

#include <list>

/// Takes requests from clients of the same user over the service's socket.
class ControlServer {
public:
    /// `folder` is the service's own, with a trailing slash. `idleMs`: how long the service stays without a
    /// disk, a request or a start.
    ControlServer(Service* service, const std::string& folder, int64 idleMs);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    /// Listens at the socket. Raises where it can't. The caller holds the start lock.
    void listen();
    /// Serves until the service has been idle long enough, or `stop` becomes true.
    void run(const std::atomic<bool>& stop);
    /// Begins no further requests, has the service take all its drives away, and returns when the requests
    /// that were under way have ended.
    void end();

private:
    class Connection;
    class Ticker;

    void accept();
    void collect();
    bool isIdle() const SX_REQUIRES(mutex);
    bool endIfIdle();
    bool begin();
    void done();

    Service* const service;
    const std::string folder;
    const int64 idleMs;
    int listener = -1;
    std::list<std::unique_ptr<Connection>> connections;
    std::unique_ptr<Ticker> ticker;

    SxMutex mutex;
    int nActive SX_GUARDED_BY(mutex) = 0;      ///< requests that are carried out, or are about to come
    int64 lastNs SX_GUARDED_BY(mutex) = 0;     ///< time of the last request
    bool closing SX_GUARDED_BY(mutex) = false; ///< no further request is begun
};
