#pragma once

#include "SxMutex.h"

/// A bool with a mutex of its own, held for one read or write. Safe from any thread.
class SxFlag {
public:
    void set(bool on) {
        SxMutexBlock lock(&mutex);
        value = on;
    }
    /// Sets the flag and gives what it was.
    bool exchange(bool on) {
        SxMutexBlock lock(&mutex);
        const bool old = value;
        value = on;
        return old;
    }
    bool get() const {
        SxMutexBlock lock(&mutex);
        return value;
    }

private:
    mutable SxMutex mutex;
    bool value SX_GUARDED_BY(mutex) = false;
};
