#pragma once

#include "TestBus.h"

#include <atomic>
#include <memory>
#include <thread>

/// A machine that can be sent to sleep: a system bus of its own, which programs started later find by the
/// environment, with a login manager on it that gives out delays and tells of the sleep. It doesn't sleep.
class TestSleep {
public:
    static std::string missing() { return TestBus::missing(); }

    TestSleep();
    ~TestSleep();

    /// Programs that hold up the sleep.
    int nDelays() const { return delays; }
    /// The login manager goes, with all that it knows, and another one comes.
    void restart();
    /// Tells that the machine is about to sleep, or has woken.
    void tell(bool sleeps);

private:
    class Manager;
    void startManager();
    void stopManager();

    TestBus bus;
    std::unique_ptr<Manager> manager;
    std::atomic<int> delays{0};
};
