#pragma once

#include "SxProcessGroup.h"

#include <memory>

class SxLooseJob;

/// When the first window of an application's processes was seen. A window can be empty, so it says less than
/// the first frame does. The desktop is looked at four times a second, until a window is seen or for two
/// minutes, by a thread of its own, since a display may stop answering; such a thread is left to itself.
/// Without a display there is none. Of the run's thread.
class ZqFirstWindow {
public:
    static constexpr int64 LOOK_MS = 250, MOST_MS = 120'000;

    /// `beginNs`: when the run began, by the steady clock.
    explicit ZqFirstWindow(int64 beginNs_);
    ~ZqFirstWindow();
    ZqFirstWindow(const ZqFirstWindow&) = delete;
    ZqFirstWindow& operator=(const ZqFirstWindow&) = delete;

    /// The application is `group` now. To be called every now and then; the first call with a group that is
    /// one begins the search.
    void follow(const SxProcessGroup& group);
    /// Milliseconds from the beginning of the run; -1 where none was seen.
    int64 getMs() const;

private:
    struct Search;

    const int64 beginNs;
    std::shared_ptr<Search> search;  ///< shared with its thread
    std::unique_ptr<SxLooseJob> job; ///< that thread; null where there is none
};
