#pragma once

#include "SxMutex.h"
#include "SxPtr.h"
#include "ZqDiskReserve.h"

#include <atomic>

class ZqFWriter;
class ZqFeedHealth;

/// The `img.zqf` that a feed completes: how much of it can be read, the room that its disk has for the rest,
/// and its writer, which is replaced where it has ended too early. A complete one has no writer.
/// setTotal(), measureDisk() and startWriter() belong to the owner's thread, before keepWriter() is called by
/// the keeper; the queries are safe from any thread. Sizes are in bytes.
class ZqGrowingImage {
public:
    /// Tells `health_` what the disk keeps it from; that must outlive this.
    ZqGrowingImage(const SxString& image_, ZqFeedHealth* health_);

    const SxString& getPath() const noexcept { return path; }
    /// How much it will be; 0 at first.
    void setTotal(uint64 nBytes) { total = nBytes; }
    /// What is there: can be read.
    uint64 size() const;
    bool isComplete() const { return size() >= total; }
    /// The end of what the writer has written; ZqImageProgress::ANY while there is none that may write.
    uint64 writeEnd() const;

    /// Measures the disk. Where it lacks room for the rest, the log says so, or it raises with `mustFit`.
    void measureDisk(bool mustFit);
    /// Raises where the disk lacks room for the first `nNeeded` bytes of the image, without which `who` can't
    /// be, with `remedy` as what to do. From measureDisk() on.
    void requireRoom(const SxString& who, uint64 nNeeded, const SxString& remedy) const;
    /// What is left of the disk to others; from measureDisk() on.
    const ZqDiskReserve& getReserve() const noexcept { return reserve; }
    /// What the disk lacks for the rest of the image, by the last look.
    uint64 getNShort() const { return nShort; }

    /// Raises where the writer can't be had.
    void startWriter();
    /// Null before startWriter().
    SxPtr<ZqFWriter> getWriter() const;

    enum Writing {
        Works,   ///< or waits for room
        Ended,   ///< all is there
        Waits,   ///< for a disk on which a new writer can begin
        Replaced ///< a new one goes on at the file's end, and must be fed from there
    };
    /// Looks after the writer and the room. Raises what can't be waited for.
    Writing keepWriter();

private:
    void lookForRoom();
    /// Of a writer that works.
    void watchWriter(const ZqFWriter& of, const SxString& roomLine);
    bool replaceWriter(ZqFWriter* old);

    const SxString image, path;
    ZqFeedHealth* const health;
    uint64 total = 0;
    ZqDiskReserve reserve;
    std::atomic<uint64> nShort{0};

    mutable SxMutex mutex;
    SxPtr<ZqFWriter> writer SX_GUARDED_BY(mutex);

    // The keeper's alone.
    int64 roomNs = 0;       ///< when room on the disk was last looked for
    int64 writerNs = 0;     ///< when a writer was last looked for
    bool lacksRoom = false; ///< the writer waits for the disk
    int nTries = 0;         ///< writers that have failed one after the other
    uint64 triedSize = 0;
};
