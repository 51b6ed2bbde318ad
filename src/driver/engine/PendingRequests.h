#pragma once

#include "HeldRequests.h"
#include "ShortReads.h"

#include <functional>

/// The requests of one disk that can't be done now, and the waking of their owners: those that are held for
/// missing blocks, a resume or the end of a flush (HeldRequests), and those for which `img.zqf` came short
/// (ShortReads). Safe from any thread; owners are woken without a lock held.
class PendingRequests {
public:
    /// Tells that the held request `token` should be tried again.
    using Wake = std::function<void(uint64 token)>;
    using Verdict = HeldRequests::Verdict;

    PendingRequests(HeldRequests::FindMissing findMissing, Wake wake_);

    /// Whether a request may begin; holds it where it has to wait for that.
    Verdict admit(uint64 token, bool write) {
        return held.isRestricted() ? held.admit(token, write) : Verdict::Go;
    }
    /// Holds a request for its missing blocks. Go where none is missing now.
    Verdict hold(uint64 token, uint64 offset, uint32 size, bool write) {
        return held.hold(token, offset, size, write);
    }
    /// Holds a request for which `img.zqf` came short; false where it is to fail.
    bool holdShort(uint64 token) { return shortReads.hold(token); }
    /// To be called with the first try of a request, and once it was done.
    void settle(uint64 token) { shortReads.settle(token); }
    /// Forgets a request, which is no longer woken; false where it isn't held.
    bool forget(uint64 token);

    /// The blocks from `first` to `end` - 1 are there.
    void arrive(ZqfIdx first, ZqfIdx end) { wakeAll(held.arrive(first, end)); }
    /// Sets the cursor. Where it goes down, blocks that were there are missing again.
    void moveCursor(std::atomic<uint64>* cursor, uint64 to);
    /// From now on a request for a missing block fails and isn't held.
    void failMissing();
    void suspend() { held.suspend(); }
    void resume() { wakeAll(held.resume()); }
    /// Holds all writes until it is opened.
    void closeGate() { held.closeGate(); }
    void openGate() { wakeAll(held.openGate()); }
    /// Has those tried again for which `img.zqf` came short.
    void retryShort() { wakeAll(shortReads.release()); }
    /// Fails all requests from now on.
    void close();

    bool isSuspended() const { return held.isSuspended(); }
    /// Whether a read is held for a missing block.
    bool isUnderflow() const { return held.isUnderflow(); }
    // See VirtualDisk.
    uint64 queueLength() { return held.queueLength(); }
    std::vector<uint64> popMissing(uint64 max) { return held.popMissing(max); }
    bool oldest(uint64* offset, uint64* length) const { return held.oldest(offset, length); }
    /// Requests that are held now, for whatever reason.
    uint64 nHeld() const { return held.nHeld() + shortReads.nHeld(); }
    int64 readsHeldNs() const { return held.readsHeldNs() + shortReads.heldNs(); }
    ReadWaits::View waitsOfReads() const { return waits.view(); }

private:
    void wakeAll(const HeldRequests::Tokens& tokens) const;

    const Wake wake;
    ReadWaits waits;
    HeldRequests held;
    ShortReads shortReads;
};
