#pragma once

#include "SxMutex.h"
#include "ZqDesktop.h"

#include <memory>

/// The windows of an X11 display, that of the variable DISPLAY, by way of its window manager (EWMH 1.5, ICCCM
/// 2.0). Only the window manager is asked, never the application, so a window that hangs can be found,
/// minimised and restored like any other. A handle is a window's X11 id, and windows are those that the
/// window manager looks after. A display that isn't there, or is lost, is no failure: it is tried again once
/// a second, and every search finds nothing meanwhile. One connection serves all threads, which the X library
/// takes care of. No X11 desktop puts a window of a class of its own in the place of one that doesn't answer,
/// so findByClass(GHOST) finds nothing there.
class ZqX11Desktop : public ZqDesktop {
public:
    ZqX11Desktop();
    ~ZqX11Desktop() override;

    /// The next call doesn't wait for one that a display which hangs holds up.
    Size getScreenSize() override;
    bool isNamed() override;
    /// As getWindowsOfProcess() has it.
    SxList<int> getProcesses() override;
    Handle findByTitle(const SxString& title) override;
    /// Compares with the second part of WM_CLASS.
    Handle findByClass(const SxString& className) override;
    /// Windows say themselves which process they belong to (_NET_WM_PID). Those of programs on other machines
    /// don't count, since they bring process ids of theirs.
    SxList<Handle> getWindowsOfProcess(int pid) override;
    Handle getForeground() override;
    bool isIconic(Handle window) override;
    SxString getTitle(Handle window) override;
    void forceMinimise(Handle window) override;
    void postMinimise(Handle window) override;
    void show(Handle window) override;
    void close(Handle window) override;
    void activate(Handle window) override;

private:
    class Display;

    /// The display; null where there is none.
    std::shared_ptr<Display> getDisplay();

    SxMutex mutex;
    std::shared_ptr<Display> display SX_GUARDED_BY(mutex);
    int64 triedNs SX_GUARDED_BY(mutex); ///< when it was looked for last
};
