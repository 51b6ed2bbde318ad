// Patches of one pair of files.

#include "SxException.h"
#include "SxFSAction.h"
#include "SxTime.h"
#include "ZqDiffTask.h"
#include "ZqPatch.h"
#include "ZqPatchTask.h"
#include "ZqSysEnv.h"

namespace {

constexpr const char* UNIT = "src/base/patch/ZqPatchDiff";
constexpr int64 REPORT_MS = 1000;

/// Runs the job, with a line of progress once a second.
void runReported(ZqDiffTask* task) {
    const int64 startTime = ZqSysEnv::getSysTime();
    task->start(6);
    do {
        ZqSysEnv::logProgress(0, 1, startTime, "task", "Compute_Diff");
        SxWait::pass(REPORT_MS, [&] { return !task->isRunning(); });
    } while (task->isRunning() && !task->hasException());
    task->wait();
    ZqSysEnv::logProgress(1, 1, startTime, "task", "Compute_Diff");
}

} // namespace

void ZqPatch::createPatch(const SxString& oldFile, const SxString& newFile, const SxString& patchFile,
                          ZqPatchMemory::Type memory, ZqPatchCompression::Type compression, int level) {
    try {
        for (const SxString& file : {oldFile, newFile}) {
            if (!SxFSAction::test_f(file)) throw SxException("File " + file + " not found", UNIT, __LINE__);
        }
        if (!SxFSAction::isGone(patchFile)) SxFSAction::rm(patchFile);
        ZqDiffTask task(oldFile, newFile, patchFile, memory, compression, level);
        runReported(&task);
        if (task.hasException())
            throw SxException(task.getException(), "Could not compute diff.", UNIT, __LINE__);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to create diff.", UNIT, __LINE__);
    }
}

void ZqPatch::applyPatch(const SxString& oldFile, const SxString& newFile, const SxString& patchFile,
                         ZqPatchCompression::Type compression) {
    ZqPatchTask task(oldFile, newFile, patchFile, compression);
    task.start(6);
    task.wait();
    // The task goes with this call, and nobody else could tell that there is no new file.
    if (task.hasException()) throw SxException(task.getException(), "Could not apply patch.", UNIT, __LINE__);
}
