#pragma once

#include "SxMap.h"
#include "SxPtr.h"
#include "ZqHttpLimits.h"
#include "ZqHttpResponse.h"

/// Requests to a service, over HTTP and HTTPS (RFC 9110). Each is one try over a connection of its own;
/// redirects aren't followed, so that a body never goes to another address than the one that was named.
/// Certificates are verified. Any status is an answer; what is no whole answer within the limits raises, and
/// so does a stop. No log line and no failure has of a request more than its method, host and port. All
/// operations are safe from any thread.
class ZqHttp {
public:
    using Headers = SxMap<SxString, SxString>;

    /// Sends `body` and blocks until the answer is there. Its type is `application/json` unless a header
    /// says otherwise.
    static SxPtr<ZqHttpResponse> POST(const SxString& url, const Headers& headers, const SxString& body,
                                      const ZqHttpLimits& limits = {});
    static SxPtr<ZqHttpResponse> PATCH(const SxString& url, const Headers& headers, const SxString& body,
                                       const ZqHttpLimits& limits = {});
    /// Raises where an address or a header can't be sent: no address of a web server, a name that is no
    /// token, a control character, which could begin a header of its own.
    static void check(const SxString& url, const Headers& headers);
};
