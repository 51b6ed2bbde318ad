#include "SxClock.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace {

class MachineClock : public SxClock {
public:
    int64 systemMs() override {
        using namespace std::chrono;
        return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
    }
    int64 steadyNs() override {
        using namespace std::chrono;
        return duration_cast<nanoseconds>(steady_clock::now().time_since_epoch()).count();
    }
    void sleepNs(int64 ns) override {
        if (ns > 0) std::this_thread::sleep_for(std::chrono::nanoseconds(ns));
    }
};

MachineClock machineClock;
std::atomic<SxClock*> current{&machineClock};

} // namespace

SxClock& SxClock::get() noexcept {
    return *current.load(std::memory_order_acquire);
}

void SxClock::set(SxClock* clock) noexcept {
    current.store(clock ? clock : &machineClock, std::memory_order_release);
}
