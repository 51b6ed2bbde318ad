#pragma once

#include "SxString.h"
#include "ZqDiskReserve.h"

#include <functional>

/// The pace at which an image is written while a game starts: follows the download's speed, bounded by what
/// the disk has shown in a test, so that a large buffer is spread out. For the writer's thread. Speeds in
/// bytes per second.
class ZqWritePace {
public:
    static constexpr uint64 MIN_SPEED = 0x300000;
    /// The file of the test; one is left where a test was killed.
    static constexpr const char* TEST_FILE = "test.dat";

    /// Writes a file beside the image, up to half of what is free, and removes it again, also where that has
    /// failed. Raises "Cannot perform disk speed test" with the cause.
    void testDisk(const SxString& dirPath, const ZqDiskReserve& reserve);
    /// What the test has written, and how long that took; 0 without one.
    uint64 getTestBytes() const noexcept { return testBytes; }
    uint64 getTestMs() const noexcept { return testMs; }
    /// The most, by the test; 0 for no bound without one.
    uint64 getMaxSpeed() const noexcept { return maxSpeed; }

    /// What to write at where the download comes at `dlSpeed` and `nAvailable` bytes lie ready.
    uint64 getTarget(uint64 dlSpeed, uint64 nAvailable) const;
    /// A piece is about to be written.
    void begin(int64 nowNs);
    /// It is written, and had `nBytes`: waits until it has taken its time at `target`, or for the stop.
    void await(uint64 nBytes, uint64 target, const std::function<bool()>& isStopped);

private:
    void writeTestFile(const SxString& path, int64 nBytes);

    uint64 testBytes = 0, testMs = 0, maxSpeed = 0;
    int64 dueNs = 0; ///< when the last piece has taken the time that its pace gives it
};
