#pragma once

#include "SxList.h"
#include "SxString.h"

#include <atomic>

/// What goes wrong at a server that is to play a bad one. Safe from any thread.
class ZqServerFaults {
public:
    /// Several may be joined by "|". Where there is a choice a fault is the harder case for the client: a
    /// connection is closed without a word before, a shortened file keeps its ETag.
    enum Fault : unsigned {
        Stall = 1,       ///< "stall": no body goes on beyond its middle, as long as the fault is there
        Close = 2,       ///< "close": the connection is closed after each response, unannounced
        Drop10 = 4,      ///< "drop10": every tenth request's connection is closed without a response
        Short = 8,       ///< "short": half of the range that was asked for, which the response says
        WrongRange = 16, ///< "wrong-range": another range than asked for, which the response says
        Whole = 32,      ///< "200": ranges are passed over
        Truncate = 64,   ///< "truncate": files have half of their bytes, and the ETag of all
        Error500 = 128,  ///< "500": every response is one of that status
        Changed = 256,   ///< "changed": after half of its bytes were sent a file has others, and another ETag
        Login = 512,     ///< "login": every response is a page to log in to, with status 200
        Error403 = 1024  ///< "403": every response is one of that status
    };
    /// The fault of a name; raises on an unknown one.
    static Fault fromName(const SxString& name);
    static SxList<SxString> getNames();

    explicit ZqServerFaults(unsigned faults_ = 0) : faults(faults_) {}
    void set(Fault fault, bool on);
    bool has(Fault fault) const { return (faults & fault) != 0; }

private:
    std::atomic<unsigned> faults;
};
