#include "LinkProxy.h"

#include "Loopback.h"
#include "SxTime.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

LinkProxy::LinkProxy(uint64 serverPort_) : serverPort(serverPort_) {
    listener = Loopback::listen(&port);
    start();
}

LinkProxy::~LinkProxy() {
    ending = true;
    wait();
    for (const Pair& pair : pairs) {
        ::close(pair.client.fd);
        ::close(pair.server.fd);
    }
    ::close(listener);
}

void LinkProxy::forgetConnections() {
    const int64 mine = ++nAsked;
    SxWait::pass(
        5000, [&] { return nForgotten >= mine; }, 1);
}

void LinkProxy::accept() {
    const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client < 0) return;
    ++nConnections;
    const int server = Loopback::connect(serverPort);
    if (server < 0) {
        ::close(client);
        return;
    }
    Pair pair;
    pair.client.fd = client;
    pair.server.fd = server;
    pair.isSilent = isDead;
    pairs.push_back(pair);
}

/// False once `from` has ended and all of it is with `to`.
bool LinkProxy::move(Side* from, Side* to, short fromEvents, short toEvents) {
    char buffer[65'536];
    if (to->pending.empty() && (fromEvents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        const ssize_t n = ::recv(from->fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (n == 0) to->ended = true;
        if (n > 0) to->pending.assign(buffer, static_cast<size_t>(n));
    }
    if (!to->pending.empty() && (toEvents & POLLOUT) != 0) {
        const ssize_t n = ::send(to->fd, to->pending.data(), to->pending.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0) return false;
        to->pending.erase(0, static_cast<size_t>(n));
    }
    return !(to->ended && to->pending.empty());
}

void LinkProxy::main() {
    while (!ending) {
        const int64 asked = nAsked;
        if (asked != nForgotten) {
            for (Pair& pair : pairs)
                pair.isSilent = true;
            nForgotten = asked;
        }
        std::vector<pollfd> polled{{listener, POLLIN, 0}};
        for (const Pair& pair : pairs) {
            // A descriptor below 0 is passed over.
            for (const auto& [side, other] :
                 {std::pair(&pair.client, &pair.server), std::pair(&pair.server, &pair.client)}) {
                const int wanted =
                    (other->pending.empty() ? POLLIN : 0) | (side->pending.empty() ? 0 : POLLOUT);
                polled.push_back({pair.isSilent ? -1 : side->fd, static_cast<short>(wanted), 0});
            }
        }
        ::poll(polled.data(), polled.size(), 5);
        size_t i = 1;
        for (auto pair = pairs.begin(); pair != pairs.end(); i += 2) {
            const short ofClient = polled[i].revents, ofServer = polled[i + 1].revents;
            const bool goesOn = pair->isSilent || (move(&pair->client, &pair->server, ofClient, ofServer) &&
                                                   move(&pair->server, &pair->client, ofServer, ofClient));
            if (goesOn) {
                ++pair;
                continue;
            }
            ::close(pair->client.fd);
            ::close(pair->server.fd);
            pair = pairs.erase(pair);
        }
        if (polled[0].revents != 0) accept();
    }
}
