#pragma once

#include "ZqAppParams.h"

#include <vector>

/// When the application of a streamed image may start, and what a start at once would bring, by the load
/// profile of its record and a download speed. It takes the download for even and in order; fetching on
/// demand makes waits shorter. A plain value, cheap to make anew whenever the speed has changed.
class ZqStartForecast {
public:
    /// The application waits for data.
    struct Wait {
        double at;      ///< seconds of play before it, without earlier waits
        double seconds; ///< how long
    };

    /// `speedMbit`: megabit per second of `img.zqf`, which a packed delivery multiplies; not above 0: nothing
    /// comes. `nThere`: bytes of `img.zqf` that are there.
    ZqStartForecast(const ZqAppParams& app, double speedMbit, uint64 nThere);

    /// Whether the record has a load profile. Without one only a complete image is known to be safe, and
    /// nothing is known of waits.
    bool isKnown = false;
    uint64 nInit = 0;      ///< bytes of `img.zqf` for a start without a wait
    double untilSafe = 0;  ///< seconds until they are there; infinite where they never are
    double untilMount = 0; ///< seconds until there can be a drive: the earliest start
    /// What a start then would bring, in order of time. Waits with nothing between them count as one.
    std::vector<Wait> waits;

    double getTotalWait() const;

    /// Bytes of `img.zqf` that a start needs at that speed, as ZqImageProgress asks for them.
    static uint64 findInit(const ZqAppParams& app, double speedMbit);
    /// Bytes of `img.zqf` before which there is no drive: all of them where that may write into the image.
    static uint64 findDrive(const ZqAppParams& app);
    /// Bytes of `img.zqf` with which a start needs no further ones, and so no server: all that the load
    /// profile tells of. The whole image without a profile, or where the record asks for a least speed.
    static uint64 findAll(const ZqAppParams& app);

private:
    void addWaits(const ZqAppParams& app, double bytesPerSecond, uint64 nAtStart);
};
