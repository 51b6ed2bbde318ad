#pragma once

#include "SxTypes.h"

#include <atomic>
#include <functional>
#include <memory>
#include <thread>

/// Work on a thread of its own that nobody has to wait for: where it doesn't end, as on a disk that hangs, it
/// is left to itself, and lives until it ends or the program does. So it shares with its owner all that it
/// uses. The queries are safe from any thread.
class SxLooseJob {
public:
    /// Starts `work`, which raises nothing. `name`: that of the thread in the system, at most 15 bytes.
    /// Raises where no thread can be had.
    SxLooseJob(const char* name, std::function<void()> work);
    ~SxLooseJob();
    SxLooseJob(const SxLooseJob&) = delete;
    SxLooseJob& operator=(const SxLooseJob&) = delete;

    bool hasEnded() const noexcept { return ended->load(std::memory_order_acquire); }
    /// Waits for the end, for `ms` milliseconds at the most; gives whether it has come.
    bool endsWithin(int64 ms) const;

private:
    std::shared_ptr<std::atomic<bool>> ended;
    std::thread thread;
};
