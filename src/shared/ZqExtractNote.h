#pragma once

#include "SxList.h"
#include "SxString.h"

/// The note `extract.json` in the folder of an image that is being extracted. While files are copied it tells
/// which drive that has mounted. Before the copy gets its name it tells which folder will be the
/// installation, and what is to be done from then on. It counts only where that folder has that name: until
/// then the image is as it was, and after that all that is left is to remove it. A plain value; not locked.
class ZqExtractNote {
public:
    SxString destination;             ///< absolute host path of the installation, without a trailing slash
    uint64 device = 0, inode = 0;     ///< of that folder; 0 while files are copied
    SxString mark;                    ///< what its file MARK holds, until all is done
    uint64 drive = 0;                 ///< the disk that was mounted for it (ZqDiskStatus::madeNs)
    bool isKept = false;              ///< the image and the private files stay
    SxString folder;                  ///< the protected folder
    SxString guid;                    ///< of the application
    SxList<SxString> dirmap, filemap; ///< as app.json has them

    /// A file in the installation that tells it from any other folder of its name: an inode number comes back
    /// as soon as its folder was removed.
    static constexpr const char* MARK = "/.tavrin-extract";
    /// What the mark of a folder holds; empty where it has none.
    static SxString markOf(const SxString& folder);

    static SxString file(const SxString& image);
    static bool exists(const SxString& image);
    /// Reads that of the image folder. Raises "Failed to read file ..." with the cause.
    static ZqExtractNote read(const SxString& image);
    /// Replaces it, durably.
    void write(const SxString& image) const;
    /// Removes it, durably, where there is one.
    static void remove(const SxString& image);

    /// Whether the installation has its name.
    bool isBinding() const;
    /// Raises where the image is extracted, and only the end of that is left, saying how to go on.
    static void refuse(const SxString& image);

    bool operator==(const ZqExtractNote&) const = default;
};
