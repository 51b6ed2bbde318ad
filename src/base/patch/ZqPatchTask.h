#pragma once

#include "SxSystemThread.h"
#include "ZqPatchCompression.h"
#include "ZqPatchTool.h"

/// Job that makes the new file of an old one and a patch stream, with the tool `hpatchz` in the folder that
/// ZqSysEnv::getRTERootDir() gives. For one run.
///
/// A new file that is there is removed first, also where the run fails after that; what a tool that failed
/// has written of it stays. Nothing is synced. With REPLACE no tool runs, though it and the old file must be
/// there: the patch file is moved to the new file. A failure stays in the object (hasException()); a tool
/// that was stopped is one, with the tag SxException::STOPPED.
class ZqPatchTask : public SxSystemThread {
public:
    /// `oldFile` and `patchFile` are read, `newFile` is made. Of `compression` only REPLACE means something:
    /// a stream says itself how it is compressed.
    ZqPatchTask(const SxString& oldFile_, const SxString& newFile_, const SxString& patchFile_,
                ZqPatchCompression::Type compression_);

    /// Raises where the tool isn't there.
    static void requireTool();

    /// Kills the tool; where it doesn't run yet, none is started. Doesn't wait. From any thread.
    void stop() { tool.stop(); }

protected:
    void main() override;

private:
    void apply(const SxString& program);

    const SxString oldFile, newFile, patchFile;
    const ZqPatchCompression::Type compression;
    ZqPatchTool tool;
};
