#pragma once

#include "SxProcessInfo.h"

#include <optional>

/// A process that was started elsewhere, followed to its end by a handle of the system, which never passes to
/// a later process with the same id. One thread.
class SxOtherProcess {
public:
    /// `id`: any process, or -1.
    explicit SxOtherProcess(int64 id);
    ~SxOtherProcess();
    SxOtherProcess(const SxOtherProcess&) = delete;
    SxOtherProcess& operator=(const SxOtherProcess&) = delete;

    int64 getId() const { return info.id; }
    /// Whether the system gave a handle.
    bool isOpen() const { return fd >= 0; }
    bool isRunning() const;
    /// The exit code of one that has ended, as SxProcess::wait() gives it. Nothing where the system doesn't
    /// tell, with the reason in `error`, an errno value: it tells of a child, one adopted (SxAdoption)
    /// included; of one whose parent doesn't ask for it; and from Linux 6.15 on of any that was followed.
    std::optional<int> exitCode(int64* error) const;
    // These do nothing where it has ended, and raise where the system refuses, or gave no handle.
    void suspend() const;
    void resume() const;
    /// Takes in the end of a child, which is forgotten then.
    void reap() const;

private:
    void signal(int number, const char* what) const;

    SxProcessInfo info;
    int fd = -1;
};

/// While one of these lives, a process whose parent ends becomes a child of this program, if this program or
/// one of its children started it. So the exit code of what a launcher leaves running can be had. It holds
/// for the whole program; safe from any thread.
class SxAdoption {
public:
    SxAdoption();
    ~SxAdoption();
    SxAdoption(const SxAdoption&) = delete;
    SxAdoption& operator=(const SxAdoption&) = delete;
};
