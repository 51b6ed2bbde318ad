#pragma once

#include "SxOs.h"

#include <atomic>
#include <string>

/// One open plain file of the image folder, read and written at offsets by any number of threads. Closed by
/// the destructor.
class DriveFile {
public:
    DriveFile() = default;
    ~DriveFile() { close(); }
    DriveFile(const DriveFile&) = delete;
    DriveFile& operator=(const DriveFile&) = delete;

    /// Opens a host path with SxOs flags. Raises, naming the path, also on anything but a plain file.
    void open(const std::string& path_, unsigned flags);
    /// The same for the last name of the path in an open folder, wherever that has been moved to.
    void openIn(int folder, const std::string& path_, unsigned flags);
    /// Takes over what `other` has open, closing what is open here; a path that is known here stays.
    void adopt(DriveFile* other);
    void close();
    bool isOpen() const { return fd >= 0; }
    int getFd() const { return fd; }
    const std::string& getPath() const { return path; }

    /// Whether the file still stands under its path. Its number tells: while the file is open, no other one
    /// can be given that.
    bool isInPlace() const;
    /// Bytes now. Raises.
    uint64 getSize() const;
    int64 readAt(void* buffer, uint64 n, uint64 offset) const;
    /// Gives 0 where all `n` bytes are written, else an errno value.
    int writeAt(const void* buffer, uint64 n, uint64 offset) const;
    /// Has the next sync() bring these bytes to the disk in steps, too, whoever wrote them.
    void noteWritten(uint64 begin, uint64 end) const;
    /// Gives 0 or an errno value.
    int sync() const;
    /// Grows with the bytes that a sync() under way has brought to the disk. While a write or a sync is under
    /// way it also grows with each MiB that the same disk has written for whatever program, as seen by these
    /// calls: a file system commits what several programs have written together, so ours may wait for theirs.
    /// That counts for ten minutes from the last step of our own; beyond that it isn't theirs that we wait
    /// for.
    uint64 getProgress() const {
        if (nUnderWay.load() != 0) lookAtDevice();
        return nSynced.load();
    }

    /// The failure of an operation on this file, in words, to be raised.
    [[noreturn]] void raise(const SxString& what, int64 error, const char* unit, int line) const;

private:
    void take(int opened);
    int writeBackInSteps() const;
    void lookAtDevice() const;

    int fd = -1;
    std::string path;
    std::atomic<uint64> device{0}; ///< that the file lies on, noted when it is opened
    // What was written since the last sync lies within.
    mutable std::atomic<uint64> dirtyBegin{~uint64{0}}, dirtyEnd{0}, nDirty{0};
    mutable std::atomic<uint64> nSynced{0};
    mutable std::atomic<int64> nUnderWay{0}; ///< writes and syncs
    mutable std::atomic<int64> stepNs{0};    ///< time of the last step of our own
    mutable std::atomic<uint64> nSectors{0}; ///< that the disk had written when that last counted
};
