#pragma once

#include "SxProcess.h"
#include "TempDir.h"

#include <memory>

/// A display without a screen (Xvfb), with the window manager openbox, that DISPLAY names while the object
/// lives.
class TestDisplay {
public:
    /// Why there can be none on this machine; empty where there can.
    static std::string missing();

    TestDisplay();
    ~TestDisplay();
    TestDisplay(const TestDisplay&) = delete;
    TestDisplay& operator=(const TestDisplay&) = delete;

private:
    const TempDir dir;
    std::unique_ptr<SxProcess> server, manager;
};
