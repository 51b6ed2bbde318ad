#pragma once

#include "DiskFolder.h"
#include "DiskThread.h"
#include "FuseFront.h"
#include "ReadAhead.h"
#include "SxList.h"
#include "VirtualDisk.h"

#include <functional>

/// The regular work on a disk, each on a thread of its own: one whose disk is stuck holds up no other one. It
/// sets the read-ahead and the cache size, has the disk write what it has gathered, gives room back, tells
/// faults in the log, and notices when somebody else has unmounted the drive. The owner's thread makes,
/// starts and destroys it; the rest is for any thread.
class Upkeep {
public:
    /// What it asks of the disk's owner, and tells it; called on the upkeep's thread.
    struct Ties {
        std::function<bool()> isMounted;
        std::function<bool()> isGone;   ///< the work ends then
        std::function<bool()> isDirect; ///< the kernel serves the volume, which lies on no file of ours
        /// Somebody has unmounted the drive, for all that is known. Gives whether that is taken care of;
        /// else it is told of it again.
        std::function<bool(const SxString& why)> onUnmounted;
    };
    /// What is worked on; all must outlive the object.
    struct Parts {
        const SxString& image; ///< as the log names it
        const DiskFolder& folder;
        const FuseFront& front;
        VirtualDisk& disk;
        ReadAhead& readAhead;
    };

    Upkeep(const Parts& parts_, uint64 cacheSize_, Ties ties_);
    ~Upkeep() { stopping = true; }

    void start() { thread.start(); }
    bool isRunning() const { return thread.isRunning(); }
    /// How many bytes of delivered blocks stay in memory, within moments: the rest goes into a file, and its
    /// disk may be stuck.
    void setCacheSize(uint64 bytes) { cacheSize = bytes; }
    /// Whether the image was removed or replaced, at the last look.
    bool isReplaced() const { return replaced; }
    /// The file lies under a loop device, whose requests are few.
    void noteLoop() { hasLoop = true; }
    /// Tells a fault in the log, each once.
    void logOnce(const SxString& text);

private:
    void run();
    void tick();
    const char* findUnmounted() const;
    void noticeEnd();
    void applyCacheSize();
    void watchHeld();

    const Parts parts;
    const Ties ties;
    std::atomic<uint64> cacheSize; ///< bytes
    std::atomic<bool> replaced{false}, hasLoop{false}, stopping{false};
    // The thread's alone.
    uint64 appliedCacheSize;
    int64 lastLookNs = 0; ///< at the mounts
    bool isEndNoticed = false, isNearlyFull = false;

    SxMutex mutex;
    SxList<SxString> logged SX_GUARDED_BY(mutex); ///< faults that the log has
    DiskThread thread;                            ///< which ends before all others are destroyed
};
