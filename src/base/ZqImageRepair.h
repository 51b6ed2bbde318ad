#pragma once

#include "ZqRemoteImage.h"

/// Mends a complete `img.zqf` that isn't the image: compares each stretch with its checksum in the seek table
/// of the server's packed form, and fetches only those anew that differ. Needs that table, with checksums.
/// They are written in place, so a drive may read the file meanwhile, but not write it. For one thread.
class ZqImageRepair {
public:
    /// `zqf_` is the path of the file, which has the size of `image_`.
    ZqImageRepair(const SxString& zqf_, const SxPtr<ZqRemoteImage>& image_) : zqf(zqf_), image(image_) {}

    /// Gives the number of stretches that were fetched and are on the device: 0 where all are as the table
    /// says, and where no table is to be had. Waits for a server that is away while it fetches. `report` gets
    /// the bytes that were compared. Raises where a stretch can't be had, or comes wrong again, and with the
    /// tag "Stopped".
    uint64 mend(const std::function<void(uint64 nDone)>& report, const ZqStopTest& stop) const;

private:
    SxArray<uint64> findWrong(const ZqSeekTable& table, const std::function<void(uint64 nDone)>& report,
                              const ZqStopTest& stop) const;
    SxPtr<SxArray<char>> fetch(uint64 stretchIdx, const ZqStopTest& stop) const;

    const SxString zqf;
    const SxPtr<ZqRemoteImage> image;
};
