#pragma once

#include "SxString.h"

#include <functional>

/// How much of a file that grows by a download is sure to be on the device. This is noted beside it, in a
/// file of its name and ".synced", together with the start of the machine that wrote the note.
///
/// While the machine runs, all bytes of the file can be believed, also after the writer was killed. After
/// another start only those that are noted can, since a power cut may leave a file of the right size with
/// anything in it. A file without a note is believed as a whole. Where a sync has failed, the device has lost
/// bytes, which are in memory at best; so the note stays as it is until the machine starts again. Where the
/// machine has no id of its start, the start of the process is taken.
///
/// Where the file is a whole image by now, for instance one that was copied over it, the note doesn't count.
/// Nothing but the content tells whether it is still the file that was noted: not all file systems keep an
/// inode's number over a mount. Not locked: whoever changes the file holds the image. Sizes are in bytes.
class ZqSyncedSize {
public:
    explicit ZqSyncedSize(SxString file_) : file(std::move(file_)) {}

    /// How many of `size` bytes, which the file has, can be believed. Where the note says less, and the file
    /// has the size that the `app.json` beside it states, its digest decides: it is read to its end, which
    /// `stop` may break off, and noted if it is right.
    uint64 believed(uint64 size, const std::function<bool()>& stop = nullptr) const;
    /// Cuts the file back to what can be believed, and says so in the log; gives how many bytes have gone.
    /// For who downloads, before the first look at the file's size. A file that a link leads to is left
    /// alone. Raises where the file can't be cut, and after a stop.
    uint64 cutBack(const std::function<bool()>& stop = nullptr) const;
    /// Whether the file, which has `size` bytes, is all of the image of the `app.json` beside it, by
    /// whichever way that came: its digest says so, or it did when it was complete. Raises where that can't
    /// be read, and after a stop.
    bool isWholeImage(uint64 size, const std::function<bool()>& stop) const;
    /// Makes the note right for a file that has `size` bytes and is about to grow. Raises where it can't be
    /// written.
    void begin(uint64 size) const;
    /// Notes that the first `size` bytes are on the device. Raises where it can't be written.
    void note(uint64 size) const;
    /// A sync has failed: nothing more is noted of the file, by whichever writer, while this machine runs.
    void noteLoss() const;
    /// Whether that was noted.
    bool hasLoss() const;
    /// As note() where there is a note, of a file that is complete.
    void noteComplete(uint64 size) const;

private:
    struct Note {
        bool exists = false;
        uint64 size = 0;
        std::string boot;    ///< empty where it isn't known
        bool isLost = false; ///< some of the bytes after these are known to be

        bool isOfThisStart() const;
    };

    /// A file of its own: `stream.json` is changed by others meanwhile.
    SxString noteFile() const;
    SxString folder() const;
    Note read() const;
    void write(const Note& note) const;

    const SxString file;
};
