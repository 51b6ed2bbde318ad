#pragma once

#include <cstdint>

/// Sockets of the loopback interface, for servers of tests. All descriptors are the caller's.
class Loopback {
public:
    /// Listens on a port that is free, which is given; raises where that can't be.
    static int listen(int* port);
    /// A connection to a port; -1 where nobody listens there.
    static int connect(uint64_t port);
};
