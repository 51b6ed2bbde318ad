#pragma once

#include "SxSystemThread.h"
#include "ZqDriveKinds.h"
#include "ZqLaunchValues.h"

class ZqImageFeed;
class ZqRunWait;

/// One mount of an image that is fed. It has a thread of its own, since a mount can't be broken off. But its
/// drive can be taken away: then its reads fail, and it takes itself back. The operations belong to the
/// owner's thread.
class ZqMountJob : public SxSystemThread {
public:
    /// `feed_` must outlive this. `traceFolder_`: of the trace that begins with the mount; empty for none.
    /// `noLaunchers_`: leave the launchers alone.
    ZqMountJob(const ZqImageFeed& feed_, SxString image_, ZqDriveKinds::MountMode mode_,
               SxString traceFolder_, bool noLaunchers_);
    /// Waits for the end; raises what went wrong, or a stop.
    void finish(const ZqRunWait& waits);
    /// How the application is started now; after the end.
    const ZqLaunchValues& getLaunch() const { return launch; }

protected:
    void main() override;

private:
    void breakOff() const;
    void moveCursor() const;

    const ZqImageFeed& feed;
    const SxString image;
    const ZqDriveKinds::MountMode mode;
    const SxString traceFolder;
    const bool noLaunchers;
    const bool isPartial; ///< some of the image wasn't there when the mount began
    const uint64 nBlocks; ///< that were there then
    ZqLaunchValues launch;
};
