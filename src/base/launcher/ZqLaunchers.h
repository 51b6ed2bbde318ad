#pragma once

#include "SxException.h"
#include "SxList.h"
#include "SxString.h"

/// The launchers of this machine root, and what mounts have changed for them. A mount writes into the
/// player's own files, and its unmount takes that back. What a kill, a power cut or a hard unmount has left
/// is taken back by the next mount of any image, by an unmount, or by restore(). Safe from any thread and any
/// number of processes, which take turns.
class ZqLaunchers {
public:
    struct Launcher {
        SxString word; ///< its word in `access` of `app.json`
        bool isInstalled = false;
        SxString program; ///< empty where it isn't installed
        SxString fault;   ///< why that can't be told; empty where it can
    };
    /// All launchers that the library knows.
    static SxList<Launcher> getLaunchers();

    /// What is changed now for one image.
    struct Change {
        SxString image; ///< its folder; empty for what was set aside for none
        bool isMounted = false;
        SxList<SxString> setAside;  ///< folders of the player's
        SxList<SxString> made;      ///< files and folders
        SxList<SxString> libraries; ///< entries that were added to Robot Cache's list
        struct Value {
            SxString key, name;
            bool wasThere = false; ///< the player had such a value, which comes back
        };
        SxList<Value> registry;
    };
    /// Raises where the record of it is damaged.
    static SxList<Change> getChanges();

    struct Restored {
        SxList<SxString> images;  ///< of which everything was taken back
        bool broughtBack = false; ///< manifests that were aside for no image
        SxList<SxString> mounted; ///< that are left alone, since they are mounted
        /// What couldn't be, for each image a text that names it; it stays in the record.
        SxList<SxException> failures;
    };
    /// Takes back what is left over of images that are no longer mounted, without their drives. Raises where
    /// the record can't be read or locked.
    static Restored restore();
    /// The same for whoever does something else: what fails goes to the log.
    static void restoreQuietly();

    /// Whether a drive of the image is up, whoever serves it. Where that can't be told, it counts as mounted.
    static bool isMounted(const SxString& image);
};
