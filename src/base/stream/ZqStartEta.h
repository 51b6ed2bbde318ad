#pragma once

#include "ZqAppParams.h"

#include <functional>
#include <optional>
#include <vector>

/// When an application may start, by what the link still has to bring: it goes by the bytes on the wire, so a
/// stretch of the image that packs well makes the link no faster.
///
/// What a start needs depends on the speed of the download, which is that of `img.zqf`, over the last ten
/// seconds (ZqImageProgress::getNInit()). So the download is followed in thought until it is enough.
struct ZqStartEta {
    /// Bytes of the wire that bring `img.zqf` from byte `from` to byte `to`.
    using WireSize = std::function<uint64(uint64 from, uint64 to)>;

    uint64 nThere = 0;      ///< bytes of `img.zqf`
    double rate = 0;        ///< of the link, bytes a second
    double speed = 0;       ///< of the download so far, megabit per second of `img.zqf`
    int64 nSeconds = 0;     ///< that `speed` is the mean of
    double passSeconds = 0; ///< since these ended
    uint64 nPass = 0;       ///< bytes of `img.zqf` that have come since then
    uint64 nMap = 0;        ///< bytes of the wire that the map still takes, each beside one of the image
    bool isAtOnce = false;  ///< the start waits for the drive alone; what is told is the most that takes
    WireSize wireSize;

    /// What is there, over the seconds from now on, or before now in the pass that is under way.
    struct Point {
        double seconds, size;
    };
    /// When it may start, and what is there then; none where the rate isn't known.
    std::optional<Point> find(const ZqAppParams& app) const;
    /// Seconds until there is what a drive needs, without its mount; the rate must be known.
    double untilDrive(const ZqAppParams& app) const;

private:
    double untilCome(uint64 nWire) const;
    double untilMap(const ZqAppParams& app) const;
    std::vector<Point> draw(uint64 end) const;
    bool isEnough(const ZqAppParams& app, const std::vector<Point>& way, const Point& now) const;
};
