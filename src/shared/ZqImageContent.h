#pragma once

#include "SxList.h"
#include "SxString.h"

/// What an image folder holds, by its names: the image's own files, whatever made them, and those that
/// somebody else has put there. Looks once, when it is made; links are never followed, and count by their
/// names. Sizes in bytes.
class ZqImageContent {
public:
    /// Raises where the folder can't be read.
    explicit ZqImageContent(const SxString& image);

    int64 getNFiles() const noexcept { return nFiles; }
    /// What the own files take on the disk.
    uint64 getNBytes() const noexcept { return nBytes; }
    /// Files, links, empty folders and the like that aren't the image's.
    int64 getNForeign() const noexcept { return nForeign; }

    /// Removes the own files, and the folders of theirs that are empty then, but for the folder itself. The
    /// record of the application and the lock file go last, so that a removal that was cut off can be begun
    /// again. Raises naming what can't be removed.
    void remove() const;

private:
    /// What of a folder is the image's: nothing, all of it, or what has the names that are written there.
    enum Within { Others, Whole, Runs, Traces, Trace };

    void lookInto(const SxString& path, Within within);
    void take(const SxString& path, bool isOwn);

    const SxString folder;           ///< with a slash at the end
    SxList<SxString> files, folders; ///< own ones, in the order in which they go
    SxList<SxString> last;           ///< those that go after all others
    int64 nFiles = 0, nForeign = 0;
    uint64 nBytes = 0;
};
