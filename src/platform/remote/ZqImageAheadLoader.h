#pragma once

#include "SxSystemThread.h"
#include "ZqRemoteImage.h"

/// Takes what follows a stretch that somebody has asked for, as it comes in, and keeps it as other ranges are
/// kept. stop() is safe from any thread.
class ZqRemoteImage::AheadLoader : public SxSystemThread {
public:
    explicit AheadLoader(ZqRemoteImage* image_) : image(image_) { setThreadName("zqahead"); }
    void stop() { stopping = true; }

protected:
    void main() override;

private:
    ZqRemoteImage* const image;
    std::atomic<bool> stopping{false};
};
