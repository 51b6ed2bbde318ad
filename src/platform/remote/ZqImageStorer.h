#pragma once

#include "SxSystemThread.h"
#include "ZqRemoteImage.h"

/// Hands what ranges have brought to the store, on a thread of its own: it is in memory at first, so that no
/// reader waits for the disk, and the next run has it. stop() is safe from any thread; after it what is left
/// is still stored, for as long as DRAIN_NS.
class ZqRemoteImage::Storer : public SxSystemThread {
public:
    static constexpr int64 DRAIN_NS = 1'000'000'000;

    explicit Storer(ZqRemoteImage* image_) : image(image_) { setThreadName("zqstore"); }
    void stop() { stopping = true; }

protected:
    void main() override;

private:
    ZqRemoteImage* const image;
    std::atomic<bool> stopping{false};
};
