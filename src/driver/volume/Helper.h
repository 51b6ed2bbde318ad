#pragma once

#include "SxList.h"
#include "SxString.h"

#include <functional>
#include <map>
#include <vector>

/// Runs one operation of HelperOps in a process of its own: this program once more, with another main(). The
/// service must never wait for the kernel to read through a file that the service itself serves. It might not
/// answer that read, and a process that is killed in such a wait never ends. Mounting, unmounting, syncing,
/// loop and overlay calls can wait so. The helper holds no FUSE descriptor, and dies with the service.
class Helper {
public:
    /// What an operation says, by name.
    using Facts = std::map<std::string, std::string>;

    /// Runs `arguments` (the operation's name and its arguments). Where the helper takes longer than
    /// `limitMs`, `unblock` is called, which must end whatever the helper may wait for, as by ending the
    /// disk's connection. Where the helper doesn't end soon after that, it is killed. With `progress`, the
    /// limit counts from when that last gave another number. Raises what the operation raised. Safe from any
    /// thread. `files`: descriptors that the helper gets as FIRST_FILE and those after it.
    static Facts run(const SxList<SxString>& arguments, int64 limitMs, const std::function<void()>& unblock,
                     const std::function<uint64()>& progress = nullptr, const std::vector<int>& files = {});
    static constexpr int FIRST_FILE = 3;

    /// The main program of such a process: runs the operation and gives the exit code.
    static int main(int argc, char** argv);
};
