#pragma once

#include "SxException.h"
#include "ZqNetPools.h"
#include "ZqTransfer.h"

#include <array>
#include <memory>

struct ZqNetSettings;
struct curl_slist;

/// A request as libcurl has it: its handle with all options, and what that tells of the answer. For the
/// network thread.
class ZqCurlRequest {
public:
    /// Called with bytes of the answer and the user's pointer; gives how many it has taken, as libcurl
    /// understands it.
    using Sink = size_t (*)(char* bytes, size_t size, size_t n, void* user);

    /// `bufferSize`: bytes that libcurl reads at once. Raises where there is no memory.
    ZqCurlRequest(const ZqTransfer::Request& request, const ZqNetSettings& settings,
                  const ZqNetPools::Place& place, long bufferSize);
    /// Lines of the head go to `header`, the body to `body`, each with `user`.
    void setSinks(Sink header, Sink body, void* user);

    CURL* get() const { return easy.get(); }
    /// Goes on with one whose sink has held it.
    void goOn();
    long getStatus() const;
    SxString getUrl() const; ///< where redirects have led
    bool isHttp1() const;
    /// From the request to its answer, in microseconds; -1 where that isn't known, or redirects were between.
    int64 getRoundTripUs() const;
    /// Of one that has ended with libcurl's result `code`.
    SxException failure(int code, int64 connectMs) const;

private:
    struct CloseEasy {
        void operator()(CURL* handle) const;
    };
    struct FreeList {
        void operator()(curl_slist* list) const;
    };
    static constexpr size_t ERROR_SIZE = 256; ///< what libcurl writes into

    void setAccess(const ZqNetSettings& settings, const SxString& url);
    void setHeaders(const ZqTransfer::Request& request);

    std::unique_ptr<curl_slist, FreeList> headers;
    std::array<char, ERROR_SIZE> errorText{};
    const std::unique_ptr<CURL, CloseEasy> easy;
};
