#include "ZqDiffTask.h"

#include "SxFSAction.h"
#include "ZqSysEnv.h"

#include <algorithm>

namespace {

constexpr const char* UNIT = "src/base/patch/ZqDiffTask";
constexpr const char* PROGRAM = "/hdiffz";
/// The least score of a match that is taken; the tool's default.
constexpr const char* IN_MEMORY = "-m-6";
/// Bytes of the blocks that are compared; the tool's default.
constexpr const char* STREAMING = "-s-64";
/// The tool's default, which a small machine doesn't go below.
constexpr int64 MIN_THREADS = 4;

/// A compression as the tool calls it, as failures call it, and its levels.
struct Method {
    const char *option, *name;
    int minLevel, maxLevel;
};

Method methodOf(ZqPatchCompression::Type compression) {
    switch (compression) {
    case ZqPatchCompression::LZMA:
        return {"lzma2", "lzma", 0, 9};
    case ZqPatchCompression::ZLIB:
        return {"zlib", "zlib", 1, 9};
    case ZqPatchCompression::BZIP2:
        return {"bzip2", "bzip2", 1, 9};
    case ZqPatchCompression::LZ4HC:
        return {"lz4hc", "lz4hc", 3, 12};
    case ZqPatchCompression::ZSTD:
        return {"zstd", "zstd", 0, 22};
    case ZqPatchCompression::RAW:
    case ZqPatchCompression::REPLACE:
        break;
    }
    throw SxException("Invalid compression mode " + SxString(static_cast<int>(compression)), UNIT, __LINE__);
}

} // namespace

ZqDiffTask::ZqDiffTask(const SxString& oldFile_, const SxString& newFile_, const SxString& patchFile_,
                       ZqPatchMemory::Type memory_, ZqPatchCompression::Type compression_, int level_)
    : oldFile(oldFile_),
      newFile(newFile_),
      patchFile(patchFile_),
      memory(memory_),
      compression(compression_),
      level(level_) {
}

void ZqDiffTask::requireTool() {
    const SxString program = ZqSysEnv::getRTERootDir() + PROGRAM;
    if (SxFSAction::test_f(program)) return;
    throw SxException("Patch creation tool not found in '" + program + "'. Please reinstall the software.",
                      UNIT, __LINE__);
}

void ZqDiffTask::requireLevel(ZqPatchCompression::Type compression, int level) {
    if (compression == ZqPatchCompression::RAW || compression == ZqPatchCompression::REPLACE) return;
    const Method method = methodOf(compression);
    if (level >= method.minLevel && level <= method.maxLevel) return;
    throw SxException("Invalid compression level " + SxString(level) + " for " + method.name, UNIT, __LINE__);
}

void ZqDiffTask::main() {
    for (const SxString& file : {oldFile, newFile}) {
        if (!SxFSAction::test_f(file)) throw SxException("File " + file + " not found", UNIT, __LINE__);
    }
    if (!SxFSAction::isGone(patchFile)) SxFSAction::rm(patchFile);
    requireTool();
    try {
        compute(ZqSysEnv::getRTERootDir() + PROGRAM);
    } catch (const SxException& e) {
        throw SxException(e, "Failed to compute patch", UNIT, __LINE__);
    }
}

void ZqDiffTask::compute(const SxString& program) {
    if (compression == ZqPatchCompression::REPLACE) {
        SxFSAction::mv(newFile, patchFile);
        return;
    }
    tool.run(program, arguments(), "diff", "ZqDiffTask::main");
}

SxList<SxString> ZqDiffTask::arguments() const {
    SxList<SxString> words = {memory == ZqPatchMemory::Streaming ? STREAMING : IN_MEMORY};
    requireLevel(compression, level);
    if (compression != ZqPatchCompression::RAW)
        words << SxString("-c-") + methodOf(compression).option + "-" + SxString(level);
    words << "-p-" + SxString(std::max(getNCores(), MIN_THREADS));
    // The tool knows host paths only.
    for (const SxString& file : {oldFile, newFile, patchFile})
        words << SxString(SxOs::hostPath(file));
    return words;
}
