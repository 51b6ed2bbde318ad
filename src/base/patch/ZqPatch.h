#pragma once

#include "ZqImage.h"
#include "ZqPatchCompression.h"
#include "ZqPatchMemory.h"

/// Operations on patches that need no state.
class ZqPatch {
public:
    /// What a comparison of an image with its RAW image came to, in blocks.
    struct ImageCounters {
        uint64 nTotal = 0;       ///< entries of the map
        uint64 nMapped = 0;      ///< whose block is in the ZqF file
        uint64 nUnmapped = 0;    ///< the others: without an entry, or missing
        uint64 nInvalid = 0;     ///< that differ; a missing block is compared as zeros
        uint64 nMissing = 0;     ///< of the unmapped, those beyond the present end of the ZqF file
        uint64 nMissingZero = 0; ///< of the missing, those that the RAW image has as zeros
        uint64 firstWrongRawIdx = ZqImage::NO_ENTRY; ///< the first that is there and differs
        SxString md5Raw, md5Zqf;                     ///< of all blocks with an entry, in RAW order

        /// The blocks that are there and differ. A missing block counts as invalid unless the RAW image has
        /// zeros there, but it is no difference between the two images.
        uint64 nWrong() const { return nInvalid - (nMissing - nMissingZero); }
    };

    /// Whether the patch folder `patchDir` (with its trailing slash) has its metadata: `patch.json` can be
    /// read, and `map.idx` and `patch.info` are there, each as it is or in `map.7z` and `patch.7z`. Sizes and
    /// digests aren't compared. Raises as ZqPatchParams::read() does, and "File ... is missing.". From any
    /// thread.
    static void verifyMeta(const SxString& patchDir);

    /// Compares `img.zqf` in `zqfDir`, by the map `img.idx` (unpacked from `img.idx.7z` where only that is
    /// there), with `img.raw` in `rawDir`, block by block. Both folders end with their slash. Shows its
    /// progress on standard output, and logs counters and digests; a difference is counted, not raised.
    /// Raises where a file is missing or can't be read. Takes no lock. From any thread, one call at a time
    /// for each image whose map is to be unpacked.
    static void verifyImage(const SxString& rawDir, const SxString& zqfDir);
    /// The same without a word on standard output, for programs that show progress and result themselves.
    /// `progress`, where given, gets bytes and speed and is asked for a stop, which raises with the tag
    /// "Stopped".
    static ImageCounters verifyImage(const SxString& rawDir, const SxString& zqfDir, ZqTaskMon* progress);

    /// Makes the patch stream `patchFile` that turns `oldFile` into `newFile`; one that is there is removed
    /// first. `level` as ZqDiffTask has it: LZMA 0 to 9, ZLIB and BZIP2 1 to 9, LZ4HC 3 to 12, ZSTD 0 to 22.
    /// With REPLACE the new file is moved to the patch file. Logs a line of progress once a second. Raises
    /// where a file or the tool is missing, the level is none of these, or the tool fails. Nothing is synced.
    /// From any thread.
    static void createPatch(const SxString& oldFile, const SxString& newFile, const SxString& patchFile,
                            ZqPatchMemory::Type memory, ZqPatchCompression::Type compression, int level);
    /// Makes `newFile` of `oldFile` and `patchFile`; one that is there is removed first. With REPLACE the
    /// patch file is moved to the new file. Raises as createPatch() does. Nothing is synced. From any thread.
    static void applyPatch(const SxString& oldFile, const SxString& newFile, const SxString& patchFile,
                           ZqPatchCompression::Type compression);
};
