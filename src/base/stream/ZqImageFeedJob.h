#pragma once

#include "SxSystemThread.h"
#include "ZqImageFeed.h"

/// One piece of a feed's work on a thread of its own. What goes wrong is its exception.
class ZqImageFeed::Job : public SxSystemThread {
public:
    Job(const char* name, std::function<void()> work_) : work(std::move(work_)) { setThreadName(name); }

protected:
    void main() override { work(); }

private:
    const std::function<void()> work;
};
