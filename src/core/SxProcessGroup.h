#pragma once

#include "SxProcessInfo.h"

/// A process group, known by its id and its start, so that a later program can tell whether it still lives. A
/// value type. All operations are safe from any thread.
class SxProcessGroup {
public:
    /// No group.
    SxProcessGroup() = default;
    /// That of a first process which may be about to make it.
    SxProcessGroup(int64 id, uint64 startTime);
    /// The group that a process belongs to; no group where there is no such process.
    static SxProcessGroup of(int64 processId);

    /// The group's id, which is that of its first process; -1 for no group.
    int64 getId() const { return id; }
    /// When its first process started, or, where that has ended, the one that it was found by; in ticks of
    /// the system since its boot.
    uint64 getStartTime() const { return startTime; }
    bool isValid() const { return id > 0; }

    /// One line that fromText() understands, also in another program.
    SxString toText() const;
    /// No group where the text is none.
    static SxProcessGroup fromText(const SxString& text);

    /// The processes of it that haven't ended. None where the id has passed to another group, or the machine
    /// was started anew.
    SxList<SxProcessInfo> getRunning() const;
    bool isAlive() const { return !getRunning().isEmpty(); }
    /// The oldest of such processes, of which there is at least one. By its number a child of the group's
    /// first process could come before that.
    static SxProcessInfo oldestOf(const SxList<SxProcessInfo>& members);
    /// Whether one of them is suspended.
    bool isSuspended() const;

    // These do nothing where the group no longer lives, and raise where the system refuses.
    void suspend() const;
    void resume() const;
    /// Ends all processes without a chance to tidy up.
    void kill() const;

    /// Takes in the ends of those that are children of this program, but for the group's first process and
    /// `exceptId`, whose exit codes others want.
    void reap(int64 exceptId = -1) const;

    bool operator==(const SxProcessGroup&) const = default;

private:
    void signal(int number, const char* what) const;
    bool isOriginal() const;

    int64 id = -1;
    uint64 startTime = 0;
    SxString boot; ///< the machine's start
};
