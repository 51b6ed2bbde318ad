#pragma once

#include "SxSystemThread.h"
#include "ZqRemoteImage.h"

/// Fetches the seek table of a remote image beside everything else, and again where that has failed or the
/// packed form was left aside: after 5 s, then after twice that each time, up to 10 min. A packed form that
/// isn't there (404) is looked for as often, since plain stretches go unchecked meanwhile. Where its server
/// doesn't answer the table is asked for every few seconds, which brings the packed form back.
class ZqRemoteImage::TableLoader : public SxSystemThread {
public:
    explicit TableLoader(ZqRemoteImage* image_) : image(image_) { setThreadName("zqtable"); }
    /// Ends it, which it notices when the image's condition is notified.
    void stop() noexcept { stopping.store(true); }

protected:
    void main() override;

private:
    /// `Away`: its server doesn't answer.
    enum class Outcome { Ended, Absent, Failed, Away };

    void load();
    SxPtr<ZqSeekTable> parse(const SxArray<char>& tail, uint64 size) const;
    Outcome tryLoad();
    Outcome tryLoadOrNote();
    SxArray<char> fetch(uint64 first, uint64 end);

    ZqRemoteImage* const image;
    std::atomic<bool> stopping{false};
    int64 usedMs = 0; ///< how long the last table was in use
};
