#include "ZqFirstWindow.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxLatch.h"
#include "SxLooseJob.h"
#include "ZqDesktop.h"
#include "ZqLog.h"

#include <algorithm>
#include <atomic>

namespace {
/// How long the end of a run waits for the display.
constexpr int64 PATIENCE_MS = 500;
} // namespace

/// The thread that looks, and the run: whichever is later lets go of it.
struct ZqFirstWindow::Search {
    std::atomic<int64> group{-1}, seenNs{0};
    SxLatch ending;

    bool isSeen(ZqDesktop* desktop) const {
        const SxList<int> processes = desktop->getProcesses();
        return std::any_of(processes.begin(), processes.end(),
                           [&](int id) { return SxProcessGroup::of(id).getId() == group; });
    }

    void run(ZqDesktop* desktop) {
        const int64 endNs = SxClock::get().steadyNs() + MOST_MS * 1'000'000;
        while (SxClock::get().steadyNs() < endNs) {
            try {
                if (isSeen(desktop)) seenNs = SxClock::get().steadyNs();
            } catch (const SxException& e) {
                zqLogMsg("platform", SxString("ZqFirstWindow: ") + e.what());
                break;
            }
            if (seenNs != 0) break;
            if (ending.isSetWithin(LOOK_MS)) break;
        }
    }
};

ZqFirstWindow::ZqFirstWindow(int64 beginNs_) : beginNs(beginNs_) {
}

ZqFirstWindow::~ZqFirstWindow() {
    if (!job) return;
    search->ending.set();
    job->endsWithin(PATIENCE_MS);
}

void ZqFirstWindow::follow(const SxProcessGroup& group) {
    if (!group.isValid()) return;
    if (search) {
        search->group = group.getId();
        return;
    }
    search = std::make_shared<Search>();
    search->group = group.getId();
    ZqDesktop& desktop = ZqDesktop::get();
    if (!desktop.isNamed()) return;
    try {
        job = std::make_unique<SxLooseJob>("window", [own = search, &desktop] { own->run(&desktop); });
    } catch (const SxException& e) {
        zqLogMsg("platform", SxString("ZqFirstWindow: ") + e.what());
    }
}

int64 ZqFirstWindow::getMs() const {
    const int64 ns = search ? search->seenNs.load() : 0;
    return ns > 0 ? (ns - beginNs) / 1'000'000 : -1;
}
