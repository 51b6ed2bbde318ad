#pragma once

#include "SxMutex.h"
#include "SxString.h"
#include "SxSystemThread.h"
#include "VirtualDisk.h"

#include <atomic>
#include <memory>
#include <unordered_map>
#include <vector>

struct fuse_session;
struct fuse_req;
class FuseWorker;

/// Serves a virtual disk as one file, through the kernel's FUSE protocol. A request that can't be answered
/// yet is stored, never waited for by a thread.
///
/// Threads: the owner's, which constructs, mounts and ends it; a few that serve requests; one that finishes
/// requests which were held.
class FuseFront {
public:
    /// `disk` must outlive the object.
    explicit FuseFront(VirtualDisk* disk);
    ~FuseFront();
    FuseFront(const FuseFront&) = delete;
    FuseFront& operator=(const FuseFront&) = delete;

    /// Mounts the file's folder at `mountPoint` (a host path) and serves it. `name` is shown as the mount's
    /// source. Raises where the kernel refuses.
    void mount(const std::string& mountPoint, const std::string& name);
    /// Unmounts, and detaches what is still in use; reads and writes of files that are still open fail then.
    /// Ends the threads. Harmless where nothing is mounted.
    void end();
    /// Ends the connection: what waits in the kernel fails, and so does everything that comes from now on,
    /// with an I/O error. Waits for nobody; from any thread.
    void abort();
    /// Whether the connection has ended, by whomever.
    bool hasEnded() const { return ended.load(); }

    /// To be called when the disk wants a held request tried again; from any thread.
    void wake(uint64 token);

    // For the protocol's operations.
    struct Request {
        fuse_req* req = nullptr;
        uint64 offset = 0; ///< bytes
        uint64 size = 0;   ///< bytes
        enum Kind { Read, Write, Discard } kind = Read;
        std::vector<char> data; ///< of a write
    };
    /// The errno value of the first write or sync that failed for the kernel; 0 where none has. It is kept,
    /// since the kernel tells a program of a lost write only if that program syncs.
    int getWriteError() const { return writeError.load() != 0 ? writeError.load() : syncError.load(); }
    void noteWriteError(int error);
    /// Grows while what was written comes to the disk. Reads don't count: a program that reads would hide
    /// that writing stands still.
    uint64 getProgress() const { return nWritten.load() + disk->getProgress(); }
    /// Syncs on a thread of its own, so that one which takes long holds up no other request.
    void sync(fuse_req* req);
    VirtualDisk* getDisk() const { return disk; }
    void read(fuse_req* req, uint64 offset, uint64 size);
    void discard(fuse_req* req, uint64 offset, uint64 size);
    void write(fuse_req* req, uint64 offset, const char* data, uint64 size);

private:
    class Finisher;
    class Syncer;

    void endWorkers();
    void hold(Request request);
    void finish(Request request);
    void tryAgain(Request request);
    template<class Serve>
    void answer(fuse_req* req, bool isWrite, Serve&& serve);

    VirtualDisk* const disk;
    fuse_session* session = nullptr;
    std::atomic<int> writeError{0};
    std::atomic<int> syncError{0};   ///< of the last sync, where it found no room
    std::atomic<uint64> nWritten{0}; ///< bytes
    std::vector<std::unique_ptr<FuseWorker>> workers;
    std::atomic<bool> ended = false;
    std::atomic<bool> looking = false; ///< one of the workers looks for the next request
    std::unique_ptr<Finisher> finisher;
    std::unique_ptr<Syncer> syncer;

    SxMutex mountMutex; ///< held over unmounting, which waits for nobody
    std::string mountedAt SX_GUARDED_BY(mountMutex);

    SxMutex heldMutex;
    std::unordered_map<uint64, Request> held SX_GUARDED_BY(heldMutex);
    /// Woken before they were stored. Its room is there from the start: a wake must not fail.
    std::vector<uint64> early SX_GUARDED_BY(heldMutex);
};
