#include "LinkProxy.h"

#include "Loopback.h"
#include "SxClock.h"
#include "SxTime.h"

#include <algorithm>
#include <limits>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace {
constexpr size_t NO_LIMIT = std::numeric_limits<size_t>::max();
}

void LinkProxy::Credit::grow(int64 bytesPerSecond) {
    constexpr int64 LONGEST_NS = 50'000'000;
    const int64 now = SxClock::get().steadyNs();
    const int64 passed = std::min(now - lastNs, LONGEST_NS);
    const auto perSecond = static_cast<double>(bytesPerSecond);
    lastNs = now;
    nBytes = std::min(nBytes + perSecond * static_cast<double>(passed) / 1e9, std::max(perSecond / 20., 1.));
}

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

void LinkProxy::trickleConnections(int64 bytesPerSecond) {
    askedTrickle = bytesPerSecond;
    SxWait::pass(
        5000, [&] { return askedTrickle < 0; }, 1);
}

/// Says what each connection may bring its client in this turn.
void LinkProxy::share() {
    const int64 perSecond = rate;
    const auto nWaiting = std::ranges::count_if(
        pairs, [](const Pair& pair) { return !pair.isSilent && !pair.client.pending.empty(); });
    if (perSecond > 0) credit.grow(perSecond);
    for (Pair& pair : pairs) {
        pair.nMay = NO_LIMIT;
        if (pair.client.pending.empty()) continue;
        if (pair.trickle > 0) {
            pair.credit.grow(pair.trickle);
            pair.nMay = static_cast<size_t>(pair.credit.nBytes);
            pair.credit.nBytes -= static_cast<double>(std::min(pair.nMay, pair.client.pending.size()));
        } else if (perSecond > 0 && !pair.isSilent) {
            pair.nMay = static_cast<size_t>(credit.nBytes / static_cast<double>(nWaiting));
        }
    }
    for (const Pair& pair : pairs) {
        if (perSecond > 0 && pair.trickle == 0 && pair.nMay != NO_LIMIT)
            credit.nBytes -= static_cast<double>(std::min(pair.nMay, pair.client.pending.size()));
    }
}

void LinkProxy::accept() {
    const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (client < 0) return;
    const int server = Loopback::connect(serverPort);
    if (server < 0) {
        ++nConnections;
        ::close(client);
        return;
    }
    Pair pair;
    pair.client.fd = client;
    pair.server.fd = server;
    pair.isSilent = isDead;
    pair.trickle = newTrickle;
    pairs.push_back(pair);
    // Whoever waits for it may change the settings then.
    ++nConnections;
}

/// False once `from` has ended and all of it is with `to`, which gets `nMay` bytes at most.
bool LinkProxy::move(Side* from, Side* to, short fromEvents, short toEvents, size_t nMay) {
    char buffer[65'536];
    if (to->pending.empty() && (fromEvents & (POLLIN | POLLHUP | POLLERR)) != 0) {
        const ssize_t n = ::recv(from->fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (n == 0) to->ended = true;
        if (n > 0) to->pending.assign(buffer, static_cast<size_t>(n));
    }
    const size_t nNow = std::min(to->pending.size(), nMay);
    if (nNow > 0 && (toEvents & POLLOUT) != 0) {
        const ssize_t n = ::send(to->fd, to->pending.data(), nNow, MSG_DONTWAIT | MSG_NOSIGNAL);
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
        if (askedTrickle >= 0) {
            for (Pair& pair : pairs)
                pair.trickle = askedTrickle;
            askedTrickle = -1;
        }
        share();
        std::vector<pollfd> polled{{listener, POLLIN, 0}};
        for (const Pair& pair : pairs) {
            // A descriptor below 0 is passed over.
            for (const auto& [side, other] :
                 {std::pair(&pair.client, &pair.server), std::pair(&pair.server, &pair.client)}) {
                const bool mayGo = !side->pending.empty() && (side == &pair.server || pair.nMay > 0);
                const int wanted = (other->pending.empty() ? POLLIN : 0) | (mayGo ? POLLOUT : 0);
                polled.push_back({pair.isSilent ? -1 : side->fd, static_cast<short>(wanted), 0});
            }
        }
        ::poll(polled.data(), polled.size(), 5);
        size_t i = 1;
        for (auto pair = pairs.begin(); pair != pairs.end(); i += 2) {
            const short ofClient = polled[i].revents, ofServer = polled[i + 1].revents;
            const bool goesOn =
                pair->isSilent || (move(&pair->client, &pair->server, ofClient, ofServer, NO_LIMIT) &&
                                   move(&pair->server, &pair->client, ofServer, ofClient, pair->nMay));
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
