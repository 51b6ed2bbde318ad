#include "ZqMountJob.h"

#include "SxTime.h"
#include "ZqImageFeed.h"
#include "ZqLog.h"
#include "ZqMountMgr.h"
#include "ZqRunWait.h"

ZqMountJob::ZqMountJob(const ZqImageFeed& feed_, SxString image_, ZqDriveKinds::MountMode mode_,
                       SxString traceFolder_, bool noLaunchers_)
    : feed(feed_),
      image(std::move(image_)),
      mode(mode_),
      traceFolder(std::move(traceFolder_)),
      noLaunchers(noLaunchers_),
      isPartial(!feed_.isComplete()),
      nBlocks(feed_.countBlocks()) {
    setThreadName("mount");
}

void ZqMountJob::finish(const ZqRunWait& waits) {
    while (isRunning()) {
        if (waits.isStopping() || feed.hasFailed()) {
            breakOff();
        } else if (isPartial && feed.isComplete()) {
            moveCursor();
        }
        SxTime::msleep(SxWait::LOOK_MS);
    }
    wait();
    waits.requireGoing();
    // It is why the mount has failed, too.
    feed.requireAlive();
    if (hasException()) throw getException();
}

void ZqMountJob::main() {
    ZqMountMgr mounts;
    const ZqImageParams& params = feed.getParams();
    mounts.setAppParams(feed.getApp());
    ZqMountMgr::MountRequest request{mode,
                                     params.deviceMode,
                                     image,
                                     traceFolder,
                                     static_cast<uint64>(params.sizeRaw),
                                     static_cast<uint64>(params.emulatedSectorSize),
                                     nBlocks};
    request.noLaunchers = noLaunchers;
    mounts.mountImageZQF(request, traceFolder.isEmpty() ? SxString() : SxString("monitoring"));
    launch = mounts.getLaunch();
}

/// Reads that fail aren't enough: a mount looks for its first file for a minute.
void ZqMountJob::breakOff() const {
    try {
        ZqMountMgr().umountImage(image, true);
    } catch (const SxException& e) {
        // The mount takes the same drive away at the same time, and reports what is wrong with the service.
        zqLogMsg("base", SxString("ZqRun: ") + e.what());
    }
}

/// The drive is mounted with the cursor of a moment before. What moves the cursor ends with the download,
/// perhaps before the drive is up, so it is done here from then on.
void ZqMountJob::moveCursor() const {
    try {
        feed.alignCursor();
    } catch (const SxException& e) {
        // The drive of the preparation goes at some time; what else is wrong the mount tells.
        zqLogMsg("base", SxString("ZqRun: ") + e.what());
    }
}
