#pragma once

#include "SxException.h"

class SxSystemThread;

/// The end of a job at the top that has failed: nobody waits for its exception.
class ZqJobFailure {
public:
    /// Logs the failure, with `prefix` in front of it, publishes it as APP_ERROR, and keeps it in the job.
    /// Its owner asks for it there (SxSystemThread::getFailure()): the event is one for the whole process and
    /// doesn't tell whose job has failed. `path`: the image that the job worked on; `unit` and `line`: where
    /// it was caught, in the job's main(), which calls this.
    static void report(SxSystemThread* job, const SxString& prefix, const SxString& path,
                       const SxException& e, const SxString& unit, int line);
    /// The same for a job that has logged it.
    static void publish(SxSystemThread* job, const SxString& path, const SxException& e, const SxString& unit,
                        int line);
};
