#include "ZqPatchTask.h"

#include "SxFSAction.h"
#include "SxTimer.h"
#include "ZqSysEnv.h"
#include "ZqTimers.h"

namespace {

constexpr const char* UNIT = "src/base/patch/ZqPatchTask";
constexpr const char* PROGRAM = "/hpatchz";

void requireFile(const SxString& file) {
    if (!SxFSAction::test_f(file)) throw SxException("File " + file + " not found", UNIT, __LINE__);
}

} // namespace

ZqPatchTask::ZqPatchTask(const SxString& oldFile_, const SxString& newFile_, const SxString& patchFile_,
                         ZqPatchCompression::Type compression_)
    : oldFile(oldFile_),
      newFile(newFile_),
      patchFile(patchFile_),
      compression(compression_) {
}

void ZqPatchTask::requireTool() {
    const SxString program = ZqSysEnv::getRTERootDir() + PROGRAM;
    if (SxFSAction::test_f(program)) return;
    throw SxException("Patch applying tool not found in '" + program + "'. Please reinstall the software.",
                      UNIT, __LINE__);
}

void ZqPatchTask::main() {
    requireFile(oldFile);
    if (!SxFSAction::isGone(newFile)) SxFSAction::rm(newFile);
    requireFile(patchFile);
    requireTool();
    try {
        apply(ZqSysEnv::getRTERootDir() + PROGRAM);
    } catch (const SxException& e) {
        throw SxException(e, "Patch task failed", UNIT, __LINE__);
    }
}

void ZqPatchTask::apply(const SxString& program) {
    if (compression == ZqPatchCompression::REPLACE) {
        SxFSAction::mv(patchFile, newFile);
        return;
    }
    // The tool knows host paths only.
    SxList<SxString> arguments;
    for (const SxString& file : {oldFile, patchFile, newFile})
        arguments << SxString(SxOs::hostPath(file));
    const SxTakeTime time(Timer::PatchTimer::ApplyPatch);
    tool.run(program, arguments, "patch", "ZqPatchTask::main");
}
