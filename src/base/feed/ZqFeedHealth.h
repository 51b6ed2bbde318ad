#pragma once

#include "SxException.h"
#include "SxMutex.h"
#include "ZqFailurePolicy.h"

#include <atomic>
#include <functional>

/// How a feed's work fares: what it waits for, as a line, and what has ended it. All that works for the feed
/// tells its failures here, and ZqFailurePolicy decides what they mean. Once ended it stays so. Safe from any
/// thread.
class ZqFeedHealth {
public:
    /// `couldDrive_`: whether a drive could be made of what is there; called by whoever asks for hasDrive().
    explicit ZqFeedHealth(std::function<bool()> couldDrive_) : couldDrive(std::move(couldDrive_)) {}

    /// From now on a drive comes up, or is up.
    void driveStarts() { driveStarted = true; }
    bool hasDriveStarted() const { return driveStarted; }
    /// Whether a drive is up, or could be of what is there.
    bool hasDrive() const { return driveStarted || couldDrive(); }

    /// What is waited for from now on; empty for nothing.
    void setWaiting(const SxString& text);
    SxString getWaiting() const;
    /// What becomes of a job that has failed, and waits for that. Raises `why` where it ends the download.
    ZqFailurePolicy::Verdict settle(const SxException& why);

    /// The download has ended, which can't be mended.
    void end(const SxException& why);
    bool hasEnded() const;
    /// Raises what has ended it.
    void requireAlive() const;

private:
    const std::function<bool()> couldDrive;
    std::atomic<bool> driveStarted{false};

    mutable SxMutex mutex;
    SxString waiting SX_GUARDED_BY(mutex);
    bool ended SX_GUARDED_BY(mutex) = false;
    SxException failure SX_GUARDED_BY(mutex);
};
