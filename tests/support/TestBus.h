#pragma once

#include "SxProcess.h"
#include "TempDir.h"

#include <memory>

/// A bus of its own in the place of the machine's, or of the desktop's, which programs started later find by
/// the environment.
class TestBus {
public:
    /// Why there can't be one; empty where there can.
    static std::string missing();

    /// Gives `outcome`, of a call of sd-bus; raises what it was for where that has failed.
    static int require(int outcome, const char* what);

    /// `kind`: "system" or "session".
    explicit TestBus(const std::string& kind);
    ~TestBus();
    TestBus(const TestBus&) = delete;
    TestBus& operator=(const TestBus&) = delete;

    std::string getAddress() const { return "unix:path=" + dir.path("bus"); }
    /// From now on it takes in what comes and answers nothing, until it goes.
    void silence() { daemon->suspend(); }

private:
    TempDir dir;
    const std::string variable;
    std::unique_ptr<SxProcess> daemon;
};
