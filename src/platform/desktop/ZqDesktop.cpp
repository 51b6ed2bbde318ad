#include "ZqDesktop.h"

#include <atomic>

namespace {
std::atomic<ZqDesktop*> current{nullptr};
}

ZqDesktop& ZqDesktop::get() noexcept {
    ZqDesktop* desktop = current.load(std::memory_order_acquire);
    return desktop ? *desktop : machine();
}

void ZqDesktop::set(ZqDesktop* desktop) noexcept {
    current.store(desktop, std::memory_order_release);
}
