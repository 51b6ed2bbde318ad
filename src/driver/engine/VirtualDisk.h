#pragma once

#include "BlockMap.h"
#include "DiskConfig.h"
#include "DiskReader.h"
#include "DiskWriter.h"
#include "DriveFailure.h"
#include "PendingRequests.h"
#include "ReadCount.h"
#include "StoredFile.h"
#include "TraceRecorder.h"
#include "UnderflowStore.h"
#include "WriteLayer.h"

#include <optional>
#include <vector>

/// One disk of the drive service: serves the RAW order of an image from its stored blocks, those that are
/// there already, those that were delivered on demand, and the write layer. It knows nothing of how it is
/// shown to the kernel.
///
/// A request for which `img.zqf` comes short below the cursor is held, too, and tried again for some seconds
/// before it fails: the size by which the cursor was moved may be more than reads give.
///
/// All operations are safe from any thread. Reads and writes never wait for a missing block or for a resume:
/// the request is held by its token, without a thread, and its owner is woken to try again.
class VirtualDisk {
public:
    using Config = DiskConfig;
    enum class Result { Done, Held, Failed };
    /// Tells that the held request `token` should be tried again. Called without a lock held, from whatever
    /// thread made the request complete, perhaps before the call that is to give Held has returned.
    using Wake = PendingRequests::Wake;

    /// Opens `img.zqf`, `img.idx` and a write layer that is there. Raises, naming the file and the fault.
    VirtualDisk(const Config& config, Wake wake);
    ~VirtualDisk();
    VirtualDisk(const VirtualDisk&) = delete;
    VirtualDisk& operator=(const VirtualDisk&) = delete;

    /// Reads `size` bytes at RAW byte `offset` (at most MAX_REQUEST, inside the disk). Where a block is
    /// missing, or the disk is suspended, keeps `token` and gives Held; the caller tries again with `retry`
    /// when it is woken. Failed: `*error` is an errno value.
    Result read(uint64 offset, uint32 size, char* buffer, uint64 token, bool retry, int* error);
    /// The same for writing: EROFS on a read-only disk, ENOSPC on a full one. A write of parts of blocks is
    /// held where those blocks are missing. Durable only after sync().
    Result write(uint64 offset, uint32 size, const char* buffer, uint64 token, bool retry, int* error);
    /// Lets whole blocks read as zeros, and not as the image has them: the kernel uses the same call for
    /// writing zeros, and file systems count on it. Frees what the write layer has of the blocks; where the
    /// drive writes into `img.zqf` (mode "rw") a block of that becomes a hole. What isn't aligned to blocks,
    /// but for the end of the disk, is refused with EOPNOTSUPP. Held only while writes are; never for a
    /// missing block. Durable only after sync(), and its room is given back some time after that.
    Result discard(uint64 offset, uint64 size, uint64 token, bool retry, int* error);
    /// Gives 0 when all writes that were done before are on the device, else an errno value.
    int sync();
    /// Grows while a sync() under way goes on.
    uint64 getProgress() const { return zqf.getProgress() + layer.getProgress(); }
    /// Forgets a held request, which is no longer woken; false where it isn't held.
    bool forget(uint64 token) { return requests.forget(token); }

    /// All blocks below are present in `img.zqf` from now on; may go down too. Raises on a disk that is
    /// written in place when it would become partial.
    void setCursor(uint64 zqfIdx);
    uint64 getCursor() const { return cursor.load(); }

    /// Holds every request until resume().
    void suspend() { requests.suspend(); }
    void resume() { requests.resume(); }
    bool isSuspended() const { return requests.isSuspended(); }
    /// From now on reads of missing blocks fail, those that are held at once.
    void setFailOnUnderflow() { requests.failMissing(); }

    /// Whether a read is held for a missing block.
    bool isUnderflow() const { return requests.isUnderflow(); }
    /// Number of blocks that wait to be popped; a popped block that isn't delivered within 100 ms is one.
    uint64 queueLength() { return requests.queueLength(); }
    /// Takes up to `max` missing blocks from the queue (ZqF indices), those of the oldest request first.
    std::vector<uint64> popMissing(uint64 max) { return requests.popMissing(max); }
    /// Lowest missing block of the oldest held read as byte offset in `img.zqf`, and the bytes that it
    /// misses; false, and zeros, where none is held for a missing block.
    bool oldestRequest(uint64* offset, uint64* length) const { return requests.oldest(offset, length); }
    /// Hands over the bytes of the blocks from `zqfIdx` on, at most UnderflowStore::LONGEST_DELIVERY bytes:
    /// whole blocks, or up to the image's end. Blocks that are present are passed over. Raises, naming the
    /// fault.
    void deliver(uint64 zqfIdx, const char* data, uint64 length);
    /// Bytes of delivered blocks kept in memory; what is too much goes into the file. Raises where it can't.
    void setCacheSize(uint64 bytes) { store.setCacheSize(bytes); }

    /// Records which blocks requests touch while it is on. close() ends it.
    TraceRecorder* getTrace() { return &trace; }
    const TraceRecorder* getTrace() const { return &trace; }
    /// The reads that have come.
    ReadCount* getReads() { return &reads; }
    const ReadCount* getReads() const { return &reads; }

    /// Moves the blocks of the layer that are present in `img.zqf` into it, durably; others stay. Writes are
    /// held meanwhile. Raises where it can't, also on a read-only disk and where the image was replaced.
    void flushLayer();
    /// Gives the room of some discarded blocks back to the disk; false where none is left to give.
    bool giveBackRoom() { return !cfg.readOnly && layer.giveBackRoom(); }

    /// To be called every 100 to 500 ms: writes what the trace has gathered, and has requests tried again for
    /// which `img.zqf` came short.
    void tick();
    /// Ends all: writes the layer's and the trace's rest; held requests are woken and fail, as does every
    /// later one. Gives 0 or the errno value of what could not be written.
    int close();

    /// Requests that are held now, for whatever reason.
    uint64 nHeld() const { return requests.nHeld(); }
    /// For how long reads were held, all together, up to now; writes only where `img.zqf` came short for
    /// them.
    int64 readsHeldNs() const { return requests.readsHeldNs(); }
    /// The waits of its readers.
    ReadWaits::View waitsOfReads() const { return requests.waitsOfReads(); }
    /// Number of blocks of the complete `img.zqf`.
    uint64 nIncluded() const { return map.nIncluded(); }
    bool isComplete() const { return getCursor() >= nIncluded(); }
    /// Whether its `img.zqf` no longer stands where it was opened: an image is what stands under its path
    /// now.
    bool isReplaced() const { return zqf.isReplaced(); }
    /// Whether the write layer has blocks, which are others than those of `img.zqf`.
    bool hasLayer() const { return layer.hasRecords(); }
    /// Where the blocks are, and the file with those that are stored: for who reads them beside the disk.
    const BlockMap& getMap() const { return map; }
    const StoredFile& getStored() const { return zqf; }
    uint64 getSizeRaw() const { return cfg.sizeRaw; }
    uint64 getSectorSize() const { return cfg.sectorSize; }

    /// The first failure of a file that has made a request fail; empty where there was none.
    SxString getFailure() const;
    /// What opening has found and mended, for the log; empty where nothing.
    SxString getNotice() const { return layer.getNotice(); }

private:
    using Verdict = std::optional<Result>; ///< none: go on

    Result tryRead(uint64 offset, uint32 size, char* buffer, uint64 token, bool retry, int* error);
    Verdict admit(uint64 offset, uint32 size, uint64 token, bool isWrite, bool retry, int* error);
    static Verdict resultOf(HeldRequests::Verdict verdict, int* error);
    /// Holds a request for which `img.zqf` came short, or notes why it fails.
    Result holdShort(uint64 token, const DiskReader::Fault& fault, int* error);
    void requireComplete(uint64 present) const;
    void findMissing(const HeldRequest& request, std::vector<ZqfIdx>* missing) const;

    const Config cfg;
    std::atomic<uint64> cursor;
    DriveFailure failure; ///< of `img.zqf` and of reads
    BlockMap map;
    UnderflowStore store;
    WriteLayer layer;
    StoredFile zqf;
    ReadCount reads;
    DiskReader reader;
    DiskWriter writer;
    PendingRequests requests;
    TraceRecorder trace;

    std::atomic<int64> nWriting{0};
    SxMutex flushing; ///< held over flushLayer()
};
