#pragma once

#include "SxString.h"
#include "ZqRun.h"

#include <memory>

class ZqNotifier;

/// Tells the player by a notification of the desktop how a run fares, while a window that he doesn't see
/// shows its progress: that it is ready to start, waits for its server, runs again, or couldn't start. A
/// newer text takes the place of the former, no sooner than PAUSE_MS after it; one that no longer holds then
/// isn't told. Only what has kept a run from starting is told at once, since the run ends with it. For one
/// thread.
class ZqRunNotices {
public:
    static constexpr int64 PAUSE_MS = 10'000;
    /// A server that is away for less isn't told of, nor one that nobody waits for.
    static constexpr int64 AWAY_MS = 3'000;

    /// `image`: the run's folder, after which the notification is called.
    explicit ZqRunNotices(const SxString& image);
    ~ZqRunNotices();
    ZqRunNotices(const ZqRunNotices&) = delete;
    ZqRunNotices& operator=(const ZqRunNotices&) = delete;

    /// To be called often while the run goes on. Doesn't wait.
    void look(ZqRun::Phase phase, bool hasStarted, const ZqFeedStatus& status);
    /// After the run's end. `failure`: what has kept the application from being started; empty where nothing
    /// has. Waits for the bus for half a second at most, and only where it has something to tell.
    void end(const SxString& failure);

private:
    enum Kind { Nothing, Ready, Waiting, Again };

    void follow(ZqRun::Phase phase, bool hasStarted, const SxString& waiting);
    void send();

    const std::unique_ptr<ZqNotifier> notifier;
    Kind shown = Nothing, next = Nothing;
    SxString nextText;
    bool wasReady = false;
    int64 shownNs = 0; ///< when the last one was shown; 0 for never
    int64 awayNs = 0;  ///< since when the server is away; 0 where it isn't
};
