#pragma once

#include "SxException.h"

/// The end of a job at the top that has failed: nobody waits for its exception.
class ZqJobFailure {
public:
    /// Logs the failure behind `prefix`, and publishes it as APP_ERROR. `path`: the image that the job worked
    /// on; `unit` and `line`: where it was caught, in the job's main(). Safe from any thread.
    static void report(const SxString& prefix, const SxString& path, const SxException& e,
                       const SxString& unit, int line);
};
