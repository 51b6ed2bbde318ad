#pragma once

#include "SxSystemThread.h"
#include "ZqRemoteImage.h"

/// Fetches the seek table of a remote image beside everything else.
class ZqRemoteImage::TableLoader : public SxSystemThread {
public:
    explicit TableLoader(ZqRemoteImage* image_) : image(image_) { setThreadName("zqtable"); }
    void stop() noexcept { stopping.store(true); }

protected:
    void main() override;

private:
    void load();
    SxArray<char> fetchTail(uint64 maxTail);

    ZqRemoteImage* const image;
    std::atomic<bool> stopping{false};
};
