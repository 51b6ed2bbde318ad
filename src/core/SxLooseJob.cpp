#include "SxLooseJob.h"

#include "SxClock.h"
#include "SxException.h"
#include "SxTime.h"

#include <pthread.h>
#include <system_error>
#include <utility>

namespace {
constexpr const char* UNIT = "src/core/SxLooseJob";
}

SxLooseJob::SxLooseJob(const char* name, std::function<void()> work)
    : ended(std::make_shared<std::atomic<bool>>(false)) {
    SxClock::get().threadStarting();
    try {
        thread = std::thread([name, work = std::move(work), atEnd = ended]() mutable noexcept {
            pthread_setname_np(pthread_self(), name);
            work();
            // What it holds goes before its owner hears of the end.
            work = nullptr;
            atEnd->store(true, std::memory_order_release);
            SxClock::get().threadEnded();
        });
    } catch (const std::system_error& e) {
        SxClock::get().threadEnded();
        throw SxException(SxString("Cannot start a thread: ") + e.what(), UNIT, __LINE__);
    }
}

SxLooseJob::~SxLooseJob() {
    if (hasEnded()) {
        thread.join();
    } else {
        thread.detach();
    }
}

bool SxLooseJob::endsWithin(int64 ms) const {
    return SxWait::pass(ms, [this] { return hasEnded(); });
}
