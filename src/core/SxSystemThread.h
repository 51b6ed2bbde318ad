#pragma once

#include "SxException.h"
#include "SxMutex.h"

#include <atomic>
#include <thread>

/// Base of every long job. The creator starts it, asks it, stops it and waits for it; main() runs on the new
/// thread. stop(), where a job has it, sets a flag that the job looks at; such flags are atomic, since
/// nothing else has to change together with one and so none needs a mutex of its own. An SxException that
/// leaves main() stays in the object. wait() must have been called before a started object is destroyed: else
/// the process ends at once, as with std::thread, since there is no safe way on. start() and wait() belong to
/// the owner's thread, the queries are safe from any.
class SxSystemThread {
public:
    using Priority = int;

    SxSystemThread() = default;
    SxSystemThread(const SxSystemThread&) = delete;
    SxSystemThread& operator=(const SxSystemThread&) = delete;
    virtual ~SxSystemThread();

    /// Runs main() on a new thread. Raises where a run is still under way, or no thread can be had. The
    /// priority is advice; all jobs of the library pass 6.
    virtual void start(Priority priority = 6);
    /// Blocks until main() has ended. Does nothing where nothing was started.
    virtual void wait();

    bool isRunning() const noexcept { return running.load(std::memory_order_acquire); }
    /// Whether an SxException left main() in the run that was started last.
    bool hasException() const;
    /// A copy of that exception.
    SxException getException() const;
    /// Whether that run has failed: an exception left main(), or main() kept one that it had told of itself.
    bool hasFailure() const;
    /// A copy of that exception, for who looks after the job.
    SxException getFailure() const;
    /// For main(), which then doesn't raise it.
    void keepFailure(const SxException& e);
    /// The name that the thread has in the system and in log lines, at most 15 bytes; before start().
    void setThreadName(const SxString& name) { threadName = name; }

    /// Hardware threads of the machine, at least 1.
    static int64 getNCores() noexcept;

protected:
    virtual void main() = 0;

private:
    void run() noexcept;

    std::thread thread;
    SxString threadName;
    std::atomic<bool> running{false};

    mutable SxMutex exceptionMutex;
    bool failed SX_GUARDED_BY(exceptionMutex) = false;
    SxException exception SX_GUARDED_BY(exceptionMutex);
    bool hasKept SX_GUARDED_BY(exceptionMutex) = false;
    SxException keptFailure SX_GUARDED_BY(exceptionMutex);
};
