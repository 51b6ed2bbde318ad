#include "FuseWorker.h"

#define FUSE_USE_VERSION 314
#include <fuse_lowlevel.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <malloc.h>
#include <poll.h>
#include <sys/mman.h>

namespace {

/// How long a thread that has just served a request looks for the next one before it sleeps; one thread of a
/// disk at a time. A program that reads block after block asks again within this time, and a wake-up costs
/// more than serving a block: with it, random single reads on ext4 rose from 32,000 to 36,000 a second, and
/// those of 16 readers at once stayed as they were.
constexpr std::chrono::microseconds LOOK(30);

/// Sent to a thread that waits for a request, to wake it; its handler does nothing.
int wakeSignal() {
    static const int number = [] {
        struct sigaction action = {};
        action.sa_handler = [](int) {}; // without SA_RESTART
        ::sigaction(SIGRTMIN + 2, &action, nullptr);
        return SIGRTMIN + 2;
    }();
    return number;
}

} // namespace

FuseWorker::FuseWorker(fuse_session* session_, std::atomic<bool>* looking_, std::atomic<bool>* ended_)
    : session(session_),
      looking(looking_),
      ended(ended_),
      request(std::make_unique<fuse_buf>()) {
    setThreadName("fuse");
}

FuseWorker::~FuseWorker() {
    ::munlock(request->mem, ::malloc_usable_size(request->mem));
    // NOLINTNEXTLINE(cppcoreguidelines-*): it is the C library's that got it
    std::free(request->mem);
}

void FuseWorker::prepare() {
    wakeSignal();
    space.adopt();
    if (fuse_session_receive_buf(session, request.get()) > 0)
        fuse_session_process_buf(session, request.get());
    RequestSpace::lockMemory(request->mem, ::malloc_usable_size(request->mem));
}

void FuseWorker::interrupt() {
    if (isRunning() && hasSelf) ::pthread_kill(self, wakeSignal());
}

void FuseWorker::main() {
    self = ::pthread_self();
    hasSelf = true;
    space.adopt();
    while (!fuse_session_exited(session)) {
        lookForNext();
        const int got = fuse_session_receive_buf(session, request.get());
        if (got == -EINTR) continue;
        if (got <= 0) break;
        fuse_session_process_buf(session, request.get());
    }
    *ended = true;
}

void FuseWorker::lookForNext() {
    // A second one would only take the core on which the reader runs.
    if (looking->exchange(true, std::memory_order_relaxed)) return;
    pollfd fd = {fuse_session_fd(session), POLLIN, 0};
    const auto end = std::chrono::steady_clock::now() + LOOK;
    while (::poll(&fd, 1, 0) == 0 && std::chrono::steady_clock::now() < end) {
    }
    looking->store(false, std::memory_order_relaxed);
}
