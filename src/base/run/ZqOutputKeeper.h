#pragma once

#include "SxList.h"
#include "SxLooseJob.h"
#include "SxString.h"

class ZqGameOutput;

/// Keeps what the application of a run says in bounds while that runs, and makes a plain text of it at the
/// end, on a thread of its own: a slow disk keeps no run waiting, and one that hangs holds up no end. What
/// isn't put together then the next run puts in order. Of the run's thread.
class ZqOutputKeeper {
public:
    /// What the end of a run waits for its text.
    static constexpr int64 LIMIT_MS = 3000;

    /// `output` has its file. Raises where no thread can be had.
    explicit ZqOutputKeeper(const std::shared_ptr<ZqGameOutput>& output);
    /// Leaves the text as it is, unless letGo() was called: the application may live on.
    ~ZqOutputKeeper();
    ZqOutputKeeper(const ZqOutputKeeper&) = delete;
    ZqOutputKeeper& operator=(const ZqOutputKeeper&) = delete;

    /// The application has ended: the text is put together from now on.
    void letGo() { work->state = Ended; }
    /// Waits for the text, up to the limit. Gives the last lines of it; none where it isn't there yet, or
    /// letGo() wasn't called.
    SxList<SxString> finish() const;

private:
    enum State { Running, Ended, Left };
    struct Work {
        std::atomic<State> state{Running}; ///< of the application, as far as this run knows
        SxList<SxString> lastLines;        ///< the thread's until that has ended
    };

    const std::shared_ptr<Work> work;
    const SxLooseJob job;
};
