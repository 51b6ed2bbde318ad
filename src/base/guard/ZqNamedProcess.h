#pragma once

#include "SxProcess.h"
#include "SxProcessGroup.h"
#include "SxPtr.h"

#include <functional>

struct SxProcessInfo;

/// The process of an application that its command, a launcher, starts: known by its name alone, which others
/// may bear. Only what that command can have started is found. Safe from any thread.
class ZqNamedProcess {
public:
    ZqNamedProcess(SxString name_, SxPtr<SxProcess> command_)
        : name(std::move(name_)),
          command(std::move(command_)) {}

    /// The process of that name: one of the command's group first, then any that descends from this program,
    /// then any of the user that started since; -1 if there is none.
    int64 find() const;
    /// Waits for it up to `limitMs`, or for the stop.
    int64 await(int64 limitMs, const std::function<bool()>& isStopped) const;
    /// The group of a process, if all of that can be the application's; else no group.
    SxProcessGroup groupOf(int64 id) const;

private:
    bool isOurs(const SxProcessInfo& info) const;

    const SxString name;
    const SxPtr<SxProcess> command;
};
