#pragma once

#include "SxException.h"
#include "ZqFileFacts.h"
#include "ZqNetRetry.h"

#include <atomic>

class ZqRangeReader;

/// One file on an HTTP server (RFC 9110). Size and validators are learned from the first response; whatever
/// differs later is an error, never data, see ZqFileFacts, also for where redirects lead. All operations are
/// safe from any thread.
class ZqRemoteFile {
public:
    static constexpr uint64 UNKNOWN = ZqFileFacts::UNKNOWN;

    /// `headers` are lines "Name: value" for every request. The file must have `expectedSize` bytes, where
    /// that is given.
    ZqRemoteFile(const SxPtr<ZqNetLink>& link_, const SxString& url, const SxArray<SxString>& headers = {},
                 uint64 expectedSize = UNKNOWN);

    /// The address of a file in a folder, whose address may lack the slash at its end. What stands after a
    /// "?" there, as an access token does, stands after the file's name, too.
    static SxString urlIn(const SxString& folderUrl, const SxString& name);

    const SxString& getUrl() const noexcept { return facts->getUrl(); }
    const SxPtr<ZqNetLink>& getLink() const noexcept { return link; }
    /// Bytes of the file; UNKNOWN before the first response.
    uint64 getSize() const { return facts->getSize(); }
    /// Replaces the headers of later requests.
    void setHeaders(const SxArray<SxString>& headers) { facts->setHeaders(headers); }

    /// Lets later requests go over connections of their own and past what caches hold, since what came before
    /// was wrong.
    void setFresh() { isFresh = true; }
    /// Lets the failures of later requests count with those of others that bring the same in turns. Then they
    /// are for one thread.
    void setRetry(const SxPtr<ZqNetRetry>& retry_) { retry = retry_; }

    /// Fetches `size` bytes from `offset` on into `buffer`; all ordered streams are held for that. Blocks;
    /// tries again as the link's settings say. Raises SxException with the tags of ZqNetLink.
    void read(uint64 offset, uint64 size, char* buffer, const ZqStopTest& stop = nullptr);
    /// The same for a request that was begun before.
    void finish(ZqRangeReader* reader, uint64 size, char* buffer, const ZqStopTest& stop);
    /// The whole file, which must not have more than `maxSize` bytes. Needs no ranges of the server. OnDemand
    /// where somebody waits for it, so that a dead connection costs little.
    SxArray<char> get(int64 maxSize, const ZqStopTest& stop = nullptr,
                      ZqTransfer::Kind kind = ZqTransfer::Kind::Small);
    /// Gets bytes in order; false ends the transfer.
    using Sink = std::function<bool(const char* bytes, int64 n)>;
    /// Streams the file from `offset` to its end to `sink`, on the calling thread and at its pace. False
    /// where `sink` ended it.
    bool stream(uint64 offset, const Sink& sink, const ZqStopTest& stop = nullptr);
    /// The whole file to `path` (host path or library path), which is replaced when all is on the device.
    /// Resumes broken transfers where they stopped. The file must not have more than `maxSize` bytes, where
    /// that is given.
    void fetchTo(const SxString& path, const ZqStopTest& stop = nullptr, uint64 maxSize = UNKNOWN);

    const SxPtr<ZqFileFacts>& getFacts() const noexcept { return facts; }

private:
    void prepare(ZqRangeReader* reader) const;
    void requireNoMore(uint64 n, uint64 maxSize) const;
    SxException failure(const SxException& e, const SxString& what) const;

    const SxPtr<ZqNetLink> link;
    const SxPtr<ZqFileFacts> facts;
    std::atomic<bool> isFresh{false};
    SxPtr<ZqNetRetry> retry; ///< null where each request has its own
};
