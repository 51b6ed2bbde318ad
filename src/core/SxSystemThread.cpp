#include "SxSystemThread.h"

#include "SxClock.h"

#include <cstdio>
#include <cstdlib>
#include <pthread.h>
#include <system_error>

namespace {
constexpr const char* UNIT = "src/core/SxSystemThread";
}

SxSystemThread::~SxSystemThread() {
    if (!thread.joinable()) return;
    // The derived part, which main() may still use, is gone already: there is no safe way on.
    std::fprintf(stderr, "A job was destroyed before wait() was called on it.\n");
    std::abort();
}

void SxSystemThread::start(Priority) {
    if (isRunning()) throw SxException("The job is already running", UNIT, __LINE__);
    wait();
    {
        SxMutexBlock lock(&exceptionMutex);
        failed = hasKept = false;
    }
    running.store(true, std::memory_order_release);
    SxClock::get().threadStarting();
    try {
        thread = std::thread(&SxSystemThread::run, this);
    } catch (const std::system_error& e) {
        running.store(false, std::memory_order_release);
        SxClock::get().threadEnded();
        throw SxException(SxString("Cannot start a thread: ") + e.what(), UNIT, __LINE__);
    }
}

void SxSystemThread::wait() {
    if (!thread.joinable()) return;
    SxClock::get().waitBegins();
    thread.join();
    SxClock::get().waitEnds();
}

void SxSystemThread::run() noexcept {
    if (!threadName.isEmpty()) {
        pthread_setname_np(pthread_self(), threadName.str().substr(0, 15).c_str());
    }
    try {
        main();
    } catch (const SxException& e) {
        SxMutexBlock lock(&exceptionMutex);
        exception = e;
        failed = true;
    } catch (const std::exception& e) {
        // What a library raises, such as std::bad_alloc, must not end the process.
        SxMutexBlock lock(&exceptionMutex);
        exception = SxException(e.what(), UNIT, __LINE__);
        failed = true;
    }
    running.store(false, std::memory_order_release);
    SxClock::get().threadEnded();
}

bool SxSystemThread::hasException() const {
    SxMutexBlock lock(&exceptionMutex);
    return failed;
}

SxException SxSystemThread::getException() const {
    SxMutexBlock lock(&exceptionMutex);
    return exception;
}

bool SxSystemThread::hasFailure() const {
    SxMutexBlock lock(&exceptionMutex);
    return failed || hasKept;
}

SxException SxSystemThread::getFailure() const {
    SxMutexBlock lock(&exceptionMutex);
    return failed ? exception : keptFailure;
}

void SxSystemThread::keepFailure(const SxException& e) {
    SxMutexBlock lock(&exceptionMutex);
    keptFailure = e;
    hasKept = true;
}

int64 SxSystemThread::getNCores() noexcept {
    const unsigned n = std::thread::hardware_concurrency();
    return n > 0 ? n : 1;
}
