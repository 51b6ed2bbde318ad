#pragma once

#include "SxArray.h"
#include "SxMutex.h"
#include "SxPtr.h"
#include "ZqOrderHints.h"

#include <map>

/// Which stretches of `img.zqf` are worth having before a read asks for them, as the hints of the image's
/// order have it: a read that has to wait tells where the session has come to. set() is safe from any thread,
/// all else belongs to the job's. Offsets are bytes of `img.zqf`, each that of a stretch.
class ZqOnDemandHints {
public:
    /// A group that is less likely to come next isn't prepared for.
    static constexpr uint32 MIN_PERCENT = 50;

    /// The hints from now on. To be called once at most.
    void set(const SxPtr<const ZqOrderHints>& hints_) SX_EXCLUDES(mutex);

    /// Reads wait for the stretches at `offsets`, of which the download has brought `nCurrent` bytes. Gives
    /// what else is worth having, the likeliest first, each stretch once: the hot ones of their groups that
    /// follow them there, then the first ones of likely successors.
    SxArray<uint64> findLikely(const SxArray<uint64>& offsets, uint64 nCurrent) SX_EXCLUDES(mutex);
    /// These of them are being fetched.
    void noteBegun(const SxArray<uint64>& offsets);

    /// Stretches that were fetched so, and how many of these a read has waited for later.
    int64 getNBegun() const noexcept { return nBegun; }
    int64 getNUsed() const noexcept { return nUsed; }

private:
    enum State { Named, Begun, Waited };

    bool isInVain(uint64 nCurrent);
    void take(const ZqOrderHints::Group& group, size_t from, uint64 nCurrent, SxArray<uint64>* likely);

    mutable SxMutex mutex;
    SxPtr<const ZqOrderHints> hints SX_GUARDED_BY(mutex);

    std::map<uint64, State> states; ///< by stretch
    int64 nBegun = 0, nUsed = 0;
    int64 nUnused = 0;    ///< begun ones that no read has waited for and that the download hasn't passed
    uint64 passedIdx = 0; ///< stretches below it aren't counted in that
};
