#pragma once

#include "SxString.h"

#include <vector>

/// The traces that runs on this machine have made in an image folder, of which only the newest stay: each
/// holds some megabytes, and nobody would ever look at all of them. The note `traces.txt` in the image folder
/// names them. A trace that came from elsewhere, was joined of others or is somebody's copy isn't in it and
/// stays: the note tells a folder by its inode, too. One thread.
///
/// Note: a line for each folder, the oldest first: inode, blank, name.
class ZqRunTraces {
public:
    /// In the image folder, and not beside the traces, where `traces/*` would name it.
    static constexpr const char* NOTE = "traces.txt";

    /// `image`: the image folder.
    explicit ZqRunTraces(const SxString& image);

    /// Notes the folder `path` as the newest trace, and removes the oldest ones beyond `nMost`; 0 removes
    /// none. What holds anything but a trace, or is written at the moment, stays for good. Doesn't raise: a
    /// run goes on without it, and the log says why.
    void add(const SxString& path, int64 nMost);

private:
    struct Entry {
        uint64 inode;
        SxString name;
    };

    std::vector<Entry> read() const;
    void write(const std::vector<Entry>& entries) const;
    /// Whether that folder is still there.
    bool isThere(const Entry& entry) const;
    void remove(const Entry& entry) const;

    const SxString folder; ///< of the traces, with its trailing slash
    const SxString note;   ///< the file
};
