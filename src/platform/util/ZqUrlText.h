#pragma once

#include "SxString.h"

/// Addresses as texts show them.
class ZqUrlText {
public:
    /// The address without what gives access: without user and password, and with "?..." in the place of what
    /// stands after a "?", where tokens may be. Control characters are made visible. For every failure, log
    /// line and report.
    static SxString of(const SxString& url);
    /// Whether `place` is an address of a web server and not a path.
    static bool isAddress(const SxString& place);
};
