#pragma once

#include "FaultOs.h"
#include "SxException.h"
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

/// The messages of the failure, outermost first, or an empty text.
inline std::string failureOf(const std::function<void()>& action) {
    try {
        action();
    } catch (const SxException& e) {
        return e.what();
    }
    return "";
}

/// Runs a job to its end.
inline std::string failureOf(SxSystemThread& job) {
    job.start();
    job.wait();
    return job.hasException() ? job.getException().what() : "";
}

/// What stands in a folder, the lock files aside, which stay behind.
inline TreeSnapshot contentOf(const TempDir& dir, std::string_view below = "watched") {
    TreeSnapshot tree = dir.snapshot(below);
    std::erase_if(tree, [](const auto& entry) { return entry.first.ends_with("image.lock"); });
    return tree;
}

/// A job that asks itself to stop as soon as `stopAt` is done.
template<class Job>
class StoppingAt : public Job {
public:
    template<class... Args>
    explicit StoppingAt(uint64 stopAt_, const Args&... args) : Job(args...),
                                                               stopAt(stopAt_) {
        if (stopAt == 0) Job::stop();
    }
    void addNCurrent(uint64 n) override {
        Job::addNCurrent(n);
        if (Job::getNCurrent() >= stopAt) Job::stop();
    }

private:
    const uint64 stopAt;
};

/// Lets the first, the second, the third ... operation of each kind in the folder "watched" fail, until the
/// job is through without having met the fault. Each time `prepare` fills the folder, `run` runs the job and
/// gives its failure, `check` looks at what is left, with the fault gone.
inline void failEachOperation(const std::function<void(const TempDir&)>& prepare,
                              const std::function<std::string(const TempDir&)>& run,
                              const std::function<void(const TempDir&, const std::string& failure)>& check) {
    for (const Op op :
         {Op::Open, Op::Close, Op::Read, Op::Write, Op::Sync, Op::SyncFs, Op::Truncate, Op::List, Op::MakeDir,
          Op::Unlink, Op::RemoveDir, Op::Rename, Op::SyncDir, Op::Lock, Op::FreeSpace, Op::Stat}) {
        bool struck = true;
        for (int64 nth = 1; struck && !testing::Test::HasFailure(); ++nth) {
            SCOPED_TRACE("operation " + std::to_string(static_cast<int>(op)) + ", no. " +
                         std::to_string(nth));
            const TempDir dir;
            prepare(dir);
            std::string failure;
            {
                FaultOs os(dir.path("watched"));
                os.failNth(op, nth, EIO);
                failure = run(dir);
                struck = os.getNFailed() > 0;
            }
            // A name that can't be asked for counts as absent, which is told in other words.
            const char* reason = op == Op::Stat ? "" : "Input/output error";
            EXPECT_THAT(failure, testing::AnyOf("", HasSubstr(reason)));
            EXPECT_TRUE(struck || failure.empty()) << failure;
            check(dir, failure);
        }
    }
}
