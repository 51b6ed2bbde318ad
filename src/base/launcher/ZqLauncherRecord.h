#pragma once

#include "SxException.h"
#include "SxPtr.h"
#include "ZqFileLock.h"
#include "ZqLauncherChanges.h"

/// The record of what mounts have changed for launchers, `C:/ProgramData/TAVRIN/launchers.json`, held under
/// its lock, so that mounts, unmounts and restores of one machine root go one after the other. Whoever
/// changes something notes it here and saves that before the first change, and forgets it after the last one
/// has been taken back: so whatever is killed in between can be taken back by the next. One thread.
class ZqLauncherRecord {
public:
    /// Takes the lock, for which it waits up to LOCK_MS, and reads the record. Raises where it can't have the
    /// lock, and where the record is damaged, naming the file.
    ZqLauncherRecord();
    ~ZqLauncherRecord();
    ZqLauncherRecord(const ZqLauncherRecord&) = delete;
    ZqLauncherRecord& operator=(const ZqLauncherRecord&) = delete;

    static constexpr int64 LOCK_MS = 150'000;
    static constexpr const char* FILE = "C:/ProgramData/TAVRIN/launchers.json";

    ZqLauncherChanges changes;

    /// Makes the record durable, or removes it where nothing is noted. Does nothing where nothing has changed
    /// since it was read or saved.
    void save();

    /// What is noted at the moment, without the lock.
    static ZqLauncherChanges peek();
    /// How an image is called here: its folder with all links resolved.
    static SxString pathOf(const SxString& image);

private:
    ZqFileLock lock;
    ZqLauncherChanges saved;
};

/// Keeps what goes wrong while several things are tried, so that a failure of one doesn't keep the rest from
/// being tried.
class ZqTries {
public:
    /// Gives whether `attempt` succeeded.
    template<class Attempt>
    bool run(Attempt&& attempt) {
        try {
            attempt();
            return true;
        } catch (const SxException& e) {
            failures.append(e);
            return false;
        }
    }
    const SxList<SxException>& getFailures() const { return failures; }
    /// Raises the failure, or one with the texts of all.
    void raise() const;

private:
    SxList<SxException> failures;
};
