#pragma once

#include "SxPtr.h"
#include "SxString.h"

/// The locks of an image folder, which keep its users apart across processes, users and machine roots: five
/// ranges of the file `image.lock` in it, as open-file-description locks, so that a dead process leaves none
/// and a closed duplicate of the descriptor drops none. A job hands its lock on by sharing the pointer.
///
/// Whoever can't have a lock says who holds it, and ends; only Record is waited for. The system doesn't tell
/// the owner of such a lock. So holders write a line into a slot of the file, and lock the slot, too.
///
/// Lock file: 48 slots of 256 bytes, each a line of text about one holder (range, mode, process, job), padded
/// with line feeds; a holder has its slot's first byte locked, so what stands in other slots is of the past.
/// A further slot has the kernel's note (see noteKernel()). After them, from byte 2^32 on, one byte for each
/// range. The file is removed only together with a folder that was made in vain; a lock on a file that no
/// longer stands under its name is taken again.
class ZqImageLock {
public:
    /// Tag of a failure: somebody else holds it, or has `img.zqf` open.
    static constexpr const char* HELD = "ImageLockHeld";

    enum Range {
        Shape,  ///< shared by mounts, runs, readers; exclusive to move, replace or remove blocks or records
        Growth, ///< exclusive for the one process that downloads into the image
        Drive,  ///< exclusive for the service that serves the image
        /// Shared by what writes into blocks of `img.zqf` for programs: a drive in mode "rw", and a move of
        /// the write layer into `img.zqf`. Exclusive to put stretches of it right, which would undo both.
        Blocks,
        /// Exclusive, for a moment, to change `stream.json`: a mount may note writes while a download notes
        /// how far it has come.
        Record
    };
    enum Mode { Shared, Exclusive };

    /// Takes the lock for `job` (a few words, shown to whoever is refused), without waiting for a holder.
    /// Raises naming the holder where it is held otherwise, and where the image is in the middle of an
    /// optimisation or a patch (see refuseUnfinished()). A replacement of the image that was cut off is
    /// brought to its end where the lock is exclusive, and else refused, too. `path` is the image folder,
    /// with or without a trailing slash; it must exist. Readers of a folder that they can't write to go
    /// without a lock: a shared one always succeeds there, unrecorded. It keeps out nobody who could change
    /// the image, but a server's read-only tree must be readable.
    ///
    /// Whoever takes Shape exclusively has closed `img.zqf` before. Where somebody else has it open, a
    /// program or the kernel, this waits for 2 s, and raises if it is still open then. Where the system can't
    /// tell (SxOs::isOpen()), it counts as closed, but where the kernel's note is there: then this raises.
    static SxPtr<ZqImageLock> take(const SxString& path, Range range, Mode mode, const SxString& job);
    /// The same for a reader that copes with an unfinished image, as `image info` does to say how to go on,
    /// but with none that is half replaced, and for a job that goes on with one. An exclusive lock on the
    /// shape is refused where the image is extracted already.
    static SxPtr<ZqImageLock> takeAnyState(const SxString& path, Range range, Mode mode, const SxString& job);
    /// The same for the command that extracts the image and goes on with the end of that.
    static SxPtr<ZqImageLock> takeExtracted(const SxString& path, Range range, Mode mode,
                                            const SxString& job);
    /// As takeAnyState(), but waits for `ms` milliseconds at most for whoever holds it.
    static SxPtr<ZqImageLock> await(const SxString& path, Range range, Mode mode, const SxString& job,
                                    int64 ms);
    /// Raises where an optimisation or a patch of the image was begun and not ended (`optimize.lock`,
    /// `patch.progress`, `patching/img.lock`), or where it is extracted and only the end of that is left
    /// (`extract.json`), saying how to go on.
    static void refuseUnfinished(const SxString& path);

    /// The same for an optimisation alone.
    static void refuseOptimisation(const SxString& path);

    /// Whether anybody has the range of the image in the folder, whoever it is; false where there is no such
    /// folder. Raises where that can't be told.
    static bool isHeld(const SxString& path, Range range);

    /// Who has that, such as "process 12 (run)", where it isn't known "another process", and empty for
    /// nobody. Raises as isHeld().
    static SxString holderOf(const SxString& path, Range range);

    /// Whether anybody has `img.zqf` open: this process, another one, or the kernel for a drive. Where that
    /// can't be told, the kernel's note decides.
    static bool isFileOpen(const SxString& path);
    /// Notes that the kernel reads `img.zqf` for a drive, for whoever can't tell whether it does: it may have
    /// got the right to change the file since. For the holder of Drive. Raises where that can't be noted.
    static void noteKernel(const SxString& path);
    /// Takes the note away unless somebody has the file open, or that can't be told.
    static void dropKernelNote(const SxString& path);

    /// Brings a replacement of the image to its end that was cut off, where there is one: for whoever takes
    /// no exclusive lock and writes all the same. Raises where it can't.
    static void finishReplacement(const SxString& path);

    ~ZqImageLock();
    ZqImageLock(const ZqImageLock&) = delete;
    ZqImageLock& operator=(const ZqImageLock&) = delete;

    /// Turns an exclusive lock into a shared one.
    void lower();

private:
    struct Key {};

public:
    /// For take() alone.
    ZqImageLock(Key, const SxString& path, Range range, Mode mode, const SxString& job);

private:
    void record(Mode mode);

    SxString folder, job;
    Range range;
    int fd = -1;
    int slot = -1;
};
