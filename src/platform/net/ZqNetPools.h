#pragma once

#include "SxString.h"
#include "ZqNetPool.h"

#include <array>
#include <functional>
#include <list>

/// The connections of a link, by the version of HTTP that they speak: which pool a new request takes. For the
/// network thread.
///
/// What yields has a connection of its own, over HTTP/1.1: bytes that are held back there stay with the
/// server, where HTTP/2 would let a window of 32 MiB fill. All else takes HTTP/2 where that is offered: a
/// group of ranges then costs one handshake, and no more round trips than a single one.
///
/// Connections of both versions are never in one pool. libcurl 7.88 gives answers to the wrong requests there
/// when a server ends an HTTP/2 connection, as nginx does with each thousandth request and with each reload.
/// One version for all would be simpler. But with HTTP/2 nothing would bound what is held, and with HTTP/1.1
/// each range that goes beside another would cost a TLS handshake.
class ZqNetPools {
public:
    struct Place {
        ZqNetPool* pool = nullptr;
        bool isHttp2 = false;  ///< that is to be asked for
        bool mayShare = false; ///< to wait for a connection that takes several requests pays
    };
    /// Where a new request goes. `yields`: it is held for others at times.
    Place place(const SxString& url, bool yields);
    /// What an answer from `url` speaks. False where one host has given both versions where it may choose, as
    /// one does that is several machines. From then on only HTTP/1.1 is asked for, so that both are never in
    /// one pool.
    bool noteVersion(ZqNetPool* pool, const SxString& url, bool isHttp1, bool yields);
    /// One of the pool's connections is dead. Where it is so the others that there are may be, too: an
    /// address that has changed, or a router that has forgotten them all. Each would cost the same wait anew.
    /// So later requests take none of them.
    void suspect(const ZqNetPool* pool);

    // Of all pools, as ZqNetPool has them.
    void collect(std::vector<pollfd>* waited) const;
    int64 timeToWait() const;
    /// `ended` is called with each request that has ended, and its result; it takes the request out.
    void perform(const std::vector<pollfd>& waited, const std::function<void(CURL*, int)>& ended);
    /// Removes those that no request uses, or will.
    void tidy();

private:
    enum Version { Http1, Http2, N_VERSIONS };
    bool isCurrent(const ZqNetPool* pool) const;
    void renew();

    std::list<std::unique_ptr<ZqNetPool>> pools;
    std::array<ZqNetPool*, N_VERSIONS> current{}; ///< for new requests; null until there is one
    bool speaksHttp1 = false;                     ///< the last answer to a request that may be beside others
    bool onlyHttp1 = false;                       ///< a host has given both versions where it chose
};
