#pragma once

#include "SxMutex.h"
#include "ZqFeedJob.h"
#include "ZqImageOrigin.h"
#include "ZqProgramWrites.h"

#include <atomic>
#include <memory>

class ZqFeedHealth;

/// Compares a complete `img.zqf` with the digest of `app.json`, on a thread of its own. Where it differs, the
/// checksums of the seek table tell which stretches are wrong (ZqImageRepair), these alone are fetched anew,
/// and the digest is taken again. A difference that stays, or whose place no table tells, is the failure.
///
/// `stream.json` notes a digest that fits, with the file's size and time, so that a file that was changed
/// since is compared again. A complete image that has no such note was never compared to the end, or was
/// found to be wrong. So the start of a right one waits for this at most once.
///
/// keep() belongs to one thread, start() and wait() to the owner's; the queries are safe from any. Sizes are
/// in bytes.
class ZqDigestCheck {
public:
    enum Need {
        Due,    ///< the file is compared
        Untold, ///< there is no digest that it should have, or nobody asks for it: complete, it counts as
                ///< right
        Done    ///< it is known to be right
    };
    /// `image_`: the image's over its feed's link; null where the feed has none, since all was there. Tells
    /// `health_` what mending waits for; that must outlive this. `isStopped_` breaks the comparison off.
    ZqDigestCheck(const ZqImageOrigin& origin_, const SxPtr<ZqRemoteImage>& image_,
                  const ZqProgramWrites& writes_, Need need, ZqFeedHealth* health_, ZqStopTest isStopped_);

    /// Of a file that is right removes what is kept beside it, of which nothing is needed then; so does a
    /// comparison that ends well. To be called before keep().
    void start();
    /// To be called again and again once the file is complete. Compares it, and raises what that has failed
    /// in.
    void keep();
    void wait();

    /// Whether the file is complete and right, as far as can be told.
    bool isVerified() const { return verified; }
    /// Fills in how far it is. Without `image_` also what mending has moved, and what it waits for.
    void addTo(ZqFeedStatus* status) const;

private:
    void verify();
    void setVerified();
    void removeStore() const;
    /// Fetches anew what is wrong of the complete image, where a server is known; gives how many stretches
    /// were.
    uint64 mend();
    bool settle(const SxException& why) const;
    SxString wrongText(const SxString& digest) const;
    /// Reads the whole of `img.zqf`; empty where a stop came between.
    SxString readDigest();

    const ZqImageOrigin origin;
    const SxPtr<ZqRemoteImage> image;
    const ZqProgramWrites writes;
    const bool isUntold;
    ZqFeedHealth* const health;
    const ZqStopTest isStopped;
    std::atomic<bool> verified, checking{false};
    std::atomic<uint64> nChecked{0};
    std::unique_ptr<ZqFeedJob> job; ///< that of keep()'s thread

    mutable SxMutex mutex;
    SxPtr<ZqRemoteImage> repairSource SX_GUARDED_BY(mutex); ///< of what is mended, where `image` has none
};
