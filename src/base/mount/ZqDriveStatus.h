#pragma once

#include "SxString.h"

/// The status of the control library's functions, turned into failures.
class ZqDriveStatus {
public:
    /// The bare failure, on which others stand.
    static constexpr const char* DRIVER_ERROR = "TAVRIN Driver Error";

    /// Raises `words` unless `status` is that of success. The service's own reason, where it gives one, is
    /// the cause; so this must be the first call on the thread behind the one that gave the status.
    static void require(int status, const SxString& words, int line);
};
