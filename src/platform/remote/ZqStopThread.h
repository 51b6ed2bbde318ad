#pragma once

#include "SxSystemThread.h"
#include "ZqNetLink.h"

/// A thread that runs one function of its owner until that sees that it is to stop. start(), stop() and
/// wait() belong to the owner. Where the function waits for a condition the owner notifies that after stop().
class ZqStopThread : public SxSystemThread {
public:
    using Work = std::function<void(const ZqStopTest& isStopped)>;

    ZqStopThread(const SxString& name, Work work_) : work(std::move(work_)) { setThreadName(name); }
    void stop() noexcept { stopped = true; }

protected:
    void main() override {
        work([this] { return stopped.load(); });
    }

private:
    const Work work;
    std::atomic<bool> stopped{false};
};
