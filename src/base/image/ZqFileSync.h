#pragma once

#include "SxString.h"
#include "SxSystemThread.h"
#include "ZqSyncedSize.h"

#include <atomic>
#include <memory>

/// Brings a growing file to the device now and then, on a thread of its own, so that its writer isn't held
/// up, and notes how far that is. For the writer's thread alone. Sizes are in bytes.
class ZqFileSync {
public:
    /// A sync begins once so many bytes have come since the last one, or that is so long ago.
    static constexpr uint64 MAX_BYTES = 64 << 20;
    static constexpr int64 MAX_NS = 10'000'000'000;

    explicit ZqFileSync(const SxString& file);
    ~ZqFileSync();
    ZqFileSync(const ZqFileSync&) = delete;
    ZqFileSync& operator=(const ZqFileSync&) = delete;

    /// Before the first write to the file, which has `size` bytes. Raises where that can't be noted.
    void begin(uint64 size);
    /// The file has `size` bytes now. Begins a sync where one is due, and never waits for it. Where none is
    /// due the call costs nothing, so it may come at any time.
    void look(uint64 size);
    /// Syncs what is left, and waits for that.
    void finish(uint64 size);

private:
    class Job;

    const ZqSyncedSize synced;
    std::unique_ptr<Job> job;
    bool hasBegun = false;
    uint64 askedSize = 0; ///< of the last sync that has begun
    int64 askedNs = 0;    ///< when nothing was left to be synced, or a sync began
};
