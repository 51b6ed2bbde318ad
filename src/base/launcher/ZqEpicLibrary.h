#pragma once

#include "ZqEpicParams.h"
#include "ZqLauncherRecord.h"

#include <vector>

/// The picture that the Epic Games Launcher has of the titles on this machine, changed for the time of a
/// mount: the player's manifests are set aside, and those of the mounted title take their place. Everything
/// is noted in the record before it is done, so that it can be undone without the drive. One thread; the
/// record outlives this.
class ZqEpicLibrary {
public:
    explicit ZqEpicLibrary(ZqLauncherRecord* record_) : record(record_) {}

    /// Makes the entries of the title on the drive `mntPoint` for `image`, a path as the record has it; gives
    /// those of the main title. Raises where something can't be read or written; what was done until then is
    /// noted.
    ZqEpicParams make(const SxString& image, const SxString& mntPoint);
    /// Takes back what is noted of the image, and, where no other one is left, what was set aside. Goes on
    /// after a failure, of which it raises the text at the end; what has failed stays noted. The record is to
    /// be saved after it.
    void undo(const SxString& image);
    /// Raises where the entries of the drive can't be read, in the words of a clean-up.
    static void requireEntries(const SxString& mntPoint);

    /// Sets the player's manifests aside for an image, or, with an empty one, for none. Where a set is saved
    /// already, what has come since and belongs to no mounted title joins it.
    void setAside(const SxString& image);
    /// Brings the set back where no image needs it aside, also one that nobody has noted.
    void bringBack();
    /// Removes the folders that were made for the launcher, as far as they are empty, once no image has
    /// anything there.
    void removeFolders();

    /// Closes the launcher of this machine root, since it would go on with what it has read: asks its window
    /// to close, waits a little, and ends its process.
    static void closeLauncher();

private:
    struct Entry {
        SxString file;
        ZqEpicParams params;
        bool isMain = false;
    };
    /// The manifests that the drive brings.
    class Entries;

    void note(const SxString& image, const Entries& entries);
    void noteFolders(const SxString& folder);
    SxList<SxString> findPlayers(bool* hasOthers) const;
    void copyStore(const SxString& image, const ZqEpicParams& params);
    void returnSet();
    bool joinRest();

    ZqLauncherRecord* const record;
};
