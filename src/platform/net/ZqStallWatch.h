#pragma once

#include "SxException.h"
#include "ZqNetProgress.h"

struct ZqNetSettings;

/// Whether a request gets on, or stands still and has to be given up: by its progress, without the time that
/// it was held. For the network thread; times are those of the steady clock.
class ZqStallWatch {
public:
    /// `nSlow`: requests before this one that were given up as slow, in a row. `isEncrypted`: it comes over
    /// TLS.
    ZqStallWatch(const ZqNetSettings& settings, int64 nSlow, bool isEncrypted, int64 nowNs);

    /// The answer has begun.
    void begin(int64 nowNs) {
        begun = true;
        progress.begin(nowNs);
    }
    bool hasBegun() const { return begun; }
    /// `n` bytes of the body have come, which count only where they are many enough; the rest as for
    /// ZqNetProgress::getUsefulRate().
    void take(int64 n, double bestRate, int64 nBeside, int64 nowNs);
    /// Whether noteReceived() is to be called.
    bool isRecordDue(int64 nowNs) const;
    /// The connection has received so many bytes in all, -1 not known. TLS hands on whole records, and one of
    /// 16 KiB may take a slow link longer than any limit. So what comes for one counts before it is there,
    /// but no more than it can have.
    void noteReceived(int64 nReceived, double bestRate, int64 nBeside, int64 nowNs);

    void hold(int64 nowNs);
    void goOn(int64 nowNs);
    bool isHeld() const { return held; }
    /// Leaves out the time that it was held up to now.
    void skipHeld(int64 nowNs);

    /// Since when too few bytes have come to be of use.
    int64 getUsefulNs() const { return progress.getSinceNs(ZqNetProgress::Second); }
    /// Whether it makes progress, or would if it weren't held, so that others may be held for it.
    bool isMoving(int64 nowNs) const;
    /// Whether it is to be given up.
    bool isStalled(int64 nowNs) const;
    /// The failure that it gets then.
    SxException failure() const;

private:
    /// What has come of a TLS record that isn't complete, and so not of the body yet.
    struct Record {
        bool isEncrypted = false;
        int64 lookedNs = 0;
        int64 nSeen = -1;    ///< bytes of the connection at the last look
        int64 nCredited = 0; ///< those since the last byte of the body that counted
    };

    const int64 silenceNs; ///< without a byte, until it is given up
    const int64 limitNs;   ///< without progress, until it is given up
    ZqNetProgress progress;
    Record record;
    bool begun = false, held = false;
    int64 heldNs = 0; ///< up to when the time that it was held is left out
};
