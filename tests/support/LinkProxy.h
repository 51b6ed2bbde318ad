#pragma once

#include "SxMutex.h"
#include "SxSystemThread.h"

#include <atomic>
#include <list>
#include <string>

/// Passes TCP connections of the loopback interface on to a server, and can forget them as a router does:
/// what comes on them then goes nowhere, and neither side is told.
class LinkProxy : public SxSystemThread {
public:
    explicit LinkProxy(uint64 serverPort_);
    ~LinkProxy() override;

    std::string url(const std::string& path = "") const {
        return "http://127.0.0.1:" + std::to_string(port) + "/" + path;
    }
    /// The connections that there are go silent; when this returns, nothing more of them gets through.
    void forgetConnections();
    /// New connections go silent from their begin.
    void setDead(bool dead) { isDead = dead; }
    int64 getNConnections() const { return nConnections; }

protected:
    void main() override;

private:
    struct Side {
        int fd = -1;
        std::string pending; ///< for this side
        bool ended = false;  ///< what the other side says, once nothing is pending
    };
    struct Pair {
        Side client, server;
        bool isSilent = false;
    };

    void accept();
    static bool move(Side* from, Side* to, short fromEvents, short toEvents);

    const uint64 serverPort;
    int listener = -1;
    int port = 0;
    std::atomic<bool> ending{false}, isDead{false};
    std::atomic<int64> nConnections{0}, nAsked{0}, nForgotten{0};
    std::list<Pair> pairs; ///< of the thread
};
