#pragma once

#include "ZqRemoteImage.h"

#include <deque>

/// Mends a complete `img.zqf` that isn't the image: compares each stretch with its checksum in the seek table
/// of the server's packed form, and fetches only those anew that differ. Needs that table, with checksums.
/// They are written in place, which a drive that reads the file meanwhile doesn't mind. The caller sees to it
/// that no drive writes it (ZqImageLock::Blocks). For one thread.
class ZqImageRepair {
public:
    /// `zqf_` is the path of the file, which has the size of `image_`.
    ZqImageRepair(const SxString& zqf_, const SxPtr<ZqRemoteImage>& image_) : zqf(zqf_), image(image_) {}

    /// Whoever plays from the file meanwhile, and has more patience.
    struct Player {
        /// False while nobody does. Else returns where the same may be tried again, and raises where it may
        /// not.
        std::function<bool(const SxException& why)> settle;
        /// Raises where the server isn't seen to have the version of the file.
        std::function<void(const ZqStopTest& stop)> requireSame;
    };
    void setPlayer(const Player& player_) { player = player_; }

    /// Gives the number of stretches that were fetched and are on the device: 0 where all are as the table
    /// says, and where no table is to be had. Waits for a server that is away while it fetches, and with a
    /// player for one that is wrong, unless it is so while its `app.json` is right. `report` gets the bytes
    /// that were compared. Raises where a stretch can't be had, or comes wrong again, where the file is a
    /// link, and with the tag "Stopped".
    uint64 mend(const std::function<void(uint64 nDone)>& report, const ZqStopTest& stop) const;
    /// The table, waited for as mend() does; null where none is to be had.
    SxPtr<ZqSeekTable> awaitTable(const ZqStopTest& stop) const;
    /// Fetches these stretches anew, which the file has, and brings them to the device. One that can't be had
    /// holds up no other. Else as mend().
    void replace(std::deque<uint64> stretches, const ZqSeekTable& table, const ZqStopTest& stop) const;
    /// Does that once, and leaves in `stretches` those that can't be had now, or not within `limitMs`, with
    /// the last reason in `why`. Stops where several fail one after the other. Raises with the tag
    /// "Stopped", and where the file can't be written.
    void replaceSome(std::deque<uint64>* stretches, const ZqSeekTable& table, int64 limitMs,
                     const ZqStopTest& stop, SxException* why) const;
    /// Milliseconds for a stretch where others wait for their turn.
    static constexpr int64 TRY_MS = 4000;

private:
    struct Tries;

    std::deque<uint64> findWrong(const ZqSeekTable& table, const std::function<void(uint64 nDone)>& report,
                                 const ZqStopTest& stop) const;
    SxPtr<SxArray<char>> tryFetch(uint64 stretchIdx, const ZqSeekTable& table, int64 limitMs,
                                  const ZqStopTest& stop, SxException* why) const;
    void recover(const SxException& why, Tries* tries, const ZqStopTest& stop) const;

    const SxString zqf;
    const SxPtr<ZqRemoteImage> image;
    Player player;
};
