#pragma once

#include "SxList.h"
#include "ZqRegistry.h"

/// What mounts have changed in the registry and in the files of launchers, and have to take back: the content
/// of `launchers.json`. A plain class; see ZqLauncherRecord for its lock.
class ZqLauncherChanges {
public:
    /// What one image's mount has changed.
    struct Image {
        SxString path;                     ///< of the image folder, with its links resolved
        SxList<ZqRegistry::State> former;  ///< of the registry, before the mount
        SxList<ZqRegistry::State> written; ///< of the same values, as the mount wrote them
        bool setsAside = false;            ///< the player's Epic manifests are saved for it
        SxList<SxString> items;            ///< names of Epic manifests that were made
        SxList<SxString> stores;           ///< store folders that were made, below that of all titles
        SxList<SxString> titles;           ///< folders of EA Origin that were made
        SxList<SxString> libraries;        ///< folders that were added to Robot Cache's list

        bool operator==(const Image&) const = default;
        bool hasEpic() const { return setsAside || !items.isEmpty() || !stores.isEmpty(); }
        bool isEmpty() const {
            return former.isEmpty() && !hasEpic() && titles.isEmpty() && libraries.isEmpty();
        }
    };

    SxList<Image> images;
    SxList<SxString> folders; ///< of the Epic launcher that were made, and go once they are empty
    /// The player's saved manifests are on their way back. From then on none of the launcher's is ours.
    bool setReturns = false;
    /// MD5 of Robot Cache's file as it was last written here; two where that may have been cut off, none
    /// where somebody else has written it.
    SxList<SxString> librariesDigests;

    bool operator==(const ZqLauncherChanges&) const = default;
    bool isEmpty() const { return images.isEmpty() && folders.isEmpty() && !setReturns; }
    /// Whether any image has a folder in Robot Cache's list.
    bool hasLibraries() const;
    bool hasEpic() const;
    /// What is noted of an image; null where nothing is. `path` as in Image.
    const Image* find(const SxString& path) const;
    /// The same, which is made where there is none. Valid until the list changes.
    Image& of(const SxString& path);
    /// Forgets images of which nothing is left.
    void tidy();
    /// Whether an image has the name, in any case, in a list; without that of `except`, where given.
    bool isNoted(SxList<SxString> Image::*list, const SxString& name, const SxString* except = nullptr) const;
    bool isOthers(const SxString& path, SxList<SxString> Image::*list, const SxString& name) const {
        return isNoted(list, name, &path);
    }

    /// Fills the record from a text; failures name it `textName`. Raises where a name would lead out of its
    /// launcher's folder.
    void readText(const SxString& text, const SxString& textName);
    SxString toText() const;
};
