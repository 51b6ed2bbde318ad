#pragma once

#include "SxList.h"
#include "SxMap.h"
#include "SxString.h"

/// Where reports go: the address of a statistics service and the headers of each request, as a user has named
/// them. A later report has neither the record's id nor the token that the service gave for it. So `{{ID}}`
/// and `{{TOKEN}}` in address and headers stand for them, wherever a service wants them. A value type.
class ZqReportTarget {
public:
    /// What a request is sent with.
    struct Filled {
        SxString url;
        SxMap<SxString, SxString> headers;
    };

    ZqReportTarget() = default;
    /// `headers_`: lines "NAME: VALUE". Raises where a line isn't one, a name is there twice, or something
    /// can't be sent (ZqHttp::check); `{{ID}}` and `{{TOKEN}}` may not be a part of the host.
    ZqReportTarget(const SxString& url_, const SxList<SxString>& headers_);

    const SxString& getUrl() const noexcept { return url; }
    const SxList<SxString>& getHeaders() const noexcept { return lines; }
    /// Whether requests name the service's token.
    bool needsToken() const;
    /// Address and headers of a report, with `id` and `token` put in: percent-encoded in the address (RFC
    /// 3986), as they are in headers. The first report may be sent before there is a token, and then has an
    /// empty text in its place. Raises where an update needs a token and there is none, and where a header
    /// can't be sent with what was put in.
    Filled fill(const SxString& id, const SxString& token, bool update) const;

    bool operator==(const ZqReportTarget&) const = default;

private:
    SxString url;
    SxList<SxString> lines;
};
