#pragma once

#include "SxTypes.h"

#include <map>
#include <memory>
#include <poll.h>
#include <string>
#include <vector>

// As libcurl declares them.
using CURL = void;
using CURLM = void;

/// Connections and the requests on them: one multi handle of libcurl, driven by its sockets. All connections
/// must be of one version of HTTP: where libcurl 7.88 has both in one multi handle it gives answers to the
/// wrong requests when a server ends an HTTP/2 connection. For the network thread.
class ZqNetPool {
public:
    /// Raises where there is no memory.
    ZqNetPool();
    ZqNetPool(const ZqNetPool&) = delete;
    ZqNetPool& operator=(const ZqNetPool&) = delete;

    /// Begins a request; raises where that can't be.
    void add(CURL* easy);
    /// Ends it; before its handle goes.
    void remove(CURL* easy);
    bool isEmpty() const noexcept { return nRequests == 0; }

    /// Adds the sockets to wait for to `waited`.
    void collect(std::vector<pollfd>* waited) const;
    /// Milliseconds until it has something to do without a socket; -1 for never.
    int64 timeToWait() const;
    /// Does what is due by time and by those of `waited` that are ready.
    void perform(const std::vector<pollfd>& waited);
    /// A request that has ended, with its result; null where there is none.
    CURL* takeEnded(int* result);

    /// The socket of a request that is under way; -1 where that isn't known.
    int socketOf(CURL* easy) const;
    /// Bytes that a connection has received since it began, with those that aren't read yet; -1 where that
    /// isn't known.
    static int64 countReceived(int socket);
    /// Whether a host has given two versions of HTTP, which mustn't be in one pool; asked with each answer.
    bool isMixed(const std::string& host, long version);

private:
    struct Callbacks;
    struct CloseMulti {
        void operator()(CURLM* handle) const;
    };

    std::vector<int> sockets;             ///< of all connections; used until libcurl has closed them
    std::map<int, short> waiting;         ///< what libcurl waits for, as poll(2) has it; likewise
    std::map<std::string, long> versions; ///< by host
    int64 nRequests = 0;
    std::unique_ptr<CURLM, CloseMulti> multi;
};
