#pragma once

#include "SxTypes.h"

#include <chrono>
#include <condition_variable>
#include <mutex>

/// Something that happens once. A thread sleeps until it happens, instead of looking again and again. All
/// operations are safe from any thread.
class SxLatch {
public:
    void set() {
        {
            const std::lock_guard<std::mutex> lock(mutex);
            happened = true;
        }
        changed.notify_all();
    }

    /// Waits for `ms` milliseconds at the most, on the machine's clock; gives whether it has happened.
    bool isSetWithin(int64 ms) {
        std::unique_lock<std::mutex> lock(mutex);
        return changed.wait_for(lock, std::chrono::milliseconds(ms), [this] { return happened; });
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    bool happened = false;
};
