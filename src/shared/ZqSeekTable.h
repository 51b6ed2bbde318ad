#pragma once

#include "SxArray.h"
#include "SxTypes.h"
#include "ZqBlocks.h"

/// The seek table at the end of `img.zqf.zst` (Zstandard Seekable Format 0.1.0): where each frame lies and
/// what comes out of it: a stretch (ZqBlocks::STRETCH) of each but the last. Every number is checked against
/// the sizes of both forms. Never changes after it was made.
class ZqSeekTable {
public:
    /// Most bytes that a frame takes: what the encoder can't compress grows by less than this.
    static constexpr uint64 MAX_PACKED = ZqBlocks::STRETCH + ZqBlocks::STRETCH / 128 + 64;

    struct Frame {
        uint64 offset;   ///< in the packed file
        uint32 size;     ///< bytes in the packed file
        uint32 checksum; ///< low 32 bits of the XXH64 of the decoded bytes
    };

    static uint64 countFrames(uint64 sizeZqf) noexcept {
        return sizeZqf / ZqBlocks::STRETCH + (sizeZqf % ZqBlocks::STRETCH != 0);
    }
    /// Most bytes that the table of such an image takes, at the end of the file.
    static uint64 maxTail(uint64 sizeZqf) noexcept;

    /// Reads the table from `tail`, the last `nTail` bytes of a packed file of `sizePacked` bytes, which must
    /// hold an image of `sizeZqf` bytes. Raises SxException saying what is wrong.
    ZqSeekTable(const char* tail, uint64 nTail, uint64 sizePacked, uint64 sizeZqf);

    uint64 getNFrames() const noexcept { return static_cast<uint64>(frames.getSize()); }
    const Frame& getFrame(uint64 frameIdx) const { return frames(static_cast<int64>(frameIdx)); }
    bool hasChecksums() const noexcept { return checksums; }
    /// Stands for the checksums of all frames: equal where these are; 0 where it has none.
    uint64 getChecksumsId() const noexcept { return checksumsId; }
    /// Whether both have checksums, and these are of the same decoded bytes, however they were packed.
    bool hasSameChecksums(const ZqSeekTable& other) const;
    /// Whether a frame decodes to these bytes, by its checksum.
    bool isRight(uint64 frameIdx, const SxArray<char>& bytes) const {
        return getFrame(frameIdx).checksum == checksumOf(bytes.data(), bytes.getSize());
    }
    /// The checksum of a frame that decodes to these bytes.
    static uint32 checksumOf(const char* bytes, int64 n) noexcept;

private:
    SxArray<Frame> frames;
    bool checksums = false;
    uint64 checksumsId = 0;
};
