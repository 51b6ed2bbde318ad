#pragma once

#include "SxArray.h"
#include "SxList.h"
#include "SxString.h"

/// Fetches ranges of a remote `img.zqf` for on-demand requests, and can download the whole file. A thin cover
/// over `zqnetio`, which takes the object's address, so it stays where it is. Safe from any thread, but for
/// construction and destruction. Operations raise SxException unless they give a status.
class ZqODRDownloader {
public:
    /// Bytes written so far, and in all (0 until known).
    struct Progress {
        uint64 first = 0;
        uint64 second = 0;
    };

    ZqODRDownloader();
    ~ZqODRDownloader();
    ZqODRDownloader(const ZqODRDownloader&) = delete;
    ZqODRDownloader& operator=(const ZqODRDownloader&) = delete;

    /// Address and headers ("Name: value") for later requests; may be changed at any time.
    void setURL(const SxString& url);
    void setHeaders(const SxList<SxString>& headers);
    void setHeaders(const SxArray<SxString>& headers);
    /// The file that start() writes to.
    void setFilePath(const SxString& path);
    /// Bytes of one request of a whole download, and bytes that may wait in memory for the disk.
    void setChunkingParams(uint64 requestSize, uint64 maxBuffered);
    /// Bound of a whole download, bytes a second; 0 lifts it.
    void setThrottle(double bytesPerSecond);
    Progress getProgress() const;

    /// Begins to download the whole file in the background.
    void start();
    /// Blocks until that has ended; raises where there was an error.
    void wait();
    bool hasFinished() const;
    bool hasError() const;
    SxString getLastErrMsg() const;

    /// Blocks until `size` bytes from `offset` on are in `data`, which has that room. 0 for success, 1 for a
    /// failure, which getLastErrMsg() tells. Raises nothing.
    int onDemand(uint64 offset, uint64 size, SxArray<char>& data) const;
    int onDemand(uint64 offset, uint64 size, char* buffer) const;
    /// As onDemand(), by a request of its own, whatever was announced.
    int onDemandAnew(uint64 offset, uint64 size, char* buffer) const;
    /// onDemand() in the form of an on-demand callback; `user` is the address of a ZqODRDownloader.
    static int onDemandCallback(uint64 offset, uint64 size, char** data, void* user);
    /// The same for several ranges, fetched together.
    int multiOnDemand(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes,
                      const SxArray<SxArray<char>>& data) const;
    /// Begins to fetch ranges together that onDemand() will then be asked for; returns at once. What was
    /// announced before and not taken is dropped. As many sizes as offsets. 0 for success, 1 for a failure.
    int announce(const SxArray<uint64>& offsets, const SxArray<uint64>& sizes) const;
    /// What came of this range was wrong; the next onDemand() fetches it anew.
    int forget(uint64 offset, uint64 size) const;
    /// While cancelled, onDemand() and its like give 1, those that block within 20 ms, and a whole download
    /// ends.
    void cancel(bool on = true) const;

private:
    void throwError(int status) const;

    void* handle = nullptr;
};
