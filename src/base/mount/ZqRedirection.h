#pragma once

#include "SxList.h"
#include "SxString.h"

#include <vector>

class ZqAppParams;

/// The folders and files of one application that are redirected from its drive to the machine's private side,
/// `C:/ProgramData/TAVRIN/<guid>/<protected folder>`, where they outlive a mount. The names come with the
/// image and may be hostile: none leads out of its folder, on either side. A value type.
class ZqRedirection {
public:
    /// Takes the names from the record. Raises, naming the entry, where the guid isn't a plain name, or an
    /// entry is empty, absolute, or holds a drive letter, "..", a comma (which separates the names in the
    /// guard's list) or a NUL. Backslashes become slashes.
    explicit ZqRedirection(const ZqAppParams& app);
    /// Whether a guid is a plain name, as that of every application with a private side is.
    static bool isName(const SxString& guid);

    struct Item {
        SxString name; ///< relative to the protected folder, with slashes only
        bool isFolder;
    };

    bool isEmpty() const noexcept { return folders.isEmpty() && files.isEmpty(); }
    /// The private side of the application; of no meaning where its guid isn't a plain name.
    const SxString& getDirectory() const noexcept { return directory; }
    /// All names, folders first, joined by commas, as the guard takes them.
    SxString getNames() const;
    /// All of them, folders first, and of these one before those in it.
    std::vector<Item> getItems() const;
    /// Whether the item stands in the protected folder `side`, of the drive or of the private side. A mark
    /// that it was removed is none. Raises as prepare() does where a link stands in its path, or something
    /// else in its place.
    static bool has(const SxString& side, const Item& item);
    /// Lays out the private side: what isn't there yet is copied from the drive's protected folder, whole or
    /// not at all; a file that the drive lacks is made empty. What is there stays. Raises, naming the path:
    /// where a link stands in the path of a name, or a file where `dirmap` wants a folder, or the other way
    /// round, on either side; and, without waiting, where another mount does the same for that application.
    void prepare(const SxString& mountPoint) const;

private:
    SxString directory;
    SxList<SxString> folders, files;
};
