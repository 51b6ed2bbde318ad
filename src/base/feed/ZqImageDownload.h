#pragma once

#include "ZqFailurePolicy.h"
#include "ZqFeedJob.h"
#include "ZqImageOrigin.h"
#include "ZqServerSilence.h"
#include "ZqStartEta.h"

#include <atomic>
#include <memory>
#include <optional>

class ZqFeedHealth;
class ZqGrowingImage;
class ZqImageProgress;
class ZqOrderedDownload;

/// Brings what is missing of an image from its server, in order, and keeps that going: owns the ordered
/// download, begun again where it has ended too early, and the progress, which moves the drive's cursor; sees
/// to the writer of the file. What the drive asks for out of order comes by way of the same ZqRemoteImage.
/// start(), stop() and wait() belong to the owner's thread, keep() to the keeper's; the queries are safe from
/// any, from start() on.
class ZqImageDownload {
public:
    /// Over `link_`, into `file_`; tells `health_` how it fares. All outlive this. `isStopped_`: whether
    /// stop() is about to be called.
    ZqImageDownload(const ZqImageOrigin& origin_, const SxPtr<ZqNetLink>& link_, ZqGrowingImage* file_,
                    ZqFeedHealth* health_, ZqStopTest isStopped_);
    ~ZqImageDownload();

    const SxPtr<ZqRemoteImage>& getImage() const noexcept { return image; }
    /// From start() on.
    const SxPtr<ZqImageProgress>& getProgress() const noexcept { return progress; }

    /// Raises where the folder can't be written into.
    void start();
    /// Looks after the threads, and what has become of them; gives whether all bytes are written. Raises
    /// what can't be waited for.
    bool keep();
    /// Whether one of the threads has something left to do.
    bool isRunning() const;
    /// Asks the threads to end. The keeper's has ended.
    void stop();
    void wait();

    /// Fills in how it stands. What it waits for is the caller's, if that has something to say.
    void addTo(ZqFeedStatus* status) const;
    /// When the application may start, where the link brings `rate` bytes a second.
    std::optional<ZqStartEta::Point> findStart(double rate, bool isAtOnce) const;
    /// Seconds until there is what a drive needs, likewise; `rate` is above 0.
    double untilDrive(double rate) const;
    /// For whoever brings the map over the same link: bytes of the wire that are still to come.
    std::atomic<uint64>* getMapLeft() { return &mapLeft; }

private:
    /// From one try of a download that fails to the next at first, doubled each time.
    static constexpr int64 FIRST_PAUSE_NS = 500'000'000;

    double getLinkRate() const;
    ZqStartEta makeEta(double rate) const;
    void openStore();
    void beginDownload();
    void keepDownload();
    /// Begins the download again, after a look at the server's version where the failure was of its files.
    void beginAgain(ZqFailurePolicy::Verdict verdict);
    void resumeDownload();
    void keepProgress();
    void watchServer();

    const ZqImageOrigin origin;
    const SxPtr<ZqNetLink> link;
    const SxPtr<ZqRemoteImage> image;
    ZqGrowingImage* const file;
    ZqFeedHealth* const health;
    const ZqStopTest isStopped;
    SxPtr<ZqImageProgress> progress;
    std::unique_ptr<ZqOrderedDownload> download;
    std::atomic<uint64> mapLeft{0};

    // The keeper's alone.
    std::unique_ptr<ZqFeedJob> versionCheck;
    bool isInterrupted = false; ///< the download has failed, and nothing has come since
    uint64 interruptedSize = 0;
    int64 pauseNs = FIRST_PAUSE_NS; ///< until a download that has failed is tried again
    int64 downloadNs = 0;           ///< when the download was begun again, or the server's version looked at
    ZqServerSilence silence;
};
