#pragma once

#include "SxSymbol.h"

/// What a service has answered. A value type.
class ZqHttpResponse {
public:
    ZqHttpResponse(int status_, SxString body_) : status(status_), body(std::move(body_)) {}

    int statusCode() const noexcept { return status; }
    /// The body as it came, of whatever bytes.
    const SxString& getResponse() const noexcept { return body; }
    /// The body as JSON (RFC 8259). Raises where it is none.
    SxParserKit::SxSymbol toJSON() const;

private:
    int status;
    SxString body;
};
