#pragma once

#include "ZqFeedJob.h"
#include "ZqImageOrigin.h"
#include "ZqPartCheck.h"
#include "ZqProgramWrites.h"
#include "ZqStreamRecord.h"

#include <atomic>
#include <memory>

class ZqFeedHealth;
class ZqGrowingImage;
class ZqImageRepair;

/// Puts right what an earlier run has left of an image, which may have been damaged since. A download that
/// ends in order notes size and time of the partial file in `stream.json`, and the next one removes that note
/// before it writes. Where the note fits the file is believed. Else its stretches are compared with the seek
/// table, and the wrong ones are fetched again: before the start where the file was changed for sure, and for
/// the most part beside the game after a kill, which leaves no note, and most likely no damage. Who plays
/// without a server isn't held up. Where there is no table only the digest of the complete file tells, and
/// ends the run.
///
/// All operations belong to the owner's thread; what goes on beside the game has one of its own.
class ZqPartRepair {
public:
    /// `image_` is the image on the server, over the feed's link; `file_` may grow meanwhile. Tells `health_`
    /// what is waited for. Both outlive this. `isStopped_` ends what goes on beside the game.
    ZqPartRepair(const ZqImageOrigin& origin_, const SxPtr<ZqRemoteImage>& image_,
                 const ZqProgramWrites& writes_, ZqGrowingImage* file_, ZqFeedHealth* health_,
                 ZqStopTest isStopped_);

    /// All that is there is believed.
    void believe() { isRight = true; }
    /// Compares what is there where it isn't as `noted`, as far as a start can wait for that, and mends it.
    /// Where the server may have another version by now (`isConfirmed` is false) that is all left for later.
    /// Raises after a stop.
    void open(const ZqStreamRecord::Left& noted, bool isConfirmed, const ZqStopTest& stop);
    /// The rest of it, beside everything else.
    void start();
    void wait();
    /// Notes how the part is left, where it is right. To be called once nothing is written any longer.
    void noteLeft() const;

private:
    void mendAhead(const ZqSeekTable& table, const ZqStopTest& stop);
    void mendPart(const ZqImageRepair& repair, const ZqSeekTable& table, const ZqStopTest& stop);
    void check();

    const ZqImageOrigin origin;
    const SxPtr<ZqRemoteImage> image;
    const ZqProgramWrites writes;
    ZqGrowingImage* const file;
    ZqFeedHealth* const health;
    const ZqStopTest isStopped;
    std::unique_ptr<ZqPartCheck> part; ///< the owner's up to start(), then the job's
    std::atomic<bool> isRight{false};  ///< all that was there at open() is as the server has it, or believed
    std::unique_ptr<ZqFeedJob> job;
};
