#pragma once

#include "TestBus.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

struct sd_bus;

/// A desktop that shows notifications: the service of the session bus that takes them in.
class TestNotifications {
public:
    struct Shown {
        uint32 replaced = 0; ///< the id that it took the place of
        std::string title, text;
    };

    explicit TestNotifications(const TestBus& bus);
    ~TestNotifications();
    TestNotifications(const TestNotifications&) = delete;
    TestNotifications& operator=(const TestNotifications&) = delete;

    /// All that were shown, in order; their ids are 1, 2 and so on where they replaced none.
    std::vector<Shown> getShown() const;
    /// Whether the last one was taken away.
    bool isClosed() const { return closed; }

private:
    struct Calls;
    void serve();

    sd_bus* bus = nullptr;
    std::atomic<bool> stopping{false}, closed{false};
    mutable std::mutex mutex;
    std::vector<Shown> shown;
    std::thread thread;
};
