#pragma once

#include "BlockIdx.h"
#include "DriveFailure.h"
#include "DriveFile.h"

/// The stored blocks of an image, `img.zqf`, as a drive has them open: to be read, and in mode "rw" to be
/// written in place. Safe from any thread, but for open().
class StoredFile {
public:
    /// `folder_`: of the image, with its trailing slash. What may have lost writes goes to `failure_` and
    /// stops all later ones.
    StoredFile(const SxString& folder_, uint64 nIncluded_, DriveFailure* failure_);

    /// Raises, naming the file.
    void open(bool isWritten);
    int getFd() const { return file.getFd(); }
    /// What it is now, whatever has its name. Raises.
    SxStat getStat() const;
    const std::string& getPath() const { return file.getPath(); }
    /// Whether it no longer stands where it was opened: an image is what stands under its path now.
    bool isReplaced() const { return !file.isInPlace(); }
    /// That, as a sentence.
    SxString replacedText() const;
    /// Grows while a sync() under way goes on.
    uint64 getProgress() const { return file.getProgress(); }

    /// All its blocks are there, so the file's size is the image's. To be called before the last block is
    /// read.
    void noteEnd();
    /// Whether byte `from` lies in the last block, at the image's end or beyond it: only then is what the
    /// block lacks filled with zeros. A file that merely reads so, since it still grows or was cut, is longer
    /// by its size now, or by the size that it had when the last block came.
    bool isAtEnd(uint64 from) const;

    /// Whether `size` bytes of a block lie within what the file was at the start. A short last block isn't
    /// lengthened: the file's size is part of the image's records.
    bool hasRoomFor(ZqfIdx zqfIdx, uint64 size) const {
        return static_cast<uint64>(zqfIdx.byte()) + size <= sizeAtStart;
    }
    /// These give 0 or an errno value. Writes `size` bytes of blocks from `first` on.
    int write(ZqfIdx first, uint64 size, const char* data);
    /// Makes `size` bytes of a block zeros, as a hole where the file system has holes.
    int zero(ZqfIdx zqfIdx, uint64 size);
    /// Returns when all writes that were done before are on the device.
    int sync();

private:
    int stop(const char* what, int error);

    const SxString folder;
    const uint64 nIncluded;
    DriveFailure* const failure;
    DriveFile file;
    uint64 sizeAtStart = 0;     ///< bytes
    std::atomic<uint64> end{0}; ///< bytes of the whole file; 0 while some is missing
    std::atomic<bool> dirty{false};
};
