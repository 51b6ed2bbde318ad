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
    /// Takes back what is noted of the image, and the last time what was set aside. Goes on after a failure,
    /// of which it raises the text at the end; what has failed stays noted. The record is to be saved after
    /// it.
    void undo(const SxString& image);
    /// Raises where the entries of the drive can't be read, in the words of a clean-up.
    static void requireEntries(const SxString& mntPoint);

    /// Sets the manifests aside, and brings them back, for no image.
    void store();
    void restore();

    /// Closes the launcher of this machine root, since it would go on with what it has read: asks its window
    /// to close, and ends its process.
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
    void storeFor(const SxString& image);
    void setAside(const SxString& image);
    void returnSet();
    void copyStore(const SxString& image, const ZqEpicParams& params);
    void removeFolders();

    ZqLauncherRecord* const record;
};
