#pragma once

#include "RequestSpace.h"
#include "SxSystemThread.h"

#include <pthread.h>

#include <memory>

struct fuse_session;
struct fuse_buf;

/// A thread that takes requests from the kernel and has the session's operations serve them, until the
/// session or the connection ends. The owner's thread makes it, prepares, starts and interrupts it.
class FuseWorker : public SxSystemThread {
public:
    /// @param looking_  shared by all workers of the session: whether one of them looks for the next request
    /// @param ended_  likewise: whether the kernel has ended the connection
    FuseWorker(fuse_session* session_, std::atomic<bool>* looking_, std::atomic<bool>* ended_);
    ~FuseWorker() override;

    /// Before the start: has the library get its space for requests, which it does when it looks for one,
    /// and locks that. The session must not wait for requests meanwhile.
    void prepare();
    /// Ends the thread's wait for a request; the session must have been told to end. Does nothing where the
    /// thread doesn't wait, so it is to be repeated until the thread has ended.
    void interrupt();

protected:
    void main() override;

private:
    void lookForNext();

    fuse_session* const session;
    std::atomic<bool>* const looking;
    std::atomic<bool>* const ended;
    pthread_t self = {};
    std::atomic<bool> hasSelf{false};
    RequestSpace space;
    const std::unique_ptr<fuse_buf> request;
};
