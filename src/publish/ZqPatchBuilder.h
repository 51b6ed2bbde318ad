#pragma once

#include "ZqPatchCompression.h"
#include "ZqTaskMon.h"

class ZqPatchSide;
struct ZqPatchPart;
class ZqPatchParams;

/// Job that makes a patch folder from the image folders of two versions, both complete. Blocks that both have
/// keep their place when the patch is applied, wherever they lie on the disk; the others go into parts of
/// bounded size, each with the old blocks that they are like. docs/file-formats.md has the files. Progress in
/// bytes. Works on all cores. Takes both images' locks, shared. The same two images give the same patch, byte
/// for byte, on any number of cores.
///
/// Memory: about 24 bytes for each block of the two images, and what the tools take for the parts in work.
class ZqPatchBuilder : public ZqTaskMon {
public:
    struct Options {
        ZqPatchCompression::Type compression = ZqPatchCompression::LZMA;
        /// Of the compression, see ZqDiffTask; negative for the one that packs best.
        int level = -1;
        /// Blocks of a part at most, new and old ones; 0 for what serves best.
        uint32 nNew = 0, nOld = 0;
    };

    /// `patch_` is the patch folder to make, which is absent or empty.
    ZqPatchBuilder(const SxString& older_, const SxString& newer_, const SxString& patch_,
                   const Options& options_);

    /// After the end: what came of it.
    struct Result {
        SxString from, to;     ///< guids
        uint64 nKept = 0;      ///< blocks that both versions have
        uint64 nChanged = 0;   ///< the other blocks of the new version
        uint64 nOldBlocks = 0; ///< old blocks that parts read, with repetitions
        uint64 nParts = 0;
        uint64 bytes = 0; ///< of all files of the patch
    };
    bool isComplete() const { return complete; }
    const Result& getResult() const { return result; }

protected:
    void main() override;

private:
    void require() const;
    void build();
    void writeMap(const ZqPatchSide& older, const std::vector<uint32>& matched) const;
    void writeParts(const ZqPatchSide& older, const ZqPatchSide& newer, const std::vector<ZqPatchPart>& parts,
                    ZqPatchParams* record);
    void writeRecords(const ZqPatchSide& older, const ZqPatchSide& newer, ZqPatchParams* record);
    void removeAll() const;

    const SxString older, newer, patch, scratch; ///< with trailing slashes
    const ZqPatchCompression::Type compression;
    const int level;
    const uint32 nNew, nOld; ///< limits of a part, or 0
    Result result;
    bool complete = false;
};
