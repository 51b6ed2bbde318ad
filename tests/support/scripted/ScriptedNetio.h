#pragma once

#include "SxTypes.h"

#include <atomic>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

/// Stands in the place of the download functions, on the clock in force. Calls are noted in order, those of
/// several threads at once in any. In force from construction to destruction.
class ScriptedNetio {
public:
    ScriptedNetio();
    ~ScriptedNetio();
    ScriptedNetio(const ScriptedNetio&) = delete;
    ScriptedNetio& operator=(const ScriptedNetio&) = delete;

    static ScriptedNetio& get();

    /// Fills a range; gives the status of the request.
    std::function<int(uint64 offset, uint64 size, char* data)> fetch;
    int64 latencyMs = 20; ///< of each request
    std::atomic<bool> cancelled{false};
    std::string lastError = "the server is gone";
    std::vector<std::string> notes;
    std::mutex notesMutex;
};
