#pragma once

#include "SxSystemThread.h"

#include <functional>
#include <memory>
#include <vector>

/// Work that is done at the same time, each piece on a thread of its own. One thread.
class ZqJobsTogether {
public:
    ZqJobsTogether() = default;
    /// Waits for what runs.
    ~ZqJobsTogether() { join(); }
    ZqJobsTogether(const ZqJobsTogether&) = delete;
    ZqJobsTogether& operator=(const ZqJobsTogether&) = delete;

    /// `name`: of the thread. What `work` uses outlives this object.
    void start(const SxString& name, std::function<void()> work) {
        jobs.push_back(std::make_unique<Job>(std::move(work)));
        jobs.back()->setThreadName(name);
        jobs.back()->start(6);
    }
    /// Waits for all, and raises the failure of the first that has one.
    void wait() {
        join();
        for (const auto& job : jobs)
            if (job->hasException()) throw job->getException();
    }

private:
    class Job : public SxSystemThread {
    public:
        explicit Job(std::function<void()> work_) : work(std::move(work_)) {}

    protected:
        void main() override { work(); }

    private:
        const std::function<void()> work;
    };

    void join() {
        for (const auto& job : jobs)
            job->wait();
    }

    std::vector<std::unique_ptr<Job>> jobs;
};
