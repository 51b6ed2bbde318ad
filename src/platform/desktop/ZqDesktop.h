#pragma once

#include "SxList.h"
#include "SxString.h"

/// The windows of the player's desktop, and the one seam to them, which a test can replace. A handle is the
/// window system's own id of a window, 0 for none. Without a display, or once it is lost, every search finds
/// nothing; a window that is gone has no title and isn't iconic, and nothing is done to it. No operation
/// waits for the application that owns a window. All are safe from any thread.
class ZqDesktop {
public:
    using Handle = uint64;
    /// Longest title that getTitle() gives, in characters.
    static constexpr int64 MAX_TITLE = 256;
    /// The class of the window that the desktop puts in the place of one that no longer answers.
    static constexpr const char* GHOST = "Ghost";

    /// In pixels.
    struct Size {
        int64 width = 0, height = 0;
    };

    virtual ~ZqDesktop() = default;

    /// The size of the player's primary screen; nothing where there is no display. Waits for as long as the
    /// display takes to answer.
    virtual Size getScreenSize() { return {}; }

    /// Whether a display is named, so that there may be one.
    virtual bool isNamed() { return false; }

    /// The processes that show windows or have iconified ones, of each window one.
    virtual SxList<int> getProcesses() { return {}; }
    /// The topmost window with exactly that title.
    virtual Handle findByTitle(const SxString& title) = 0;
    /// The topmost window of that class.
    virtual Handle findByClass(const SxString& className) = 0;
    /// The windows that the process `pid` shows or has iconified, topmost first.
    virtual SxList<Handle> getWindowsOfProcess(int pid) = 0;
    /// The window that has the player's input.
    virtual Handle getForeground() = 0;
    /// Whether the window is minimised.
    virtual bool isIconic(Handle window) = 0;
    /// The first MAX_TITLE characters of the title.
    virtual SxString getTitle(Handle window) = 0;

    // These tell the desktop what is wanted and return; it follows a little later, or not at all.

    /// Minimises the window, also one whose application doesn't answer.
    virtual void forceMinimise(Handle window) = 0;
    /// Asks the window to minimise itself, as its own button does.
    virtual void postMinimise(Handle window) = 0;
    /// Shows the window at its old place and size.
    virtual void show(Handle window) = 0;
    /// Asks the window to close itself, as its own button does; its application may refuse.
    virtual void close(Handle window) = 0;
    /// Gives the window the player's input.
    virtual void activate(Handle window) = 0;

    /// The desktop in force.
    static ZqDesktop& get() noexcept;
    /// The machine's own.
    static ZqDesktop& machine() noexcept;
    /// Puts `desktop` in force, or the machine's with null; the caller keeps it alive. Not while jobs run.
    static void set(ZqDesktop* desktop) noexcept;
};
