#pragma once

#include "SxSystemThread.h"

#include <functional>

/// One piece of a feed's work on a thread of its own. What goes wrong is its exception.
class ZqFeedJob : public SxSystemThread {
public:
    ZqFeedJob(const char* name, std::function<void()> work_) : work(std::move(work_)) { setThreadName(name); }

protected:
    void main() override { work(); }

private:
    const std::function<void()> work;
};
