#pragma once

#include "Failure.h"
#include "FaultOs.h"
#include "TempDir.h"
#include "ZqTaskMon.h"

#include <cerrno>
#include <gmock/gmock.h>

namespace fs = std::filesystem;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using Op = FaultOs::Op;

/// Puts the temporary folders into memory where there is room for them: what a power cut leaves is worked out
/// by FaultOs, so the disk's own syncs would only cost time.
inline const bool inMemory = [] {
    std::error_code none;
    return fs::space("/dev/shm", none).available > uint64{512} << 20 && !none &&
           ::setenv("TMPDIR", "/dev/shm", 0) == 0;
}();

/// Runs a job to its end.
inline std::string failureOf(SxSystemThread& job) {
    job.start();
    job.wait();
    return job.hasFailure() ? job.getFailure().what() : "";
}

/// What stands in a folder, the lock files aside, which stay, and what is noted for the next run.
inline TreeSnapshot contentOf(const TempDir& dir, std::string_view below = "watched") {
    TreeSnapshot tree = dir.snapshot(below);
    std::erase_if(tree, [](const auto& entry) {
        const std::string& name = entry.first;
        return name.ends_with("image.lock") || name.ends_with("runs") ||
               name.find("runs/preparations.json") != std::string::npos;
    });
    return tree;
}

/// The job under way, for who wants to stop it.
inline ZqTaskMon* jobUnderWay = nullptr;

/// Disturbs a job in the folder "watched" in every way, at one place after the other, until it is through
/// undisturbed: the n-th operation of each kind fails; a stop is asked for before the n-th durable step;
/// the disk is full after n * `told` bytes and says so, or after n * `untold` bytes and doesn't. Each time
/// `prepare` fills the folder, `run` runs the job and gives its failure, `check` looks at what is left, with
/// the fault gone.
inline void disturb(const std::function<void(const TempDir&)>& prepare,
                    const std::function<std::string(const TempDir&)>& run,
                    const std::function<void(const TempDir&, const std::string& failure)>& check,
                    int64 told = 1, int64 untold = 1) {
    constexpr int STOP = 100, FULL = 101, FULL_UNTOLD = 102;
    std::vector<int> kinds = {STOP, FULL, FULL_UNTOLD};
    for (int op = 0; op <= static_cast<int>(Op::Lock); ++op)
        kinds.push_back(op);
    for (const int kind : kinds) {
        bool struck = true;
        for (int64 nth = 0; struck && !testing::Test::HasFailure(); ++nth) {
            SCOPED_TRACE("disturbance " + std::to_string(kind) + ", place " + std::to_string(nth));
            const TempDir dir;
            prepare(dir);
            std::string failure;
            {
                FaultOs os(dir.path("watched"));
                if (kind < STOP) os.failNth(static_cast<Op>(kind), nth + 1, EIO);
                if (kind == FULL || kind == FULL_UNTOLD) os.setDiskLeft(nth * (kind == FULL ? told : untold));
                if (kind == FULL_UNTOLD) os.setFreeSpaceAnswer(int64{1} << 40);
                bool stopped = false;
                os.setHook([&](int64 step, Op, const std::string&) {
                    if (kind != STOP || step != nth + 1) return;
                    stopped = true;
                    jobUnderWay->stop();
                });
                failure = run(dir);
                struck = kind < STOP ? os.getNFailed() > 0 : kind == STOP ? stopped : !failure.empty();
            }
            EXPECT_TRUE(struck || failure.empty()) << failure;
            check(dir, failure);
        }
    }
}
