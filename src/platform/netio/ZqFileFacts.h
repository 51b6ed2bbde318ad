#pragma once

#include "SxArray.h"
#include "SxMutex.h"
#include "SxString.h"
#include "ZqTransfer.h"

/// What is known of a file on a server, and whether a response fits to that. Shared by the requests for the
/// file, which may outlive whoever made them. Safe from any thread.
class ZqFileFacts {
public:
    static constexpr uint64 UNKNOWN = ~uint64{0};

    ZqFileFacts(const SxString& url_, const SxArray<SxString>& headers_, uint64 expectedSize_)
        : url(url_),
          expectedSize(expectedSize_),
          headers(headers_) {}

    const SxString& getUrl() const noexcept { return url; }
    uint64 getSize() const;
    void setHeaders(const SxArray<SxString>& headers_);

    /// The file may be missing: a 403 tells that, too, as from stores that don't list their files.
    void allowAbsence();

    /// Where requests go now, with the headers that may go there.
    struct Address {
        SxString url;
        SxArray<SxString> headers;
    };
    Address getAddress() const;
    /// The next response is the first again.
    void forget();
    /// Raises where `response` hasn't the status `wanted`, or an encoded body.
    void checkStatus(const ZqTransfer::Response& response, int wanted);
    /// Takes what a response says of the file, or raises where it says something else than before.
    void learn(const ZqTransfer::Response& response);

private:
    bool forgetRedirect();
    bool mayBeAbsent() const;

    const SxString url;
    const uint64 expectedSize;
    mutable SxMutex mutex;
    SxArray<SxString> headers SX_GUARDED_BY(mutex);
    SxString finalUrl SX_GUARDED_BY(mutex); ///< where redirects have led; empty where they led nowhere else
    SxString validator SX_GUARDED_BY(mutex);
    uint64 size SX_GUARDED_BY(mutex) = UNKNOWN;
    bool isOptional SX_GUARDED_BY(mutex) = false;
};
