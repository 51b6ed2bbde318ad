#include "ZqDesktop.h"

#include <atomic>

namespace {

/// A machine without a display.
class NoDesktop : public ZqDesktop {
public:
    Handle findByTitle(const SxString&) override { return 0; }
    Handle findByClass(const SxString&) override { return 0; }
    SxList<Handle> getWindowsOfProcess(int) override { return {}; }
    Handle getForeground() override { return 0; }
    bool isIconic(Handle) override { return false; }
    SxString getTitle(Handle) override { return {}; }
    void forceMinimise(Handle) override {}
    void postMinimise(Handle) override {}
    void show(Handle) override {}
    void activate(Handle) override {}
};

NoDesktop noDesktop;
std::atomic<ZqDesktop*> current{nullptr};

} // namespace

ZqDesktop& ZqDesktop::machine() noexcept {
    return noDesktop;
}

ZqDesktop& ZqDesktop::get() noexcept {
    ZqDesktop* desktop = current.load(std::memory_order_acquire);
    return desktop ? *desktop : machine();
}

void ZqDesktop::set(ZqDesktop* desktop) noexcept {
    current.store(desktop, std::memory_order_release);
}
