#pragma once

#include "SxProcess.h"
#include "SxString.h"

#include <functional>
#include <memory>

/// A file system driver that runs as a program of the user's, for a service without root: `fuse2fs` for ext4,
/// `squashfuse` for squashfs. The volume comes up in the mount namespace of the host. The driver serves one
/// read after the other, so one that is held holds the rest. One thread at a time.
class UserDriver {
public:
    ~UserDriver() {
        stop(true, 0, [] { return 0; });
    }

    /// Mounts the file system of that type in `file` at `folder`; returns when it is there. `stopped` is
    /// asked meanwhile. Raises where the driver fails.
    void start(const SxString& type, const SxString& file, const SxString& folder, bool readOnly,
               const std::function<bool()>& stopped);
    /// Ends the program. It ends by itself when it is unmounted; with `busy` it is told to end. It then
    /// writes what it has kept, so it gets `limitMs` from when `progress` last gave another number, and is
    /// killed after that. Gives what may have kept it from writing all, as a part of a sentence; empty where
    /// nothing has.
    SxString stop(bool busy, int64 limitMs, const std::function<uint64()>& progress);

private:
    std::unique_ptr<SxProcess> process;
};
