#pragma once

#include "SxMutex.h"
#include "SxSystemThread.h"

#include <atomic>
#include <list>
#include <string>

/// Passes TCP connections of the loopback interface on to a server, and can forget them as a router does:
/// what comes on them then goes nowhere, and neither side is told. It may also be slow, for all connections
/// together or for some of them.
class LinkProxy : public SxSystemThread {
public:
    explicit LinkProxy(uint64 serverPort_);
    ~LinkProxy() override;

    std::string url(const std::string& path = "") const {
        return "http://127.0.0.1:" + std::to_string(port) + "/" + path;
    }
    std::string secureUrl(const std::string& path = "") const {
        return "https://127.0.0.1:" + std::to_string(port) + "/" + path;
    }
    /// All connections together bring clients so many bytes per second; 0 for no limit.
    void setRate(int64 bytesPerSecond) { rate = bytesPerSecond; }
    /// Each connection that is made from now on brings its client so many bytes per second; 0 for no limit.
    void setTrickle(int64 bytesPerSecond) { newTrickle = bytesPerSecond; }
    /// The same for the connections that there are; when this returns, they have become slow.
    void trickleConnections(int64 bytesPerSecond);
    /// The connections that there are go silent; when this returns, nothing more of them gets through.
    void forgetConnections();
    /// New connections go silent from their begin.
    void setDead(bool dead) { isDead = dead; }
    int64 getNConnections() const { return nConnections; }

protected:
    void main() override;

private:
    /// What may still be passed on at a rate.
    struct Credit {
        double nBytes = 0.;
        int64 lastNs = 0;

        /// Adds what the time since the last call gives.
        void grow(int64 bytesPerSecond);
    };
    struct Side {
        int fd = -1;
        std::string pending; ///< for this side
        bool ended = false;  ///< what the other side says, once nothing is pending
    };
    struct Pair {
        Side client, server;
        bool isSilent = false;
        int64 trickle = 0; ///< bytes per second to the client; 0 without a limit
        Credit credit;
        size_t nMay = 0; ///< that go to the client in this turn
    };

    void accept();
    void share();
    static bool move(Side* from, Side* to, short fromEvents, short toEvents, size_t nMay);

    const uint64 serverPort;
    int listener = -1;
    int port = 0;
    std::atomic<bool> ending{false}, isDead{false};
    std::atomic<int64> nConnections{0}, nAsked{0}, nForgotten{0};
    std::atomic<int64> rate{0}, newTrickle{0}, askedTrickle{-1};
    // Of the thread.
    std::list<Pair> pairs;
    Credit credit;
};
