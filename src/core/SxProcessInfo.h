#pragma once

#include "SxList.h"
#include "SxString.h"

/// What the system says of a process, whoever started it. A value type.
struct SxProcessInfo {
    int64 id = -1;
    int64 parent = -1;
    int64 group = -1;     ///< id of its process group
    int64 user = -1;      ///< its effective user
    uint64 startTime = 0; ///< in ticks of the system since its boot; tells it from a later one with that id
    char state = 'X';     ///< a letter of proc(5), such as 'T' for a suspended one
    int64 waitStatus = 0; ///< as wait(2) gives it, of one that has ended and is still listed

    /// Whether it hasn't ended; one that is still listed for its parent has.
    bool isRunning() const { return state != 'Z' && state != 'X'; }
    /// Whether this program or one of its children started it, at whatever remove.
    bool isDescendant() const;

    /// Fills `info`; false where there is no such process.
    static bool get(int64 id, SxProcessInfo* info);
    /// All processes of the machine, without those that end meanwhile; none where the system tells of none.
    /// Doesn't raise. Safe from any thread.
    static SxList<SxProcessInfo> getAll();
    /// The effective user of this program.
    static int64 ownUser() noexcept;
    /// The exit code of a status of wait(2): 128 + n where signal n ended the process.
    static int exitCodeOf(int64 waitStatus) noexcept;
    /// An exit code with the signal that it stands for, as in "139 (signal SIGSEGV, Segmentation fault)".
    static SxString describeExitCode(int64 code);
};
