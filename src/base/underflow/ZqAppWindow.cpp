#include "ZqAppWindow.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxTime.h"
#include "ZqLog.h"
#include "ZqSysEnv.h"

namespace {

constexpr const char* UNIT = "src/base/ZqUnderflowMgr";
constexpr int64 SEARCH_MS = 1000;  ///< from one look at the foreground to the next
constexpr int64 PROCESS_MS = 100;  ///< for the search for the application's process
constexpr int LOOKS_A_PROCESS = 5; ///< one asks after every process of the machine
constexpr int64 MINIMIZE_MS = 500; ///< for the desktop to minimise a window

/// A window as log lines name it.
SxString describe(const SxString& deed, ZqDesktop::Handle window) {
    const SxString title = window != 0 ? ZqDesktop::get().getTitle(window) : SxString();
    return deed + " [" + title + "] [" + window + "]";
}

/// The process that a command starts.
SxString processOf(const SxString& cmd) {
    SxString name;
    for (const SxString& part : ZqSysEnv::unifySlashes(cmd).tokenize('/'))
        name = part;
    return name;
}

} // namespace

ZqAppWindow::ZqAppWindow(const ZqAppParams& params) : title(params.window) {
    setApplication(params.cmd, params.name);
}

void ZqAppWindow::setApplication(const SxString& cmd, const SxString& name) {
    const SxMutexBlock block(&mutex);
    process = name.isEmpty() ? processOf(cmd) : name;
}

void ZqAppWindow::restore() {
    try {
        const ZqDesktop::Handle handle = window;
        zqLogMsg("base", "ZqCoreUnderflowMgr::maximizeApp: " + describe("Restore", handle));
        if (handle != 0) {
            ZqDesktop::get().show(handle);
            ZqDesktop::get().activate(handle);
        }
        minimized = isAway = false;
    } catch (const SxException& e) {
        throw SxException(e, "App minimization failed", UNIT, __LINE__);
    }
}

void ZqAppWindow::restoreTaken() {
    const int64 nTaken = nTakenAway;
    if (nTaken == nRestored) return;
    try {
        // The player may have brought it back.
        if (minimized) restore();
        nRestored = nTaken;
        restoreFailed = false;
    } catch (const SxException& e) {
        if (!restoreFailed) zqLogMsg("base", SxString("ZqAppWindow::restoreTaken: ") + e.toString());
        restoreFailed = true;
    }
}

void ZqAppWindow::reset() {
    window = 0;
    minimized = isAway = false;
}

void ZqAppWindow::begin(bool isKept) {
    if (!isKept && !isAway) reset();
    lookMs = SxClock::get().steadyMs();
}

bool ZqAppWindow::isSearchDue() {
    if (isIconic()) {
        minimized = true;
        return false;
    }
    const int64 now = SxClock::get().steadyMs();
    if (now - lookMs <= SEARCH_MS) return false;
    lookMs = now;
    if (!hasSearch) return false;
    const ZqDesktop::Handle foreground = ZqDesktop::get().getForeground();
    return foreground != 0 && foreground != window;
}

void ZqAppWindow::find(const std::function<bool()>& isStopped) {
    window = 0;
    if (!hasSearch || isStopped()) return;
    ZqDesktop& desktop = ZqDesktop::get();
    window = desktop.getForeground();
    if (window != 0) return;
    window = title.isEmpty() ? findByProcess(isStopped) : desktop.findByTitle(title);
}

ZqDesktop::Handle ZqAppWindow::findByProcess(const std::function<bool()>& isStopped) const {
    SxString wanted;
    {
        const SxMutexBlock block(&mutex);
        wanted = process;
    }
    int pid = -1, nLooks = 0;
    SxWait::pass(PROCESS_MS, [&] {
        if (isStopped()) return true;
        if (nLooks++ % LOOKS_A_PROCESS == 0) pid = ZqSysEnv::getProcessID(wanted, 0);
        return pid != -1;
    });
    if (pid == -1) return 0;
    const SxList<ZqDesktop::Handle> windows = ZqDesktop::get().getWindowsOfProcess(pid);
    return windows.isEmpty() ? 0 : *windows.begin();
}

void ZqAppWindow::minimize(const std::atomic<bool>& isStopped) {
    try {
        const ZqDesktop::Handle handle = window;
        zqLogMsg("base", "ZqCoreUnderflowMgr::minimizeApp: " + describe("Minimizing", handle));
        if (handle != 0) ZqDesktop::get().forceMinimise(handle);
        minimized = true;
        SxWait::pass(MINIMIZE_MS,
                     [&] { return handle == 0 || isStopped || ZqDesktop::get().isIconic(handle); });
    } catch (const SxException& e) {
        throw SxException(e, "App minimization failed", UNIT, __LINE__);
    }
}

bool ZqAppWindow::isInTheWay() const {
    return window != 0 && !isIconic();
}

bool ZqAppWindow::isIconic() const {
    const ZqDesktop::Handle handle = window;
    return handle != 0 && ZqDesktop::get().isIconic(handle);
}

void ZqAppWindow::takeAway(const std::atomic<bool>& isStopped) {
    isAway = true;
    ++nTakenAway;
    minimize(isStopped);
}

void ZqAppWindow::noteBack() {
    if (minimized && !isIconic()) minimized = isAway = false;
}

void ZqAppWindow::minimizeGhost(const SxString& prefix) {
    ZqDesktop& desktop = ZqDesktop::get();
    const ZqDesktop::Handle ghost = desktop.findByClass(ZqDesktop::GHOST);
    if (ghost == 0 || desktop.isIconic(ghost)) return;
    zqLogMsg("base",
             prefix + "Minimizing Ghost Window [" + ghost + "] named [" + desktop.getTitle(ghost) + "]");
    desktop.postMinimise(ghost);
}
