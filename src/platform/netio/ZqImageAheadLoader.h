#pragma once

#include "SxSystemThread.h"
#include "ZqRemoteImage.h"

#include <deque>

/// Fetches the stretches that follow one of a reader who goes through the image, while nobody asks for
/// others. They go ahead of the ordered stream, and are kept as other ranges are; all of the image is
/// downloaded at some time. follow() and stop() are safe from any thread.
class ZqRemoteImage::AheadLoader : public SxSystemThread {
public:
    explicit AheadLoader(ZqRemoteImage* image_) : image(image_) { setThreadName("zqahead"); }
    void stop();

    /// Fetches what follows `stretchIdx`, `nAtOnce_` stretches at once, and leaves what followed others.
    void follow(uint64 stretchIdx, uint64 nAtOnce_);

protected:
    void main() override;

private:
    /// The stretch to begin next; NONE where there is nothing to do.
    uint64 choose();
    /// Leaves what was to follow.
    void giveUp();
    void begin(std::deque<SxPtr<Fetch>>* fetches);
    void finish(SxPtr<Fetch> fetch);

    static constexpr uint64 NONE = ~uint64{0};

    ZqRemoteImage* const image;
    std::atomic<bool> stopping{false};
    mutable SxMutex mutex;
    std::condition_variable_any asked;
    uint64 nextIdx SX_GUARDED_BY(mutex) = NONE; ///< to be looked at next
    uint64 endIdx SX_GUARDED_BY(mutex) = 0;
    std::atomic<uint64> nAtOnce{1};
};
