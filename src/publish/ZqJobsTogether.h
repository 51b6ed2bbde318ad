#pragma once

#include "SxSystemThread.h"

#include <vector>

/// Jobs that run at the same time, each on its thread. One thread.
class ZqJobsTogether {
public:
    ZqJobsTogether() = default;
    /// Waits for those that run.
    ~ZqJobsTogether() { join(); }
    ZqJobsTogether(const ZqJobsTogether&) = delete;
    ZqJobsTogether& operator=(const ZqJobsTogether&) = delete;

    /// Starts `job`, which outlives this object.
    void start(SxSystemThread* job) {
        job->start(6);
        jobs.push_back(job);
    }
    /// Waits for all, and raises the failure of the first that has one.
    void wait() {
        join();
        for (const SxSystemThread* job : jobs)
            if (job->hasException()) throw job->getException();
    }

private:
    void join() {
        for (SxSystemThread* job : jobs)
            job->wait();
    }

    std::vector<SxSystemThread*> jobs;
};
