#pragma once

#include "SxMutex.h"
#include "SxString.h"
#include "ZqAppParams.h"
#include "ZqDesktop.h"

#include <atomic>
#include <functional>

/// The application's window: finds it, takes it out of the player's way, and brings it back. The queries,
/// setSearch(), restore() and countRestored() are safe from any thread, restoreTaken() belongs to the
/// owner's, reset() too while no job runs, all else to the job's that watches for underflows. Nothing here
/// waits for the application, which may hang: the desktop is only told what is wanted. A thread for each such
/// call would only outlive its window.
class ZqAppWindow {
public:
    explicit ZqAppWindow(const ZqAppParams& params);

    /// The application is started by that command, and named so where that is only a launcher.
    void setApplication(const SxString& cmd, const SxString& name);
    /// Whether windows are looked for, true at first.
    void setSearch(bool on) { hasSearch = on; }
    bool isSearched() const { return hasSearch; }
    /// Whether the application counts as minimised, by this object or by the player.
    bool isMinimized() const { return minimized; }
    /// How often takeAway() was called.
    int64 getNTakenAway() const { return nTakenAway; }
    /// Brings the window back, at the player's wish. Raises "App minimization failed".
    void restore();
    /// Brings the window back where takeAway() was called and it isn't back. It doesn't raise: what fails is
    /// tried again by the next call, and logged once.
    void restoreTaken();

    /// Forgets the window.
    void reset();
    /// A job begins. The window is forgotten, unless it was taken away and isn't back, or `isKept`.
    void begin(bool isKept);
    /// Notes whether the player has minimised it. Once a second: true where another window has the foreground
    /// meanwhile, so that find() is due. While nothing has the foreground, a window that was found stays the
    /// application's.
    bool isSearchDue();
    /// Finds the window: what has the foreground, for what the player looks at wins over any search, else the
    /// one that `params.window` or the process names. `isStopped` is asked before each look, and ends it.
    void find(const std::function<bool()>& isStopped);
    /// Minimises it, and waits up to 500 ms for that. Raises "App minimization failed".
    void minimize(const std::atomic<bool>& isStopped);
    /// From now on the application counts as minimised, though it may have no window, or no longer.
    void countMinimized() { minimized = true; }
    void countRestored() { minimized = false; }
    /// Whether there is a window that isn't minimised.
    bool isInTheWay() const;
    /// Minimises the window for an underflow, as minimize() does.
    void takeAway(const std::atomic<bool>& isStopped);
    /// Notes it where the window is back.
    void noteBack();
    /// Minimises what the desktop shows in the place of an application that doesn't answer. `prefix` begins
    /// its log line.
    static void minimizeGhost(const SxString& prefix);

private:
    bool isIconic() const;
    /// The topmost window of the application's process; 0 where there is none.
    ZqDesktop::Handle findByProcess(const std::function<bool()>& isStopped) const;

    const SxString title; ///< of the application
    mutable SxMutex mutex;
    SxString process SX_GUARDED_BY(mutex); ///< of the application
    std::atomic<ZqDesktop::Handle> window{0};
    std::atomic<bool> hasSearch{true}, minimized{false};
    std::atomic<bool> isAway{false}; ///< it was taken away, and isn't back
    std::atomic<int64> nTakenAway{0};
    int64 lookMs = 0;           ///< when the foreground was looked at last, steady ms
    int64 nRestored = 0;        ///< of nTakenAway
    bool restoreFailed = false; ///< it couldn't be brought back when that was last tried
};
