#pragma once

#include <mutex>

// Annotations of clang's thread-safety analysis; they mean nothing to other compilers.
#if defined(__clang__)
#define SX_THREAD_ATTR(x) __attribute__((x))
#else
#define SX_THREAD_ATTR(x)
#endif
#define SX_CAPABILITY(name) SX_THREAD_ATTR(capability(name))
#define SX_SCOPED_CAPABILITY SX_THREAD_ATTR(scoped_lockable)
#define SX_GUARDED_BY(mutex) SX_THREAD_ATTR(guarded_by(mutex))
#define SX_REQUIRES(mutex) SX_THREAD_ATTR(requires_capability(mutex))
#define SX_ACQUIRE(...) SX_THREAD_ATTR(acquire_capability(__VA_ARGS__))
#define SX_RELEASE(...) SX_THREAD_ATTR(release_capability(__VA_ARGS__))
#define SX_EXCLUDES(mutex) SX_THREAD_ATTR(locks_excluded(mutex))

/// Plain, non-recursive mutex. Each guards a small group of fields. As a rule no thread holds two at once,
/// and none is held over I/O.
class SX_CAPABILITY("mutex") SxMutex {
public:
    SxMutex() = default;
    SxMutex(const SxMutex&) = delete;
    SxMutex& operator=(const SxMutex&) = delete;

    void lock() SX_ACQUIRE() { mutex.lock(); }
    void unlock() SX_RELEASE() { mutex.unlock(); }

private:
    std::mutex mutex;
};

/// Holds an SxMutex for a scope.
class SX_SCOPED_CAPABILITY SxMutexBlock {
public:
    explicit SxMutexBlock(SxMutex* m) SX_ACQUIRE(m) : mutex(m) { mutex->lock(); }
    ~SxMutexBlock() SX_RELEASE() { mutex->unlock(); }
    SxMutexBlock(const SxMutexBlock&) = delete;
    SxMutexBlock& operator=(const SxMutexBlock&) = delete;

private:
    SxMutex* mutex;
};
