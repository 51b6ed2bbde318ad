#pragma once

#include "SxMutex.h"
#include "SxString.h"

#include <atomic>

/// What has failed of a drive's files: the first failure in words, and whether writes are still taken. Safe
/// from any thread.
class DriveFailure {
public:
    /// Keeps the text, if it is the first.
    void note(const SxString& text);
    /// The same for a failure after which nobody knows what a file holds, so that no later write is taken.
    /// Gives `error`, an errno value.
    int stop(const SxString& what, int error);
    bool isStopped() const { return stopped.load(); }
    /// Forgets a failure that has stopped nothing: what failed works again.
    void forget();
    /// Empty where nothing has failed.
    SxString getText() const;

private:
    std::atomic<bool> stopped{false};
    mutable SxMutex mutex;
    SxString first SX_GUARDED_BY(mutex);
};
