#pragma once

#include "SxString.h"

/// Addresses as texts show them.
class ZqUrlText {
public:
    /// The address without what lets one in: user and password, and what stands after a "?", as tokens do,
    /// of which "?..." is left. Control characters are made visible. For every failure, log line and report.
    static SxString of(const SxString& url);
};
