#pragma once

#include "SxList.h"
#include "SxString.h"

#include <vector>

/// The traces that runs on this machine have made in an image folder, of which only the newest stay: each
/// holds some megabytes, and nobody would ever look at all of them. The note `traces.txt` in the image folder
/// names them. It doesn't lie in the folder `traces`, since `traces/*`, as users give it to commands, would
/// name it there. A trace that came from elsewhere, that was joined of others or that is somebody's copy
/// isn't in the note and stays; the inodes in the note keep copies from being taken for a run's own. One
/// thread.
///
/// Note: a line for each folder, the oldest first: inode, blank, name. The inode is 0 while a mount is about
/// to make the folder, and stays so where that was killed.
class ZqRunTraces {
public:
    /// `image`: the image folder.
    explicit ZqRunTraces(const SxString& image);

    /// Notes that a mount is about to make the folder `path`: if the run is killed by then, it counts as one
    /// of its traces. Doesn't raise.
    void begin(const SxString& path);
    /// The mount has failed: removes what it has left of the folder. Doesn't raise.
    void drop(const SxString& path);
    /// Notes the folder `path` as the newest trace, and removes the oldest ones beyond `nMost`; 0 removes
    /// none. What holds anything but a trace, or is written at the moment, stays for good. Doesn't raise: a
    /// run goes on without it, and the log says why.
    void add(const SxString& path, int64 nMost);
    /// The names of the folders that no longer belong to the newest `nMost`; none for 0. Doesn't raise.
    SxList<SxString> getOver(int64 nMost) const;
    /// The trace in the folder named `from` has become the one named `to`; both are there still. Can be
    /// repeated.
    /// Doesn't raise.
    void follow(const SxString& from, const SxString& to);

private:
    struct Entry {
        uint64 inode;
        SxString name;
    };

    std::vector<Entry> read() const;
    void write(const std::vector<Entry>& entries) const;
    /// Whether that folder is still there.
    bool isThere(const Entry& entry) const;
    /// What there is by the note, but for that folder.
    std::vector<Entry> othersThan(const SxString& name) const;
    /// How many of `n` traces are more than `nMost`.
    static size_t countOver(size_t n, int64 nMost);
    void remove(const SxString& name) const;

    const SxString folder; ///< of the traces, with its trailing slash
    const SxString note;   ///< the file
};
