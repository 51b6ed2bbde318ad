#pragma once

#include "BlockIdx.h"
#include "SxArray.h"
#include "SxString.h"
#include "ZqMountMgr.h"

#include <atomic>

class SxException;

/// The drive of an image, as the job asks it that resolves its underflows. A service that is silent is asked
/// again until it answers or the job is stopped: what it holds stays held, so no underflow is taken to be
/// over. All operations belong to the job's thread, and raise what ZqMountMgr raises; the silence only where
/// the job is stopped in it.
class ZqUnderflowDrive {
public:
    /// From one look at the drive to the next.
    static constexpr int64 POLL_MS = 10;

    /// `path`: the image folder; `sizeZqf`: bytes of the whole `img.zqf`. `isStopped` outlives this object.
    ZqUnderflowDrive(const SxString& path, uint64 sizeZqf, const std::atomic<bool>& isStopped);

    /// Whether the image is mounted.
    bool isThere() const;
    /// Whether the drive holds a read for want of its blocks.
    bool isReadHeld() const;
    /// Missing blocks that wait to be popped.
    uint64 getQueueLength() const;
    /// Takes up to `count` missing blocks from the queue: their bytes in `img.zqf`.
    SxArray<uint64> pop(uint64 count) const;
    /// Hands over the bytes of the blocks from `first` on.
    void deliver(const SxArray<char>& data, ZqfIdx first) const;

    /// Holds every request until resume().
    void suspend();
    bool isSuspended() const;
    /// Takes back a suspend() of this object; does nothing where there is none.
    void resume();

    // Where no read is held these give nothing; a silence at that question is raised.

    /// Takes the next missing block from the queue: its byte in `img.zqf`, at most its size; 0 for none.
    uint64 popHeld() const;
    /// The same for up to `count` of them.
    SxArray<uint64> popHeld(uint64 count) const;

private:
    template<class Call>
    auto patiently(Call&& call) const;
    bool bearsSilence(const SxException& why, bool isTold) const;
    uint64 byteIdxOf(ZqfIdx block) const;

    const SxString path;
    const uint64 sizeZqf;
    const std::atomic<bool>& isStopped;
    ZqMountMgr mountMgr;
    /// By this object, and not resumed yet. A call whose answer didn't come may have suspended it, too.
    bool hasSuspended = false;
};
