#pragma once

#include <cstddef>
#include <vector>

/// Space for the data of one request, there from the start, for a thread that serves requests. The owner
/// makes it before it starts the thread: with the first request there might be no memory for it.
class RequestSpace {
public:
    RequestSpace();
    ~RequestSpace();
    RequestSpace(const RequestSpace&) = delete;
    RequestSpace& operator=(const RequestSpace&) = delete;

    /// Makes it the space of the calling thread.
    void adopt() { own = space.data(); }
    /// The calling thread's space, of MAX_REQUEST bytes; null where it has none.
    static char* get() { return own; }

    /// Gets the memory now and not only when it is used, and keeps the kernel from taking it away. Where
    /// memory is short the kernel writes out what programs wrote to this service's volumes; a service that
    /// then waits for memory itself would wait for ever. A user may not be allowed to lock so much; then the
    /// memory is at least there.
    static void lockMemory(void* at, std::size_t n);

private:
    static constinit thread_local char* own;

    std::vector<char> space;
};
