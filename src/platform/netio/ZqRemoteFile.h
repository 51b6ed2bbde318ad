#pragma once

#include "ZqNetLink.h"
#include "ZqTransfer.h"

class ZqRangeReader;

/// One file on an HTTP server (RFC 9110). Size and validator (ETag, else Last-Modified) are learned from the
/// first response; whatever differs later is an error, never data. Redirects are followed once, and later
/// requests go where they led. All operations are safe from
/// any thread. Made by SxPtr<ZqRemoteFile>::create().
class ZqRemoteFile : public std::enable_shared_from_this<ZqRemoteFile> {
public:
    static constexpr uint64 UNKNOWN = ~uint64{0};

    /// `headers` are lines "Name: value" for every request. The file must have `expectedSize` bytes, where
    /// that is given.
    ZqRemoteFile(const SxPtr<ZqNetLink>& link_, const SxString& url_, const SxArray<SxString>& headers_ = {},
                 uint64 expectedSize_ = UNKNOWN);

    const SxString& getUrl() const noexcept { return url; }
    const SxPtr<ZqNetLink>& getLink() const noexcept { return link; }
    /// Bytes of the file; UNKNOWN ahead of the first response.
    uint64 getSize() const;
    /// Replaces the headers of later requests.
    void setHeaders(const SxArray<SxString>& headers_);

    /// Fetches `size` bytes from `offset` on into `buffer`, ahead of all ordered streams. Blocks; tries again
    /// as the link's settings say. Raises SxException with the tags of ZqNetLink.
    void read(uint64 offset, uint64 size, char* buffer, const ZqStopTest& stop = nullptr);
    /// The same for a request that was begun before.
    void finish(ZqRangeReader* reader, uint64 size, char* buffer, const ZqStopTest& stop);
    /// The whole file, which must not have more than `maxSize` bytes. Needs no ranges of the server.
    SxArray<char> get(int64 maxSize, const ZqStopTest& stop = nullptr);
    /// Gets bytes in order; false ends the transfer.
    using Sink = std::function<bool(const char* bytes, int64 n)>;
    /// Streams the file from `offset` to its end to `sink`, on the calling thread and at its pace. False
    /// where `sink` ended it.
    bool stream(uint64 offset, const Sink& sink, const ZqStopTest& stop = nullptr);
    /// The whole file to `path` (host path or library path), which is replaced when all is on the device.
    /// Resumes broken transfers where they stopped.
    void fetchTo(const SxString& path, const ZqStopTest& stop = nullptr);

    /// Where requests go now, with the headers that may go there.
    struct Address {
        SxString url;
        SxArray<SxString> headers;
    };

    // For the classes that make requests.
    Address getAddress() const;
    /// Raises where `response` hasn't the status `wanted`, or an encoded body.
    void checkStatus(const ZqTransfer::Response& response, int wanted);
    /// Takes what a response says of the file, or raises where it says something else than before.
    void learn(const ZqTransfer::Response& response);
    /// Forgets where redirects led; false where they led nowhere else.
    bool forgetRedirect();

private:
    SxPtr<ZqRemoteFile> self() { return SxPtr<ZqRemoteFile>(shared_from_this()); }
    SxArray<char> getOnce(int64 maxSize, const ZqStopTest& stop);
    SxException failure(const SxException& e, const SxString& what) const;

    const SxPtr<ZqNetLink> link;
    const SxString url;
    const uint64 expectedSize;
    mutable SxMutex mutex;
    SxArray<SxString> headers SX_GUARDED_BY(mutex);
    SxString finalUrl SX_GUARDED_BY(mutex);
    SxString validator SX_GUARDED_BY(mutex);
    uint64 size SX_GUARDED_BY(mutex) = UNKNOWN;
};
