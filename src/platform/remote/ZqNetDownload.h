#pragma once

#include "SxSystemThread.h"
#include "ZqRemoteFile.h"

#include <atomic>
#include <map>

class ZqRangeReader;

/// The object of one download of `zqnetio`: ranges from any thread, and one whole download on a thread of
/// its own.
class ZqNetDownload : public SxSystemThread {
public:
    ZqNetDownload();
    ~ZqNetDownload() override;

    void setUrl(const SxString& url_);
    void setHeaders(const SxArray<SxString>& headers_);
    void setPath(const SxString& path_);
    void setChunks(uint64 requestSize, uint64 maxBuffered);
    void setThrottle(double bytesPerSecond);
    void cancel(bool on) noexcept { cancelled.store(on); }

    void read(uint64 offset, uint64 size, char* buffer);
    /// By a request of its own, whatever was announced.
    void readAnew(uint64 offset, uint64 size, char* buffer);
    void announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes);
    void forget(uint64 offset, uint64 size);

    /// Begins the whole download.
    void begin();
    bool hasFinished() const noexcept { return begun.load() && !isRunning(); }
    uint64 getDone() const noexcept { return nDone.load(); }
    uint64 getTotal() const;
    uint64 getSpeed() const;

    void noteError(const SxString& text);
    uint64 getNErrors() const;
    SxString getLastError() const;

protected:
    void main() override;

private:
    SxPtr<ZqRemoteFile> getFile() const;
    SxPtr<ZqRangeReader> takeAnnounced(uint64 offset, uint64 size);
    void download();
    ZqStopTest stopTest() const;

    std::atomic<bool> cancelled{false}, closing{false}, begun{false};
    std::atomic<uint64> nDone{0};
    std::atomic<int64> beginNs{0};

    mutable SxMutex mutex;
    SxString url SX_GUARDED_BY(mutex), path SX_GUARDED_BY(mutex);
    SxArray<SxString> headers SX_GUARDED_BY(mutex);
    ZqNetSettings settings SX_GUARDED_BY(mutex);
    double throttle SX_GUARDED_BY(mutex) = 0.;
    mutable SxPtr<ZqNetLink> link SX_GUARDED_BY(mutex); ///< from the first request on
    mutable SxPtr<ZqRemoteFile> file SX_GUARDED_BY(mutex);
    std::map<std::pair<uint64, uint64>, SxPtr<ZqRangeReader>>
        announced SX_GUARDED_BY(mutex); ///< and not read yet

    mutable SxMutex errorMutex;
    uint64 nErrors SX_GUARDED_BY(errorMutex) = 0;
    SxString lastError SX_GUARDED_BY(errorMutex);
};
