#pragma once

#include "SxMutex.h"
#include "SxString.h"

#include <atomic>
#include <new>

/// What has failed of a drive's files: the first failure in words, and whether writes are still taken. Safe
/// from any thread.
class DriveFailure {
public:
    /// Keeps the text, if it is the first.
    void note(const SxString& text);
    /// The same for a failure after which nobody knows what a file holds, so that no later write is taken,
    /// whether there is memory for its text or not. `what` gives that. Gives `error`, an errno value.
    template<class What>
    int stop(int error, const What& what) {
        stopped = true;
        try {
            noteError(what(), error);
        } catch (const std::bad_alloc&) {
            // getText() has a text for that.
        }
        return error;
    }
    bool isStopped() const { return stopped.load(); }
    /// Forgets a failure that has stopped nothing: what failed works again.
    void forget();
    /// Empty where nothing has failed.
    SxString getText() const;

private:
    void noteError(const SxString& what, int error);

    std::atomic<bool> stopped{false};
    mutable SxMutex mutex;
    SxString first SX_GUARDED_BY(mutex);
};
