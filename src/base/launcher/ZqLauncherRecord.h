#pragma once

#include "ZqFileLock.h"
#include "ZqLauncherChanges.h"
#include "ZqTries.h"

#include <functional>

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

    /// Removes what is noted in a list of an image, unless another one has it noted, too; forgets what is
    /// gone. `placeOf` gives the place of a name. What fails goes to `tries`, and stays noted.
    void removeMade(const SxString& image, SxList<SxString> ZqLauncherChanges::Image::*list,
                    SxString (*placeOf)(const SxString& name), ZqTries* tries);
    /// Takes the record, runs an undo on it, saves what is left noted, and raises what has failed.
    static void undo(const std::function<void(ZqLauncherRecord* record)>& undo);
    /// What is noted at the moment, without the lock.
    static ZqLauncherChanges peek();
    /// How an image is called here: its folder with all links resolved.
    static SxString pathOf(const SxString& image);

private:
    ZqFileLock lock;
    ZqLauncherChanges saved;
};
