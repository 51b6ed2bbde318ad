#pragma once

#include "SxException.h"
#include "ZqDesktop.h"

#include <functional>
#include <map>
#include <string>
#include <vector>

/// A desktop of windows that a test makes, in force from construction to destruction. What is done to windows
/// is noted in order, searches are counted.
class ScriptedDesktop : public ZqDesktop {
public:
    struct Window {
        std::string title, className;
        int pid = 0;
        bool iconic = false;
    };

    ScriptedDesktop() { ZqDesktop::set(this); }
    ~ScriptedDesktop() override { ZqDesktop::set(nullptr); }

    Handle findByTitle(const SxString& title) override {
        return search([&](const Window& w) { return w.title == title.str(); });
    }
    Handle findByClass(const SxString& className) override {
        return search([&](const Window& w) { return w.className == className.str(); });
    }
    SxList<Handle> getWindowsOfProcess(int pid) override {
        SxList<Handle> found;
        ++nSearches;
        for (const auto& [handle, window] : windows) {
            if (window.pid == pid) found << handle;
        }
        return found;
    }
    Handle getForeground() override {
        ++nSearches;
        return foreground;
    }
    bool isIconic(Handle window) override { return windows[window].iconic; }
    SxString getTitle(Handle window) override {
        if (fails) throw SxException("the display is gone", "ScriptedDesktop", __LINE__);
        return SxString(windows[window].title);
    }
    void forceMinimise(Handle window) override { act("minimise", window, obeys); }
    void postMinimise(Handle window) override { act("post minimise", window, obeys); }
    void show(Handle window) override { act("show", window, false); }
    void close(Handle window) override { act("close", window, false); }
    void activate(Handle window) override { act("activate", window, false); }

    std::map<Handle, Window> windows;
    Handle foreground = 0;
    bool obeys = true; ///< windows minimise when they are told to
    bool fails = false;
    int64 nSearches = 0;
    std::vector<std::string> notes;

private:
    Handle search(const std::function<bool(const Window&)>& fits) {
        ++nSearches;
        for (const auto& [handle, window] : windows) {
            if (fits(window)) return handle;
        }
        return 0;
    }
    void act(const std::string& deed, Handle window, bool iconic) {
        notes.push_back(deed + " " + std::to_string(window));
        windows[window].iconic = iconic;
    }
};
