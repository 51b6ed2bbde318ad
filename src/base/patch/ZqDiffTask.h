#pragma once

#include "SxSystemThread.h"
#include "ZqPatchCompression.h"
#include "ZqPatchMemory.h"
#include "ZqPatchTool.h"

/// Job that makes the patch stream of one pair of files, with the tool `hdiffz` in the folder that
/// ZqSysEnv::getRTERootDir() gives. For one run.
///
/// A patch file that is there is removed first, also where the run fails after that; what a tool that failed
/// has written of it stays. Nothing is synced. With REPLACE no tool runs, though it must be there: the new
/// file is moved to the patch file. A failure stays in the object (hasException()); a tool that was stopped
/// is one, with the tag SxException::STOPPED.
class ZqDiffTask : public SxSystemThread {
public:
    /// `oldFile` and `newFile` are read, `patchFile` is made. `level` is that of the compression: LZMA 0 to
    /// 9, ZLIB and BZIP2 1 to 9, LZ4HC 3 to 12, ZSTD 0 to 22; with RAW and REPLACE it means nothing.
    ZqDiffTask(const SxString& oldFile_, const SxString& newFile_, const SxString& patchFile_,
               ZqPatchMemory::Type memory_, ZqPatchCompression::Type compression_, int level_);

    /// Raises where the tool isn't there.
    static void requireTool();
    /// Raises where the compression hasn't that level.
    static void requireLevel(ZqPatchCompression::Type compression, int level);

    /// Kills the tool; where it doesn't run yet, none is started. Doesn't wait. From any thread.
    void stop() { tool.stop(); }

protected:
    void main() override;

private:
    void compute(const SxString& program);
    SxList<SxString> arguments() const;

    const SxString oldFile, newFile, patchFile;
    const ZqPatchMemory::Type memory;
    const ZqPatchCompression::Type compression;
    const int level;
    ZqPatchTool tool;
};
