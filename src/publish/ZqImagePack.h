#pragma once

#include "SxFileIO.h"
#include "ZqTaskMon.h"

/// Job that writes `img.zqf.zst` and `img.idx.zst`, the packed forms for delivery, beside the `img.zqf` and
/// `img.idx` of a complete image. What stood there is replaced when the new one is complete. Works with all
/// cores and some megabytes of memory. Progress in bytes of `img.zqf`. Takes the image's lock, shared, and
/// that for growth, so that there is one at a time. Raises where the image isn't complete, or one of both
/// isn't what `app.json` says.
class ZqImagePack : public ZqTaskMon {
public:
    /// Higher levels gain by long distances, which a frame of 200 KB doesn't have: beyond 17 they save 0.15 %
    /// of a game's image, and take half as much time again.
    static constexpr int64 DEFAULT_LEVEL = 17;
    static int64 getMaxLevel();

    /// `image` is the image folder, `level` one of zstd's.
    explicit ZqImagePack(const SxString& image, int64 level = DEFAULT_LEVEL);

    // After the end.
    uint64 getNFrames() const { return nFrames; }
    uint64 getSizeZqf() const { return sizeZqf; }             ///< bytes
    uint64 getSizePacked() const { return sizePacked; }       ///< bytes of `img.zqf.zst`
    uint64 getSizeIdx() const { return sizeIdx; }             ///< bytes
    uint64 getSizeIdxPacked() const { return sizeIdxPacked; } ///< bytes of `img.idx.zst`

protected:
    void main() override;

private:
    class Writer;

    /// Gives the digest.
    SxString writeFrames(Writer* writer);
    void packMap(const SxString& digest);

    const SxString image; ///< with a trailing slash
    const int64 level;
    uint64 nFrames = 0, sizeZqf = 0, sizePacked = 0, sizeIdx = 0, sizeIdxPacked = 0;
};
