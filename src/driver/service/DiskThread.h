#pragma once

#include "SxSystemThread.h"

#include <functional>

/// A thread that does one thing for a disk. The destructor waits for it.
class DiskThread : public SxSystemThread {
public:
    DiskThread(const char* name, std::function<void()> work_) : work(std::move(work_)) {
        setThreadName(name);
    }
    ~DiskThread() override { wait(); }

protected:
    void main() override { work(); }

private:
    const std::function<void()> work;
};
