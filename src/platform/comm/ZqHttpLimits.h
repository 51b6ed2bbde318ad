#pragma once

#include "SxString.h"

#include <functional>

/// What a request to a service may take, and whom it trusts.
struct ZqHttpLimits {
    int64 totalMs = 30'000;          ///< from the call to the whole answer
    int64 maxAnswer = 1 << 20;       ///< bytes of the answer's head, and of its body
    SxString trustFile, trustFolder; ///< authorities for HTTPS; empty for those of the system
    /// Asked every 20 ms; true ends the request at once, with the tag SxException::STOPPED.
    std::function<bool()> stop;
};
