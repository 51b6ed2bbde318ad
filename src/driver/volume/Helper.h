#pragma once

#include "SxList.h"
#include "SxString.h"

#include <functional>
#include <map>

/// Runs one operation of HelperOps in a process of its own. This process must never wait for the kernel to
/// read through a file that it serves itself, since it could then not answer, and a process that is killed
/// while it waits so would never end; mounting, unmounting, syncing and loop calls do just that.
class Helper {
public:
    /// What an operation says, by name.
    using Facts = std::map<std::string, std::string>;

    /// Runs `arguments` (the operation's name and its arguments). Where it takes longer than `limitMs`,
    /// `unblock` is called, which must end what it can wait for, and where that doesn't end it soon, it is
    /// killed. With `progress`, the limit counts from when that last gave another number. Raises what the
    /// operation raised. Safe from any thread.
    static Facts run(const SxList<SxString>& arguments, int64 limitMs, const std::function<void()>& unblock,
                     const std::function<uint64()>& progress = nullptr);

    /// The main program of such a process: runs the operation and gives the exit code.
    static int main(int argc, char** argv);
};
