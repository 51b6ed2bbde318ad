#pragma once

#include "SxException.h"

/// What libcurl says of a request that has failed, as one of the failures of ZqNetLink.
class ZqNetFailure {
public:
    /// The failure of a request. `easy` is its handle, `code` its CURLcode, `detail` the text of its error
    /// buffer. `connectMs` is what a connection was given, in milliseconds. On the network thread.
    static SxException of(void* easy, int code, const char* detail, int64 connectMs);
};
